#include "harness.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace kvbtest {

Process::Process(std::vector<std::string> args, const std::vector<std::string>& env,
                 const std::string& log) {
  int out[2];
  if (pipe(out) != 0) return;
  pid_ = fork();
  if (pid_ == 0) {
    dup2(out[1], 1);
    FILE* err = std::fopen(log.c_str(), "w");
    if (err) dup2(fileno(err), 2);
    close(out[0]);
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
    for (const auto& e : env) putenv(const_cast<char*>(e.c_str()));
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  std::string line;
  char c;
  while (read(out[0], &c, 1) == 1 && c != '\n') line += c;
  close(out[0]);
  if (line.rfind("port ", 0) == 0) port_ = static_cast<unsigned short>(std::atoi(line.c_str() + 5));
}

Process::~Process() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    int st = 0;
    waitpid(pid_, &st, 0);
  }
}

bool Process::Running() const {
  int st = 0;
  return pid_ > 0 && waitpid(pid_, &st, WNOHANG) == 0;
}

Bridge::Bridge(const std::vector<std::string>& origins, const std::vector<std::string>& extra) {
  std::string list;
  for (const auto& o : origins) list += o + "\n";
  dir_.Write("bridge.conf.in", list);
  kvtest::RunShell("mkdir -p '" + (dir_ / "config/korvanta") + "' '" + DataDir() + "' && cp '" +
                   (dir_ / "bridge.conf.in") + "' '" + (dir_ / "config/korvanta/bridge.conf") +
                   "'");
  std::vector<std::string> args = {KV_BRIDGE_BIN, "serve",      "--port",
                                   "0",           "--data-dir", DataDir(),
                                   "--home",      dir_.Path(),  "--signer-cancel"};
  args.insert(args.end(), extra.begin(), extra.end());
  process_ = std::make_unique<Process>(
      args, std::vector<std::string>{"XDG_CONFIG_HOME=" + (dir_ / "config")}, dir_ / "bridge.log");
}

kvtest::ShellResult Bridge::Manage(const std::string& args) const {
  return kvtest::RunShell("XDG_CONFIG_HOME='" + (dir_ / "config") + "' '" KV_BRIDGE_BIN "' " +
                          args + " 2>&1");
}

int Client::Open(unsigned short port, const std::string& origin, const std::string& address,
                 const std::string& host) {
  ws_ = std::make_unique<websocket::stream<tcp::socket>>(io_);
  beast::error_code ec;
  ws_->next_layer().connect(tcp::endpoint(boost::asio::ip::make_address(address), port), ec);
  if (ec) return 0;
  const std::string h = !host.empty()      ? host
                        : address == "::1" ? "[::1]:" + std::to_string(port)
                                           : address + ":" + std::to_string(port);
  ws_->set_option(websocket::stream_base::decorator([origin](websocket::request_type& r) {
    if (!origin.empty()) r.set(http::field::origin, origin);
  }));
  ws_->read_message_max(64 << 20);
  ws_->handshake(h, "/", ec);
  if (!ec) return 101;
  // Beast keeps the refusal's status to itself: ask again, by hand.
  tcp::socket s(io_);
  s.connect(tcp::endpoint(boost::asio::ip::make_address(address), port), ec);
  if (ec) return 0;
  http::request<http::empty_body> req{http::verb::get, "/", 11};
  req.set(http::field::host, h);
  if (!origin.empty()) req.set(http::field::origin, origin);
  req.set(http::field::connection, "Upgrade");
  req.set(http::field::upgrade, "websocket");
  req.set(http::field::sec_websocket_version, "13");
  req.set(http::field::sec_websocket_key, "dGhlIHNhbXBsZSBub25jZQ==");
  http::write(s, req, ec);
  if (ec) return 0;
  beast::flat_buffer buf;
  http::response<http::string_body> res;
  http::read(s, buf, res, ec);
  return ec ? 0 : res.result_int();
}

json Client::Call(const std::string& text) {
  beast::error_code ec;
  ws_->text(true);
  ws_->write(boost::asio::buffer(text), ec);
  if (ec) return json();
  beast::flat_buffer buf;
  ws_->read(buf, ec);
  if (ec) return json();
  return json::parse(beast::buffers_to_string(buf.data()), nullptr, false);
}

void Client::SendBinary(const std::string& data) {
  beast::error_code ec;
  ws_->binary(true);
  ws_->write(boost::asio::buffer(data), ec);
}

bool Client::ReadClosed() {
  beast::flat_buffer buf;
  beast::error_code ec;
  ws_->read(buf, ec);
  return ec == websocket::error::closed;
}

void Client::Abort() {
  beast::error_code ec;
  ws_->next_layer().close(ec);
}

int HttpGet(unsigned short port, const std::string& target, const std::string& host) {
  boost::asio::io_context io;
  tcp::socket s(io);
  beast::error_code ec;
  s.connect(tcp::endpoint(boost::asio::ip::make_address("127.0.0.1"), port), ec);
  if (ec) return 0;
  http::request<http::empty_body> req{http::verb::get, target, 11};
  req.set(http::field::host, host);
  http::write(s, req, ec);
  if (ec) return 0;
  beast::flat_buffer buf;
  http::response<http::string_body> res;
  http::read(s, buf, res, ec);
  if (ec) return 0;
  return res.result_int();
}

}  // namespace kvbtest
