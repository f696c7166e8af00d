// Exceptions of the toolkit's class interface. They are thrown by value and
// caught by reference; every one carries a fixed message text.
#pragma once

#include "asn1/mi_object.h"

class MiException : public MiObject {
 public:
  MiException() noexcept;
  explicit MiException(const char* message) noexcept;
  MiException(const MiException& other) noexcept;
  MiException& operator=(const MiException& other) noexcept;
  ~MiException() override;

  // The message text ("logic exp", "asn decode exception", ...). Never null.
  const char* GetMessage() const noexcept { return message_; }
  const char* what() const noexcept { return message_; }

 private:
  // Held inline so that copying an exception never allocates.
  char message_[128];
};

#define KV_MI_EXCEPTION_CLASS(Name, Base, Text)                    \
  class Name : public Base {                                       \
   public:                                                         \
    Name() noexcept : Base(Text) {}                                \
    explicit Name(const char* message) noexcept : Base(message) {} \
    ~Name() override;                                              \
  }

KV_MI_EXCEPTION_CLASS(MiLogicExp, MiException, "logic exp");
KV_MI_EXCEPTION_CLASS(MiInvalidArgumentExp, MiLogicExp, "invalid argument exp");
KV_MI_EXCEPTION_CLASS(MiOutOfRangeExp, MiLogicExp, "out of range exp");
KV_MI_EXCEPTION_CLASS(MiDomainExp, MiLogicExp, "domain exp");
KV_MI_EXCEPTION_CLASS(MiRuntimeExp, MiException, "runtime exp");
KV_MI_EXCEPTION_CLASS(MiRangeExp, MiRuntimeExp, "range exp");
KV_MI_EXCEPTION_CLASS(AsnException, MiException, "asn exception");
KV_MI_EXCEPTION_CLASS(AsnDecodeExp, AsnException, "asn decode exception");
KV_MI_EXCEPTION_CLASS(AsnEncodeExp, AsnException, "asn encode exception");
KV_MI_EXCEPTION_CLASS(AsnDataExp, AsnException, "asn data exception");

#undef KV_MI_EXCEPTION_CLASS
