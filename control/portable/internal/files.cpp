#include "control/portable/internal/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace kv::control::portable {

namespace {

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  // Closes now, reporting failure (a delayed write error shows here).
  bool Close() {
    int fd = fd_;
    fd_ = -1;
    return ::close(fd) == 0;
  }

 private:
  int fd_;
};

std::string Parent(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Crash tests set KV_CRASH_AFTER_STEPS=N to have the process killed right
// after the Nth step of a file replacement or removal, so that they can check
// what an interrupted write leaves behind.
void Step() {
  static const long limit = [] {
    const char* v = std::getenv("KV_CRASH_AFTER_STEPS");
    return v ? std::strtol(v, nullptr, 10) : 0L;
  }();
  static std::atomic<long> count{0};
  if (limit > 0 && ++count >= limit) std::raise(SIGKILL);
}

bool SyncFolder(const std::string& dir) {
  Fd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd.get() >= 0 && ::fsync(fd.get()) == 0;
}

}  // namespace

bool MakePrivateDirs(const std::string& path) {
  if (path.empty()) return false;
  struct stat st;
  if (::stat(path.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
  std::string parent = Parent(path);
  if (parent != path && !MakePrivateDirs(parent)) return false;
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return false;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool WriteAtomic(const std::string& path, const uint8_t* data, size_t len) {
  if (path.empty() || (!data && len)) return false;
  std::string dir = Parent(path);
  std::string tmpl = path + ".tmp.XXXXXX";
  std::vector<char> name(tmpl.begin(), tmpl.end());
  name.push_back('\0');
  Fd fd(::mkostemp(name.data(), O_CLOEXEC));
  if (fd.get() < 0) return false;
  Step();
  bool ok = ::fchmod(fd.get(), 0600) == 0;
  for (size_t done = 0; ok && done < len;) {
    // Half the data first, so that a crash can fall inside the writing.
    size_t chunk = done == 0 && len > 1 ? len / 2 : len - done;
    ssize_t n = ::write(fd.get(), data + done, chunk);
    if (n < 0 && errno == EINTR) continue;
    ok = n > 0;
    if (ok) done += static_cast<size_t>(n);
    Step();
  }
  ok = ok && ::fsync(fd.get()) == 0;
  Step();
  ok = fd.Close() && ok;
  ok = ok && ::rename(name.data(), path.c_str()) == 0;
  Step();
  if (!ok) {
    ::unlink(name.data());
    return false;
  }
  bool synced = SyncFolder(dir);
  Step();
  return synced;
}

bool ReadAll(const std::string& path, size_t maxLen, Bytes* data) {
  Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat st;
  if (fd.get() < 0 || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  Bytes out;
  uint8_t buf[8192];
  while (out.size() < maxLen) {
    size_t want = std::min(sizeof buf, maxLen - out.size());
    ssize_t n = ::read(fd.get(), buf, want);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) break;
    out.insert(out.end(), buf, buf + n);
  }
  *data = std::move(out);
  return true;
}

bool IsRegularFile(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool RemoveFile(const std::string& path) {
  if (::unlink(path.c_str()) != 0) return false;
  Step();
  SyncFolder(Parent(path));
  Step();
  return true;
}

std::vector<std::string> ListFolder(const std::string& dir, const std::string& suffix) {
  std::vector<std::string> names;
  DIR* d = ::opendir(dir.c_str());
  if (!d) return names;
  while (dirent* ent = ::readdir(d)) {
    std::string n = ent->d_name;
    if (n.size() > suffix.size() && n.compare(n.size() - suffix.size(), suffix.size(), suffix) == 0)
      names.push_back(n);
  }
  ::closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace kv::control::portable
