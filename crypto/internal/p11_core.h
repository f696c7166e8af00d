// The crypto core below KV_P11_OP: an opened key store ("chooser") with the
// operations the token layer needs. Two implementations: the soft token
// (p11_soft.cpp: our digests, ciphers and RSA engine, with an in-memory object
// store per chooser) and the PKCS#11 store (p11_module.cpp), which runs token
// keys and token objects on the module and hands everything else to a soft
// store of its own.
//
// Every function returns 0 or a negative status: the soft token's -1 .. -21
// (see KV_P11_ErrorText), the RSA engine's codes, or the object layer's
// -1028/-1029/-1030 label checks. No function throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kv::p11 {

using Bytes = std::vector<unsigned char>;

// Soft-token statuses (negatives of the message-table indexes).
enum CoreStatus {
  kOk = 0,
  kNoMemory = -1,
  kBadArgument = -2,
  kBadLength = -3,
  kBadKeyObject = -4,
  kBadAlgObject = -5,
  kAlgNotSupported = -6,
  kBadKeyInfo = -7,
  kBadAlgInfo = -8,
  kModuleFailed = -9,
  kBigNumber = -10,
  kKeyGenFailed = -11,
  kRsaFailed = -12,
  kBadSignature = -13,
  kBadKeyPair = -14,
  kChooserFailed = -15,
  kAttributeFailed = -16,
  kInitFailed = -17,
  kDestroyFailed = -18,
  kObjectNotFound = -19,
  kLabelExists = -20,
  kOtherError = -21
};

// The algorithm descriptor (what KV_P11_Alg::GetICKAIObj builds).
struct AlgInfo {
  int kind = -1;          // KV_ALG_*
  int effectiveBits = 0;  // RC2
  Bytes iv;
  int keyAccessKind = 0;  // KV_AK_* of the key it will be used with
};

// The key descriptor (what KV_P11_Key::GetICKKIObj builds). Components are
// unsigned big-endian; the secret is wiped on destruction.
struct KeyInfo {
  KeyInfo() = default;
  KeyInfo(const KeyInfo&) = default;
  KeyInfo& operator=(const KeyInfo&) = default;
  ~KeyInfo();

  int accessKind = 0;    // KV_AK_*
  int kind = -1;         // KV_KEY_*
  bool onToken = false;  // true: `label` names a key object on the token
  std::string label;
  Bytes secret;   // session key
  int size = 0;   // its size value
  Bytes comp[8];  // public: comp[0] n, comp[1] e; private: n e d p q dP dQ qInv
};

class Store {
 public:
  virtual ~Store() = default;

  // True when this store runs on a PKCS#11 module.
  virtual bool OnModule() const = 0;

  virtual int Digest(const AlgInfo& alg, const unsigned char* in, size_t n, Bytes& out) = 0;
  virtual int Random(unsigned char* out, size_t n, const unsigned char* seed, size_t seedLen) = 0;
  // Ciphers (kinds 4..7) with a session key, and RSA (kind 8) v1.5: Encrypt
  // with a public key is block type 2, with a private key block type 1;
  // Decrypt reverses the matching operation.
  virtual int Encrypt(const AlgInfo& alg, const KeyInfo& key, const unsigned char* in, size_t n,
                      Bytes& out) = 0;
  virtual int Decrypt(const AlgInfo& alg, const KeyInfo& key, const unsigned char* in, size_t n,
                      Bytes& out) = 0;
  // Kinds 9..11 digest then sign the DigestInfo; kind 8 signs the input as is.
  virtual int Sign(const AlgInfo& alg, const KeyInfo& key, const unsigned char* in, size_t n,
                   Bytes& out) = 0;
  // 0 when the signature holds, -13 when it does not.
  virtual int Verify(const AlgInfo& alg, const KeyInfo& key, const unsigned char* data, size_t n,
                     const unsigned char* sig, size_t sigLen) = 0;
  virtual int SignRecover(const AlgInfo& alg, const KeyInfo& key, const unsigned char* in, size_t n,
                          Bytes& out) = 0;
  // Block-by-block v1.5 type 2. With out null only *outLen is set.
  virtual int BigEncrypt(const KeyInfo& key, const unsigned char* in, size_t n, unsigned char* out,
                         size_t* outLen) = 0;
  virtual int BigDecrypt(const KeyInfo& key, const unsigned char* in, size_t n, unsigned char* out,
                         size_t* outLen) = 0;

  // Token objects. `cls`: 1 certificate, 2 public key, 3 private key.
  virtual int FindObject(const std::string& label, int cls, bool* found) = 0;
  virtual int GetPublicKey(const std::string& label, Bytes* modulus, Bytes* exponent) = 0;
  // found = false (and 0) when there is no certificate under the label.
  virtual int GetCertificate(const std::string& label, Bytes* der, bool* found) = 0;
  virtual int PutCertificate(const std::string& label, const unsigned char* der, size_t n) = 0;
  // 0 when the private key under the label belongs to (n, e); -14 when not.
  virtual int CheckKeyPair(const Bytes& modulus, const Bytes& exponent,
                           const std::string& privLabel) = 0;
  // Generates `bits` with exponent 65537. onToken: as token objects under the
  // labels (comp left empty); otherwise the eight components into comp.
  virtual int GenerateKeyPair(int bits, bool onToken, const std::string& pubLabel,
                              const std::string& privLabel, Bytes comp[8]) = 0;
};

// The soft token.
std::unique_ptr<Store> OpenSoftStore();

// A store on a loaded PKCS#11 module chosen by selector and label, logged in
// with the PIN. Returns 0 with *out set; 1 (nothing to open) when no module is
// loaded and the selector allows the soft token, *out left null; or a negative
// status of the table above, never a raw CKR value (-15 no such module with
// KV_P11_STORE_MODULE or C_OpenSession failed, -17 C_GetFunctionList failed,
// -9 login refused); a failure leaves nothing open.
int OpenModuleStore(unsigned selector, const std::string& label, const std::string& pin,
                    std::unique_ptr<Store>* out);

// Reports a module failure text to the diagnostics sink.
void Diagnose(const std::string& text);

}  // namespace kv::p11
