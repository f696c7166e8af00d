// The control object, its state and the small methods: provider listing and
// selection, the version, and the public key of a PKCS#10 request.
#include "control/korvanta_control.h"

#include <vector>

#include "control/internal/method.h"
#include "control/internal/toolkit.h"
#include "pki/flat.h"

using namespace kv::control;

namespace {
const char kVersion[] = "Version:2.5.26.1 Build:201406041650";
}

CBrendalKorvanta::CBrendalKorvanta(Platform& platform) : platform_(platform) {}

CBrendalKorvanta::~CBrendalKorvanta() = default;

int32_t CBrendalKorvanta::listCSP(int index, Text* cspName) {
  return Guarded([&]() -> int32_t {
    // 1. A negative index has no provider.
    if (index < 0) {
      *cspName = std::u16string();
      return Status(kBlockListCSP, kNegativeIndex);
    }
    // 2-3. Walk the providers; only RSA full providers count.
    int counted = 0;
    for (uint32_t i = 0;; ++i) {
      uint32_t type = 0;
      uint32_t size = 0;
      if (!platform_.EnumProviders(i, &type, nullptr, &size)) break;
      std::vector<char> name(size + 1, '\0');
      if (!platform_.EnumProviders(i, &type, name.data(), &size)) break;
      if (type != KV_PROV_RSA_FULL) continue;
      if (counted == index) {
        SetText(platform_, cspName, name.data());
        return 0;
      }
      ++counted;
    }
    // 4. The end of the list: success, result unassigned.
    return 0;
  });
}

int32_t CBrendalKorvanta::setCSP(const std::u16string& cspName) {
  return Guarded([&]() -> int32_t {
    provider_ = Narrow(platform_, cspName);
    // An empty name stays stored: key generation then reports its own status.
    if (provider_.empty()) return Status(kBlockSetCSP, kNoProvider);
    return 0;
  });
}

int32_t CBrendalKorvanta::getVersion(Text* pVersionStr) {
  return Guarded([&]() -> int32_t {
    SetText(platform_, pVersionStr, kVersion);
    return 0;
  });
}

int32_t CBrendalKorvanta::getPublicKeyFromPKCS10Data(const std::u16string& p10Base64Data,
                                                     Text* p1Base64Der) {
  return Guarded([&]() -> int32_t {
    const int32_t block = kBlockPublicKeyFromP10;
    // 1-2. The library and a context.
    Library library;
    if (int detail = library.Open(); detail != 0) return Status(block, detail);
    // 3. The request's DER.
    Bytes der = Base64Decode(Narrow(platform_, p10Base64Data));
    if (der.empty()) return Status(block, kEmptyRequest);
    // 4. A public-key record.
    PKCS_PUBKEY key{};
    if (PKCS_InitPubKey(library.ctx(), &key) != 0) return Status(block, kPublicKeyRecord);
    struct Release {
      PKCS_CTX ctx;
      PKCS_PUBKEY* key;
      ~Release() { PKCS_FreePubKey(ctx, key); }
    } release{library.ctx(), &key};
    // 5. Take the request apart (its signature is not checked).
    if (RequestPublicKey(library.ctx(), der, &key) != 0) return Status(block, kDecomposeRequest);
    // 6. PKCS#1 DER of the key.
    unsigned len = 0;
    if (KV_PKCS1PubKeyEncode(library.ctx(), &key, nullptr, &len) != 0) {
      return Status(block, kPublicKeyEncode);
    }
    Bytes p1(len, 0);
    if (KV_PKCS1PubKeyEncode(library.ctx(), &key, p1.data(), &len) != 0) {
      return Status(block, kPublicKeyEncode);
    }
    p1.resize(len);
    // 7. Base64 without line breaks.
    SetText(platform_, p1Base64Der, Base64Encode(p1));
    return 0;
  });
}
