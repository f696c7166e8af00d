#include "pem.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "input.h"

namespace kvtool {

std::string PemEncode(const std::string& label, const std::string& der) {
  std::string body = Base64Encode(der, true);
  while (!body.empty() && body.back() == '\n') body.pop_back();
  return "-----BEGIN " + label + "-----\n" + body + "\n-----END " + label + "-----\n";
}

bool WritePrivate(const std::string& path, const std::string& data, std::string& error) {
  std::string tmp = path + ".tmp-" + std::to_string(::getpid());
  int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) {
    error = std::string("cannot create: ") + std::strerror(errno);
    return false;
  }
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  bool ok = done == data.size() && ::fsync(fd) == 0;
  ok = ::close(fd) == 0 && ok;
  if (!ok) {
    error = "write error";
    std::remove(tmp.c_str());
    return false;
  }
  if (std::rename(tmp.c_str(), path.c_str()) != 0) {
    error = std::string("cannot replace: ") + std::strerror(errno);
    std::remove(tmp.c_str());
    return false;
  }
  return true;
}

}  // namespace kvtool
