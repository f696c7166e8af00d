// korvanta-bridge: lets a web page on an allowed origin drive the enrolment
// control over a loopback WebSocket, one control object per connection.
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/asio.hpp>
#include <boost/beast.hpp>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "bridge_config.h"
#include "control/korvanta_control.h"
#include "control/portable/portable_platform.h"
#include "crypto/p11.h"
#include "jsoncall/json_call.h"

extern char** environ;

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using kvtool::json;

const char kHelp[] =
    "usage: korvanta-bridge [serve] [OPTIONS]\n"
    "       korvanta-bridge allow|deny ORIGIN\n"
    "       korvanta-bridge list\n"
    "\n"
    "serve (the default) listens on 127.0.0.1 and ::1 for WebSocket connections\n"
    "from pages whose origin is on the allow-list; each connection drives its own\n"
    "enrolment control with JSON messages:\n"
    "  {\"id\":1,\"method\":\"genKeyPair\",\"args\":[2048]}\n"
    "  -> {\"id\":1,\"status\":0,\"result\":\"MIIB...\"}\n"
    "allow, deny and list manage the allow-list (origins like https://ca.example:8443)\n"
    "in $XDG_CONFIG_HOME/korvanta/bridge.conf.\n"
    "\n"
    "options:\n"
    "  --port N                port to listen on (default 47392; 0 picks one and\n"
    "                          prints \"port N\" on standard output)\n"
    "  --data-dir DIR          containers and stores (default: $XDG_DATA_HOME/korvanta)\n"
    "  --home DIR              where the container-name file goes (default: $HOME)\n"
    "  --code-page NAME        the narrow text's code page (default: CP936)\n"
    "  --signer-subject TEXT   sign \"DS\" requests with the first MY certificate\n"
    "                          whose subject contains TEXT, without asking\n"
    "  --signer-thumbprint HEX ... or the one with this SHA-1 thumbprint\n"
    "  --signer-cancel         cancel every signing request\n"
    "  --max-message BYTES     largest message answered (default 1048576)\n"
    "\n"
    "Without a --signer option the user picks the signing certificate in a\n"
    "zenity dialog; without a display, signing requests are refused.\n";

struct Options {
  unsigned short port = 47392;
  kv::control::PortableConfig platform;
  enum class Signer { kDialog, kSubject, kThumbprint, kCancel } signer = Signer::kDialog;
  std::string signerValue;
  size_t maxMessage = 1 << 20;
  int maxStrikes = 5;
  int maxConnections = 256;
};

std::mutex gLogMutex;
void Log(const std::string& line) {
  std::lock_guard<std::mutex> lock(gLogMutex);
  std::cerr << "korvanta-bridge: " << line << "\n";
}

// Asks the desktop user which certificate signs, through zenity; refuses
// where there is no display to ask on.
class DialogChooser : public kv::control::SigningChooser {
 public:
  int Choose(const std::vector<kv::control::SigningCandidate>& candidates) override {
    const char* x = std::getenv("DISPLAY");
    const char* w = std::getenv("WAYLAND_DISPLAY");
    if (!(x && *x) && !(w && *w)) {
      Log("signing refused: no display to ask the user on");
      return -1;
    }
    std::vector<std::string> args = {
        "zenity",
        "--list",
        "--title=Choose the signing certificate",
        "--text=A web page asks to sign with one of your certificates.",
        "--column=Subject",
        "--column=Thumbprint",
        "--print-column=2",
        "--width=700",
        "--height=300"};
    for (const auto& c : candidates) {
      args.push_back(c.subject);
      args.push_back(c.thumbprint);
    }
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    int fds[2];
    if (pipe(fds) != 0) return -1;
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, fds[1], 1);
    posix_spawn_file_actions_addclose(&fa, fds[0]);
    pid_t pid = 0;
    const int rc = posix_spawnp(&pid, "zenity", &fa, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    close(fds[1]);
    std::string out;
    if (rc == 0) {
      char buf[256];
      ssize_t n;
      while ((n = read(fds[0], buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
      int st = 0;
      waitpid(pid, &st, 0);
    }
    close(fds[0]);
    if (rc != 0) {
      Log("signing refused: zenity cannot be started");
      return -1;
    }
    out = out.substr(0, out.find('\n'));
    for (size_t i = 0; i < candidates.size(); ++i) {
      if (!out.empty() && candidates[i].thumbprint == out) return static_cast<int>(i);
    }
    return -1;
  }
};

std::unique_ptr<kv::control::SigningChooser> MakeChooser(const Options& o) {
  using kv::control::ScriptedChooser;
  switch (o.signer) {
    case Options::Signer::kSubject:
      return std::make_unique<ScriptedChooser>(ScriptedChooser::BySubject(o.signerValue));
    case Options::Signer::kThumbprint:
      return std::make_unique<ScriptedChooser>(ScriptedChooser::ByThumbprint(o.signerValue));
    case Options::Signer::kCancel:
      return std::make_unique<ScriptedChooser>(ScriptedChooser::Cancel());
    case Options::Signer::kDialog:
      break;
  }
  return std::make_unique<DialogChooser>();
}

std::atomic<int> gConnections{0};

// Bounds how long a client may take to send its upgrade request.
void SetReceiveTimeout(tcp::socket& s, int seconds) {
  timeval tv{seconds, 0};
  setsockopt(s.native_handle(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
}

json ErrorAnswer(const std::string& text) {
  json j = json::object();
  j["id"] = nullptr;
  j["error"] = text;
  return j;
}

void Session(tcp::socket sock, const Options& opt, unsigned short port) {
  struct Count {
    ~Count() { --gConnections; }
  } count;
  std::string peer = "?";
  try {
    peer = sock.remote_endpoint().address().to_string();
    SetReceiveTimeout(sock, 10);
    beast::flat_buffer buffer;
    http::request_parser<http::empty_body> parser;
    parser.header_limit(16 * 1024);
    http::read(sock, buffer, parser);
    http::request<http::empty_body> req = parser.release();
    auto respond = [&](http::status status, const std::string& body) {
      http::response<http::string_body> res{status, req.version()};
      res.set(http::field::server, "korvanta-bridge");
      res.set(http::field::content_type, "text/plain");
      res.keep_alive(false);
      res.body() = body;
      res.prepare_payload();
      beast::error_code ec;
      http::write(sock, res, ec);
      sock.shutdown(tcp::socket::shutdown_both, ec);
    };
    const std::string host(req[http::field::host]);
    if (!kvbridge::HostAllowed(host, port)) {
      Log("refused " + peer + ": Host \"" + host.substr(0, 100) + "\" is not this bridge");
      respond(http::status::forbidden, "host not allowed\n");
      return;
    }
    if (!websocket::is_upgrade(req)) {
      // A page can tell "not running" from "origin not allowed" with this.
      if (req.target() == "/ping") {
        respond(http::status::no_content, "");
      } else {
        respond(http::status::not_found, "korvanta-bridge speaks WebSocket\n");
      }
      return;
    }
    std::string origin;
    const std::string rawOrigin(req[http::field::origin]);
    const auto allowed = kvbridge::LoadAllowList(kvbridge::ConfigPath());
    if (!kvbridge::NormaliseOrigin(rawOrigin, &origin) ||
        std::find(allowed.begin(), allowed.end(), origin) == allowed.end()) {
      Log("refused origin \"" + rawOrigin.substr(0, 200) + "\": not on the allow-list");
      respond(http::status::forbidden, "origin not allowed\n");
      return;
    }
    SetReceiveTimeout(sock, 0);
    websocket::stream<tcp::socket> ws(std::move(sock));
    // Somewhat larger messages are read and answered with an error; beyond
    // this the connection is dropped.
    ws.read_message_max(opt.maxMessage * 4);
    ws.set_option(websocket::stream_base::decorator(
        [](websocket::response_type& r) { r.set(http::field::server, "korvanta-bridge"); }));
    ws.accept(req);
    Log("connected " + origin);

    const auto chooser = MakeChooser(opt);
    kv::control::PortableConfig config = opt.platform;
    config.chooser = chooser.get();
    kv::control::PortablePlatform platform(config);
    CBrendalKorvanta control(platform);
    const char* method = "";
    const kvtool::Invoker invoke = [&](const kvtool::MethodInfo& m, const std::vector<json>& a) {
      method = m.name;
      return kvtool::Invoke(control, m.name, a);
    };

    int strikes = 0;
    for (;;) {
      beast::flat_buffer message;
      beast::error_code ec;
      ws.read(message, ec);
      if (ec) {
        if (ec == websocket::error::message_too_big) Log(origin + ": message far too large");
        break;
      }
      json answer;
      bool valid = false;
      if (!ws.got_text()) {
        answer = ErrorAnswer("messages are JSON text");
      } else if (message.size() > opt.maxMessage) {
        answer = ErrorAnswer("message too large");
      } else {
        answer = kvtool::HandleMessage(beast::buffers_to_string(message.data()), invoke, &valid);
      }
      if (valid) {
        // Arguments and results may be secret; only the method and status.
        Log(origin + " " + method + " -> " +
            (answer.contains("status") ? answer["status"].dump() : std::string("?")));
      } else {
        Log(origin + " rejected: " + answer.value("error", std::string()));
      }
      ws.text(true);
      ws.write(asio::buffer(kvtool::Dump(answer)), ec);
      if (ec) break;
      if (!valid && ++strikes >= opt.maxStrikes) {
        Log(origin + ": closed after " + std::to_string(strikes) + " bad messages");
        ws.close(
            websocket::close_reason(websocket::close_code::policy_error, "too many bad messages"),
            ec);
        break;
      }
    }
    Log("disconnected " + origin);
  } catch (const std::exception& e) {
    Log("connection from " + peer + " ended: " + e.what());
  }
}

void AcceptLoop(tcp::acceptor& acceptor, const Options& opt, unsigned short port) {
  for (;;) {
    beast::error_code ec;
    tcp::socket sock(acceptor.get_executor());
    acceptor.accept(sock, ec);
    if (ec) {
      if (ec == asio::error::operation_aborted || ec == asio::error::bad_descriptor) return;
      continue;
    }
    if (++gConnections > opt.maxConnections) {
      --gConnections;
      sock.close(ec);
      continue;
    }
    try {
      std::thread(Session, std::move(sock), std::cref(opt), port).detach();
    } catch (const std::system_error& e) {
      // Out of threads: this client is dropped, the others go on.
      --gConnections;
      Log(std::string("connection dropped: ") + e.what());
    }
  }
}

void Silent(void*, const char*) {}

int Usage(const std::string& message) {
  std::cerr << "korvanta-bridge: " << message << "\n\n" << kHelp;
  return 2;
}

int ManageList(const std::vector<std::string>& args) {
  const std::string path = kvbridge::ConfigPath();
  auto list = kvbridge::LoadAllowList(path);
  if (args[0] == "list") {
    if (args.size() != 1) return Usage("list takes no argument");
    for (const auto& o : list) std::cout << o << "\n";
    return 0;
  }
  if (args.size() != 2) return Usage(args[0] + " takes one ORIGIN");
  std::string origin;
  if (!kvbridge::NormaliseOrigin(args[1], &origin)) {
    std::cerr << "korvanta-bridge: \"" << args[1]
              << "\" is not an origin (scheme://host[:port], no path)\n";
    return 1;
  }
  const auto at = std::find(list.begin(), list.end(), origin);
  if (args[0] == "allow" && at == list.end()) list.push_back(origin);
  if (args[0] == "deny" && at != list.end()) list.erase(at);
  std::string error;
  if (!kvbridge::SaveAllowList(path, list, &error)) {
    std::cerr << "korvanta-bridge: " << path << ": " << error << "\n";
    return 1;
  }
  return 0;
}

int Serve(const std::vector<std::string>& args) {
  // Sessions keep a reference: it lives until exit.
  static Options opt;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--help" || a == "-h") {
      std::cout << kHelp;
      return 0;
    }
    if (a == "--signer-cancel") {
      opt.signer = Options::Signer::kCancel;
      continue;
    }
    if (i + 1 >= args.size()) return Usage("unknown option or missing value: " + a);
    const std::string& v = args[++i];
    if (a == "--port") {
      char* end = nullptr;
      const long n = std::strtol(v.c_str(), &end, 10);
      if (v.empty() || *end || n < 0 || n > 65535) return Usage("bad port " + v);
      opt.port = static_cast<unsigned short>(n);
    } else if (a == "--data-dir") {
      opt.platform.dataDirectory = v;
    } else if (a == "--home") {
      opt.platform.homeDirectory = v;
    } else if (a == "--code-page") {
      opt.platform.codePage = v;
    } else if (a == "--signer-subject") {
      opt.signer = Options::Signer::kSubject, opt.signerValue = v;
    } else if (a == "--signer-thumbprint") {
      opt.signer = Options::Signer::kThumbprint, opt.signerValue = v;
    } else if (a == "--max-message") {
      opt.maxMessage = std::strtoul(v.c_str(), nullptr, 10);
      if (opt.maxMessage < 1024) return Usage("--max-message is at least 1024");
    } else {
      return Usage("unknown option " + a);
    }
  }
  KV_P11_SetDiagnostics(Silent, nullptr);

  asio::io_context io;
  tcp::acceptor v4(io);
  tcp::acceptor v6(io);
  beast::error_code ec;
  const tcp::endpoint e4(asio::ip::make_address("127.0.0.1"), opt.port);
  v4.open(e4.protocol(), ec);
  if (!ec) v4.set_option(asio::socket_base::reuse_address(true), ec);
  if (!ec) v4.bind(e4, ec);
  if (!ec) v4.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    std::cerr << "korvanta-bridge: cannot listen on 127.0.0.1:" << opt.port << ": " << ec.message()
              << "\n";
    return 1;
  }
  const unsigned short port = v4.local_endpoint().port();
  const tcp::endpoint e6(asio::ip::make_address("::1"), port);
  v6.open(e6.protocol(), ec);
  if (!ec) v6.set_option(asio::ip::v6_only(true), ec);
  if (!ec) v6.set_option(asio::socket_base::reuse_address(true), ec);
  if (!ec) v6.bind(e6, ec);
  if (!ec) v6.listen(asio::socket_base::max_listen_connections, ec);
  const bool haveV6 = !ec;
  Log("listening on 127.0.0.1:" + std::to_string(port) +
      (haveV6 ? " and [::1]:" + std::to_string(port) : " (no IPv6 loopback)"));
  if (opt.port == 0) std::cout << "port " << port << "\n" << std::flush;
  std::thread t6;
  if (haveV6) t6 = std::thread([&] { AcceptLoop(v6, opt, port); });
  AcceptLoop(v4, opt, port);
  if (t6.joinable()) t6.join();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (!args.empty() && (args[0] == "allow" || args[0] == "deny" || args[0] == "list"))
      return ManageList(args);
    if (!args.empty() && args[0] == "serve") args.erase(args.begin());
    return Serve(args);
  } catch (const std::exception& e) {
    std::cerr << "korvanta-bridge: " << e.what() << "\n";
    return 1;
  }
}
