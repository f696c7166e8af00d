// Key containers on disk: one DER record per container under
// <data>/containers/, found by a file name made from the container name.
#pragma once

#include <new>
#include <string>

#include "asn1/mi_exception.h"
#include "control/portable/internal/records.h"

namespace kv::control::portable {

// The file name of a container: ASCII letters folded to lower case (names
// match without regard to case, as the platform's do); letters, digits, '-',
// '_', '{' and '}' kept; every other octet (including '.', '/' and '%') as
// %XX. Names whose form would be longer than 200 characters become "~" and
// the SHA-1 of the folded name. The record keeps the name as given, so a
// reader can tell two long names apart.
std::string ContainerFileName(const std::string& name);

// The name used when a context names no container: the login name.
std::string DefaultContainerName();

bool SameContainerName(const std::string& a, const std::string& b);

class ContainerFolder {
 public:
  explicit ContainerFolder(std::string dataDir) : dir_(std::move(dataDir) + "/containers") {}
  const std::string& Path() const { return dir_; }
  std::string FileOf(const std::string& name) const { return dir_ + "/" + ContainerFileName(name); }

  bool Exists(const std::string& name) const;
  // False when missing or unreadable (or the file belongs to another name).
  bool Load(const std::string& name, ContainerRecord* record) const;
  bool Save(const ContainerRecord& record) const;
  bool Remove(const std::string& name) const;

 private:
  std::string dir_;
};

// The error of the last failed call on this thread.
void SetError(uint32_t code);
uint32_t LastError();
inline bool Fail(uint32_t code) {
  SetError(code);
  return false;
}

// Runs a call body; no exception leaves the platform.
template <class F>
bool Guard(F&& body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return Fail(KV_NTE_NO_MEMORY);
  } catch (const MiException&) {
    return Fail(KV_NTE_FAIL);
  } catch (const std::exception&) {
    return Fail(KV_NTE_FAIL);
  }
}

// Whether a provider name (any case) is one of the software RSA providers.
bool IsSoftwareProvider(const std::string& name);

}  // namespace kv::control::portable
