// Runs korvanta-bridge on a free loopback port with its own allow-list and
// data folder, and talks to it with a Beast WebSocket client.
#pragma once

#include <sys/types.h>

#include <boost/asio.hpp>
#include <boost/beast.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/support.h"

namespace kvbtest {

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = boost::asio::ip::tcp;
using json = nlohmann::json;

// A child process whose standard output's first line is "port N"; stderr
// goes to a file. Ended with SIGTERM when the object goes.
class Process {
 public:
  Process(std::vector<std::string> argv, const std::vector<std::string>& env,
          const std::string& log);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  bool Running() const;
  unsigned short Port() const { return port_; }

 private:
  pid_t pid_ = -1;
  unsigned short port_ = 0;
};

class Bridge {
 public:
  // Starts the bridge with extra arguments; the allow-list holds origins.
  Bridge(const std::vector<std::string>& origins, const std::vector<std::string>& extra = {});

  Bridge(const Bridge&) = delete;
  Bridge& operator=(const Bridge&) = delete;

  bool Running() const { return process_->Running(); }  // still alive (not crashed)
  unsigned short Port() const { return process_->Port(); }
  const kvtest::TempDir& Dir() const { return dir_; }
  std::string DataDir() const { return dir_ / "data"; }
  std::string Log() const { return kvtest::ReadFile(dir_ / "bridge.log"); }
  // Runs `korvanta-bridge ARGS` with this bridge's configuration folder.
  kvtest::ShellResult Manage(const std::string& args) const;

 private:
  kvtest::TempDir dir_;
  std::unique_ptr<Process> process_;
};

// One WebSocket connection; Open reports the HTTP status of a refused upgrade.
class Client {
 public:
  // address "127.0.0.1" or "::1"; host "" means address:port.
  // Returns 101 when upgraded, else the HTTP status (0 when no answer).
  int Open(unsigned short port, const std::string& origin, const std::string& address = "127.0.0.1",
           const std::string& host = "");
  // Sends one text message and reads the answer; a null json when the
  // connection is gone.
  json Call(const std::string& text);
  json CallJson(const json& request) { return Call(request.dump()); }
  void SendBinary(const std::string& data);
  // True when the bridge closed the connection.
  bool ReadClosed();
  // Drops the TCP connection without a closing handshake.
  void Abort();

 private:
  boost::asio::io_context io_;
  std::unique_ptr<websocket::stream<tcp::socket>> ws_;
};

// A plain HTTP GET; the status, 0 when there was no answer.
int HttpGet(unsigned short port, const std::string& target, const std::string& host);

}  // namespace kvbtest
