// Helpers shared by every test program: files, PEM armour, the system roots,
// shell commands and scratch directories. Base64 is decoded here on purpose:
// the toolkit's own codec is tested elsewhere and must not be able to hide a
// fault of the code that reads these inputs.
#pragma once

#include <string>
#include <vector>

namespace kvtest {

// The whole file; empty when it cannot be read.
std::string ReadFile(const std::string& path);

// The Base64-decoded bodies of the PEM blocks whose label is in labels, in
// file order.
std::vector<std::string> PemBlocks(const std::string& text, const std::vector<std::string>& labels);

// Folder of the system's root certificates, one PEM file NAME.crt each.
extern const char kSystemRootsDir[];

// File names (not paths) of the system roots, sorted; empty when none are
// installed.
std::vector<std::string> SystemRootNames();

struct ShellResult {
  int status;       // exit status; -1 when the command could not run or was killed
  std::string out;  // standard output
};

// Runs a shell command line.
ShellResult RunShell(const std::string& command);

// A scratch directory, removed with everything in it when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // Empty when the directory could not be made.
  const std::string& Path() const { return path_; }
  // The path of name inside the directory.
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  // Writes data to name inside the directory; returns its path.
  std::string Write(const std::string& name, const std::string& data) const;

 private:
  std::string path_;
};

}  // namespace kvtest
