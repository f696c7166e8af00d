// libFuzzer target: arbitrary octets read as the files of the portable
// platform (a key container record, a certificate's properties, a private key
// blob, a store certificate). Nothing may crash or throw; whatever a record
// reader accepts must encode again to a record that reads back the same.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "control/portable/internal/cert.h"
#include "control/portable/internal/records.h"
#include "control/portable/internal/rsa_key.h"

using namespace kv::control;
using namespace kv::control::portable;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Bytes in(data, data + size);
  ContainerRecord rec;
  if (DecodeContainer(in, &rec)) {
    ContainerRecord again;
    if (!DecodeContainer(EncodeContainer(rec), &again) || again.name != rec.name ||
        again.signature.key.n != rec.signature.key.n ||
        again.exchange.certificate != rec.exchange.certificate) {
      std::abort();
    }
  }
  PropertyRecord props;
  if (DecodeProperties(in, &props)) {
    PropertyRecord again;
    if (!DecodeProperties(EncodeProperties(props), &again) || again.position != props.position ||
        again.keyProvInfo.containerName != props.keyProvInfo.containerName) {
      std::abort();
    }
  }
  RsaKey key;
  uint32_t algid = 0;
  if (ReadPrivateKeyBlob(data, static_cast<uint32_t>(size), &key, &algid) == 0) {
    Bytes blob;
    if (!PrivateKeyBlob(key, algid, &blob)) std::abort();
  }
  ParsedCertificate cert;
  ParseCertificate(data, size, &cert);
  return 0;
}
