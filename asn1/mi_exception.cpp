#include "asn1/mi_exception.h"

#include <cstring>

MiObject::~MiObject() = default;

namespace {
void CopyMessage(char* dst, std::size_t size, const char* src) {
  if (src == nullptr) src = "";
  std::size_t n = std::strlen(src);
  if (n >= size) n = size - 1;
  std::memcpy(dst, src, n);
  dst[n] = '\0';
}
}  // namespace

MiException::MiException() noexcept {
  CopyMessage(message_, sizeof message_, "mi exception");
}

MiException::MiException(const char* message) noexcept {
  CopyMessage(message_, sizeof message_, message);
}

MiException::MiException(const MiException& other) noexcept : MiObject(other) {
  std::memcpy(message_, other.message_, sizeof message_);
}

MiException& MiException::operator=(const MiException& other) noexcept {
  std::memmove(message_, other.message_, sizeof message_);
  return *this;
}

MiException::~MiException() = default;
MiLogicExp::~MiLogicExp() = default;
MiInvalidArgumentExp::~MiInvalidArgumentExp() = default;
MiOutOfRangeExp::~MiOutOfRangeExp() = default;
MiDomainExp::~MiDomainExp() = default;
MiRuntimeExp::~MiRuntimeExp() = default;
MiRangeExp::~MiRangeExp() = default;
AsnException::~AsnException() = default;
AsnDecodeExp::~AsnDecodeExp() = default;
AsnEncodeExp::~AsnEncodeExp() = default;
AsnDataExp::~AsnDataExp() = default;
