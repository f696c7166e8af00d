// The bridge's round trip: getVersion and listCSP through a loopback
// WebSocket against the same call made directly on a control object,
// median and 99th percentile in microseconds (the "openssl" column holds
// the direct figure here).
#ifdef KV_BRIDGE_BIN
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio.hpp>
#include <boost/beast.hpp>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "bench.h"
#include "control/korvanta_control.h"
#include "control/portable/portable_platform.h"

namespace {

namespace beast = boost::beast;
using tcp = boost::asio::ip::tcp;

struct Figures {
  double median, p99;
};

Figures Measure(const std::function<void()>& fn, int n) {
  std::vector<double> t;
  t.reserve(static_cast<size_t>(n));
  for (int i = 0; i < 50; ++i) fn();  // warm up
  for (int i = 0; i < n; ++i) {
    const auto start = kvbench::Clock::now();
    fn();
    t.push_back(kvbench::seconds_since(start) * 1e6);
  }
  std::sort(t.begin(), t.end());
  return {t[t.size() / 2], t[t.size() * 99 / 100]};
}

// A bridge on a free port with its own configuration and data in dir.
struct Server {
  pid_t pid = -1;
  unsigned short port = 0;
  explicit Server(const std::string& dir) {
    const std::string conf = dir + "/config/korvanta";
    if (std::system(
            ("mkdir -p '" + conf + "' && echo http://127.0.0.1:1 > '" + conf + "/bridge.conf'")
                .c_str()) != 0)
      return;
    int out[2];
    if (pipe(out) != 0) return;
    pid = fork();
    if (pid == 0) {
      dup2(out[1], 1);
      close(out[0]);
      freopen("/dev/null", "w", stderr);
      setenv("XDG_CONFIG_HOME", (dir + "/config").c_str(), 1);
      execl(KV_BRIDGE_BIN, KV_BRIDGE_BIN, "--port", "0", "--data-dir", (dir + "/data").c_str(),
            "--home", dir.c_str(), "--signer-cancel", static_cast<char*>(nullptr));
      _exit(127);
    }
    close(out[1]);
    std::string line;
    char c;
    while (read(out[0], &c, 1) == 1 && c != '\n') line += c;
    close(out[0]);
    if (line.rfind("port ", 0) == 0)
      port = static_cast<unsigned short>(std::atoi(line.c_str() + 5));
  }
  ~Server() {
    if (pid > 0) {
      kill(pid, SIGTERM);
      waitpid(pid, nullptr, 0);
    }
  }
};

}  // namespace

KV_BENCH(bridge) {
  char tmpl[] = "/tmp/kvbench-bridge-XXXXXX";
  if (!mkdtemp(tmpl)) return;
  const std::string dir = tmpl;
  {
    Server server(dir);
    if (server.port == 0) {
      std::printf("bridge: the bridge did not start\n");
      return;
    }
    boost::asio::io_context io;
    beast::websocket::stream<tcp::socket> ws(io);
    ws.next_layer().connect(tcp::endpoint(boost::asio::ip::make_address("127.0.0.1"), server.port));
    ws.set_option(beast::websocket::stream_base::decorator([](beast::websocket::request_type& r) {
      r.set(beast::http::field::origin, "http://127.0.0.1:1");
    }));
    ws.handshake("127.0.0.1:" + std::to_string(server.port), "/");
    auto viaBridge = [&](const std::string& msg) {
      return [&ws, msg] {
        ws.write(boost::asio::buffer(msg));
        beast::flat_buffer buf;
        ws.read(buf);
      };
    };
    kv::control::PortableConfig config;
    config.dataDirectory = dir + "/direct";
    config.homeDirectory = dir;
    kv::control::PortablePlatform platform(config);
    CBrendalKorvanta control(platform);
    CBrendalKorvanta::Text text;
    const Figures bv = Measure(viaBridge(R"({"id":1,"method":"getVersion"})"), 2000);
    const Figures dv = Measure([&] { control.getVersion(&text); }, 2000);
    const Figures bl = Measure(viaBridge(R"({"id":2,"method":"listCSP","args":[0]})"), 2000);
    const Figures dl = Measure([&] { control.listCSP(0, &text); }, 2000);
    kvbench::report("bridge_getVersion_median_us", bv.median, dv.median, false);
    kvbench::report("bridge_getVersion_p99_us", bv.p99, dv.p99, false);
    kvbench::report("bridge_listCSP_median_us", bl.median, dl.median, false);
    kvbench::report("bridge_listCSP_p99_us", bl.p99, dl.p99, false);
    beast::error_code ec;
    ws.close(beast::websocket::close_code::normal, ec);
  }
  if (std::system(("rm -rf '" + dir + "'").c_str()) != 0) return;
}
#endif
