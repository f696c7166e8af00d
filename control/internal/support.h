// Small routines the control's methods share: text conversion, container
// names and the container-name file, provider containers, Base64, local time.
#pragma once

#include <stdexcept>
#include <string>

#include "control/internal/handles.h"
#include "control/platform.h"

namespace kv::control {

// An internal fault that ends a method with the failing automation result.
class ControlFault : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Automation text -> the thread's code page; a failed conversion is empty
// text, like a null string.
std::string Narrow(Platform& p, const std::u16string& text);
// Code-page text -> automation text; throws ControlFault when it fails.
std::u16string Wide(Platform& p, const std::string& text);

// UTF-8 <-> UTF-16, for the distinguished-name text of the toolkit.
std::string Utf16ToUtf8(const std::u16string& text);
std::u16string Utf8ToUtf16(const std::string& text);

// A new container name: the GUID text
// "%08lX-%04X-%04x-%02X%02X-%02X%02X%02X%02X%02X%02X"; ControlFault
// "can not create a random name!" when no GUID can be made.
std::string RandomContainerName(Platform& p);

// The container-name file.
int SaveContainerName(Platform& p, const std::string& name);  // 0, -1, -2
int SaveContainerNameAndFlag(Platform& p, const std::string& name, int flag);
bool ReadContainerName(Platform& p, std::string* name);
bool ReadContainerNameAndFlag(Platform& p, std::string* name, bool* exportable);
void DeleteContainerFile(Platform& p);

// Creates the named container in a provider of type PROV_RSA_FULL; when it
// exists already, deletes it and creates it again.
bool CreateContainer(Platform& p, const std::string& provider, const std::string& name,
                     ProvOwner* prov);
void DeleteContainer(Platform& p, const std::string& provider, const std::string& name);

// Deletes a container when it goes out of scope, unless kept: the containers
// a failing call made never outlive it.
class PendingContainer {
 public:
  PendingContainer(Platform& p, std::string provider, std::string name)
      : p_(p), provider_(std::move(provider)), name_(std::move(name)) {}
  ~PendingContainer() {
    if (!kept_) DeleteContainer(p_, provider_, name_);
  }
  PendingContainer(const PendingContainer&) = delete;
  PendingContainer& operator=(const PendingContainer&) = delete;
  void Keep() { kept_ = true; }

 private:
  Platform& p_;
  std::string provider_;
  std::string name_;
  bool kept_ = false;
};

// Base64 without line breaks, and its decoding (empty for text that does not
// decode).
std::string Base64Encode(const Bytes& data);
std::string Base64Encode(const uint8_t* data, size_t len);
Bytes Base64Decode(const std::string& text);

// The local time as "%Y%m%d%H%M%S"; empty when it cannot be read.
std::string LocalTimeText();

// True for the providers whose keys live in software ("Microsoft..."): the
// installs copy keys there and bind certificates through the stores.
bool IsSoftwareProvider(const std::string& provider);

// The temporary container of the KMC key import.
extern const char kTempContainer[];
extern const char kBaseProvider[];

}  // namespace kv::control
