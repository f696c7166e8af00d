// Key generation in provider containers: genKeyPair, genTempKeyPair and the
// genP10 family, which also return a PKCS#10 request signed by the new key.
#include <algorithm>
#include <new>

#include "control/internal/method.h"
#include "control/internal/toolkit.h"
#include "control/korvanta_control.h"

using namespace kv::control;

namespace {

// No public key blob is anywhere near this long; a longer size is not
// allocated.
constexpr uint32_t kMaxBlob = 1u << 20;

bool IsKeySize(int bits) {
  return bits == 512 || bits == 1024 || bits == 2048 || bits == 4096;
}

// Fetches the key of keySpec, or generates it when the container has none.
// 0, kGenerateKey or kGetUserKey.
int FetchOrGenerate(Platform& p, ProvHandle prov, uint32_t keySpec, uint32_t algid, uint32_t flags,
                    KeyOwner* key) {
  if (p.GetUserKey(prov, keySpec, key->out())) return 0;
  if (p.GetLastError() != KV_NTE_NO_KEY) return kGetUserKey;
  if (!p.GenKey(prov, algid, flags, key->out())) return kGenerateKey;
  return 0;
}

// The PUBLICKEYBLOB of a key: 0, kExportSize, kNoMemory or kExportPublicKey.
int ExportPublicBlob(Platform& p, KeyHandle key, Bytes* blob) {
  uint32_t len = 0;
  if (!p.ExportKey(key, KV_PUBLICKEYBLOB, 0, nullptr, &len)) return kExportSize;
  if (len > kMaxBlob) return kNoMemory;
  try {
    blob->assign(len, 0);
  } catch (const std::bad_alloc&) {
    return kNoMemory;
  }
  if (!p.ExportKey(key, KV_PUBLICKEYBLOB, 0, blob->data(), &len)) return kExportPublicKey;
  blob->resize(len);
  return 0;
}

// SHA-1 with RSA through the provider, in big-endian order.
bool SignWithContainer(Platform& p, ProvHandle prov, uint32_t keySpec, const Bytes& data,
                       Bytes* signature) {
  HashOwner hash(p);
  if (!p.CreateHash(prov, KV_CALG_SHA1, hash.out())) return false;
  if (!p.HashData(hash.get(), data.data(), static_cast<uint32_t>(data.size()))) return false;
  uint32_t len = 0;
  if (!p.SignHash(hash.get(), keySpec, nullptr, &len)) return false;
  signature->assign(len, 0);
  if (!p.SignHash(hash.get(), keySpec, signature->data(), &len)) return false;
  signature->resize(len);
  // The provider's order is little-endian.
  std::reverse(signature->begin(), signature->end());
  return true;
}

// What one of the key-generating methods asks for.
struct KeyGen {
  uint32_t keySpec;      // the key fetched and signed with
  uint32_t algid;        // the key generation call's algorithm
  uint32_t extraFlags;   // beside the key size
  bool saveFlag;         // the container-name file also records exportability
  int fileFlag;          // ... with this argument
  bool request;          // return a PKCS#10 request instead of the public key
  bool subjectFromText;  // the request's subject comes from subjectText
  std::u16string subjectText;
};

}  // namespace

// The steps shared by genKeyPair and the genP10 family. Returns the status
// detail (0 on success) and the Base64 result.
static int GenerateInNewContainer(Platform& p, const std::string& provider, std::string* container,
                                  int keySize, const KeyGen& how, std::string* result) {
  // 1. A new random container name.
  container->clear();
  *container = RandomContainerName(p);
  // 2. Remember it for the install step.
  int saved = how.saveFlag ? SaveContainerNameAndFlag(p, *container, how.fileFlag)
                           : SaveContainerName(p, *container);
  if (saved != 0) return kContainerFileWrite;
  // 3. A provider must be selected.
  if (provider.empty()) return kNoProvider;
  // 4. The key length.
  if (!IsKeySize(keySize)) return kBadKeySize;
  const uint32_t flags = (static_cast<uint32_t>(keySize) << 16) | how.extraFlags;
  // The request's subject: the given text, or the container's name.
  std::string subject;
  if (how.request) {
    subject = how.subjectFromText ? Utf16ToUtf8(how.subjectText) : "CN=" + *container;
    if (subject.empty() || !IsNameText(subject)) return kNoCertificate;
  }
  // 5. Create the container.
  ProvOwner prov(p);
  if (!CreateContainer(p, provider, *container, &prov)) return kCreateContainer;
  PendingContainer pending(p, provider, *container);
  // 6. Its key.
  KeyOwner key(p);
  if (int detail = FetchOrGenerate(p, prov.get(), how.keySpec, how.algid, flags, &key)) {
    return detail;
  }
  // 7. The public key blob.
  Bytes blob;
  if (int detail = ExportPublicBlob(p, key.get(), &blob)) return detail;
  key.Reset();
  // 8. PKCS#1 DER, and for the genP10 family the request signed by the key.
  Bytes p1;
  if (PublicBlobToP1(blob, &p1) != 0) return kPublicKeyEncode;
  if (how.request) {
    Bytes request;
    int detail = BuildRequest(
        subject, p1,
        [&](const Bytes& info, Bytes* signature) {
          return SignWithContainer(p, prov.get(), how.keySpec, info, signature);
        },
        &request);
    if (detail != 0) return detail;
    *result = Base64Encode(request);
  } else {
    *result = Base64Encode(p1);
  }
  prov.Reset();
  pending.Keep();
  return 0;
}

static int32_t RunKeyGen(Platform& p, const std::string& provider, std::string* container,
                         int keySize, const KeyGen& how, CBrendalKorvanta::Text* out) {
  int32_t status = Guarded([&]() -> int32_t {
    std::string result;
    int detail = GenerateInNewContainer(p, provider, container, keySize, how, &result);
    if (detail != 0) {
      *out = std::u16string();
      return Status(kBlockGenKeyPair, detail);
    }
    SetText(p, out, result);
    return 0;
  });
  if (status == KV_E_FAIL) *out = std::u16string();
  return status;
}

int32_t CBrendalKorvanta::genKeyPair(int keySize, Text* bstrP1DerBase64Pubkey) {
  KeyGen how{KV_AT_SIGNATURE, KV_AT_SIGNATURE, KV_CRYPT_EXPORTABLE, false, 0, false, false, {}};
  return RunKeyGen(platform_, provider_, &container_, keySize, how, bstrP1DerBase64Pubkey);
}

int32_t CBrendalKorvanta::genTempKeyPair(Text* bstrP1DerBase64TmpPubkey) {
  int32_t status = Guarded([&]() -> int32_t {
    const int32_t block = kBlockGenTempKeyPair;
    *bstrP1DerBase64TmpPubkey = std::u16string();
    // 1. Re-create the temporary container.
    ProvOwner prov(platform_);
    if (!CreateContainer(platform_, kBaseProvider, kTempContainer, &prov)) {
      return Status(block, kCreateContainer);
    }
    PendingContainer pending(platform_, kBaseProvider, kTempContainer);
    // 2. Its signature key: 2048 bits, exportable, whatever the KMC key's size.
    KeyOwner key(platform_);
    if (FetchOrGenerate(platform_, prov.get(), KV_AT_SIGNATURE, KV_AT_SIGNATURE,
                        (2048u << 16) | KV_CRYPT_EXPORTABLE, &key) != 0) {
      return Status(block, kGenerateKey);
    }
    // 3. The public key blob.
    Bytes blob;
    if (int detail = ExportPublicBlob(platform_, key.get(), &blob)) return Status(block, detail);
    // 4. Release, convert, return; the container and its key stay.
    key.Reset();
    prov.Reset();
    Bytes p1;
    if (PublicBlobToP1(blob, &p1) != 0) return Status(block, kPublicKeyEncode);
    SetText(platform_, bstrP1DerBase64TmpPubkey, Base64Encode(p1));
    pending.Keep();
    return 0;
  });
  if (status == KV_E_FAIL) *bstrP1DerBase64TmpPubkey = std::u16string();
  return status;
}

int32_t CBrendalKorvanta::genP10(int keySize, Text* bstrP10DerBase64Pubkey) {
  KeyGen how{KV_AT_SIGNATURE, KV_CALG_RSA_SIGN, KV_CRYPT_EXPORTABLE, false, 0, true, false, {}};
  return RunKeyGen(platform_, provider_, &container_, keySize, how, bstrP10DerBase64Pubkey);
}

int32_t CBrendalKorvanta::genP10_kex(int keySize, Text* bstrP10DerBase64Pubkey) {
  KeyGen how{KV_AT_KEYEXCHANGE, KV_AT_KEYEXCHANGE, KV_CRYPT_EXPORTABLE, false, 0, true, false, {}};
  return RunKeyGen(platform_, provider_, &container_, keySize, how, bstrP10DerBase64Pubkey);
}

int32_t CBrendalKorvanta::genP10_exp(int keySize, int keyExportable, Text* bstrP10DerBase64Pubkey) {
  KeyGen how{KV_AT_SIGNATURE,
             KV_AT_SIGNATURE,
             keyExportable != 0 ? static_cast<uint32_t>(KV_CRYPT_EXPORTABLE) : 0u,
             true,
             keyExportable,
             true,
             false,
             {}};
  return RunKeyGen(platform_, provider_, &container_, keySize, how, bstrP10DerBase64Pubkey);
}

int32_t CBrendalKorvanta::genP10_exp_withdn(int keySize, int keyExportable,
                                            const std::u16string& bstrCertDN,
                                            Text* bstrP10Bse64Pack) {
  // keyExportable 2 asks for strong protection of the new key on top of
  // exportability; the copy the install makes is then protected, not
  // exportable (the file's flag is "1" only for 1).
  uint32_t flags = keyExportable != 0 ? static_cast<uint32_t>(KV_CRYPT_EXPORTABLE) : 0u;
  if (keyExportable == 2) flags |= KV_CRYPT_FORCE_KEY_PROTECTION_HIGH;
  KeyGen how{KV_AT_SIGNATURE, KV_AT_SIGNATURE, flags, true, keyExportable, true, true, bstrCertDN};
  return RunKeyGen(platform_, provider_, &container_, keySize, how, bstrP10Bse64Pack);
}
