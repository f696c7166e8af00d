// The DER records the portable platform keeps on disk.
//
//   KeyContainer ::= SEQUENCE {
//     version       INTEGER (1),
//     name          OCTET STRING,               -- as given, narrow text
//     signatureKey  [0] IMPLICIT ContainerKey OPTIONAL,
//     exchangeKey   [1] IMPLICIT ContainerKey OPTIONAL }
//   ContainerKey ::= SEQUENCE {
//     exportable    BOOLEAN,
//     key           RSAPrivateKey,
//     certificate   OCTET STRING OPTIONAL }    -- DER set by KP_CERTIFICATE
//
//   CertificateProperties ::= SEQUENCE {
//     version       INTEGER (1),
//     position      INTEGER,                    -- order of addition in the store
//     keyProvInfo   [0] IMPLICIT KeyProvInfo OPTIONAL }
//   KeyProvInfo ::= SEQUENCE {
//     containerName OCTET STRING,               -- UTF-16LE
//     providerName  OCTET STRING,               -- UTF-16LE
//     provType      INTEGER,
//     flags         INTEGER,
//     keySpec       INTEGER }
#pragma once

#include <cstdint>
#include <string>

#include "control/platform.h"
#include "control/portable/internal/rsa_key.h"

namespace kv::control::portable {

struct ContainerRecord {
  struct Key {
    bool present = false;
    bool exportable = false;
    RsaKey key;
    Bytes certificate;
  };
  std::string name;
  Key signature, exchange;

  Key& ForSpec(uint32_t keySpec) { return keySpec == KV_AT_SIGNATURE ? signature : exchange; }
  void Wipe();
};

Bytes EncodeContainer(const ContainerRecord& record);
bool DecodeContainer(const Bytes& der, ContainerRecord* record);

struct PropertyRecord {
  int64_t position = 0;
  bool hasKeyProvInfo = false;
  KeyProvInfo keyProvInfo;
};

Bytes EncodeProperties(const PropertyRecord& record);
bool DecodeProperties(const Bytes& der, PropertyRecord* record);

}  // namespace kv::control::portable
