// The toolkit as the control uses it: the library context, the MAC and the
// KMC cipher through a soft-token session, key conversions, certificate
// bundles, names, requests and PFX files. Each routine returns 0 or the
// detail code the calling method reports.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "control/platform.h"
#include "crypto/keyconv.h"

namespace kv::control {

// PKCS_Initialize + PKCS_CreateCtx for one step, undone in reverse order.
class Library {
 public:
  Library() = default;
  ~Library();
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  // 0, kLibraryInit or kLibraryContext.
  int Open();
  PKCS_CTX ctx() const { return ctx_; }

 private:
  bool initialized_ = false;
  PKCS_CTX ctx_ = nullptr;
};

// A private-key record released with its context.
class PrivateKey {
 public:
  PrivateKey() = default;
  ~PrivateKey() { Free(); }
  PrivateKey(const PrivateKey&) = delete;
  PrivateKey& operator=(const PrivateKey&) = delete;
  // kPrivateKeyRecord when the record cannot be set up.
  int Init(PKCS_CTX ctx);
  void Free();
  PKCS_PRIKEY* get() { return &key_; }
  const PKCS_PRIKEY* get() const { return &key_; }

 private:
  PKCS_CTX ctx_ = nullptr;
  bool live_ = false;
  PKCS_PRIKEY key_{};
};

// The MAC of the download requests: SHA-1 of the text, RC4-encrypted under
// the key bytes, in Base64. 0, kMacDigest or kMacCipher.
int MacOf(const std::string& text, const std::string& key, std::string* base64);

// RC4 through a soft-token session: 0, kCipherNoInput (no key or data),
// kCipherNoLength, or -1 when the token fails.
int Rc4Decrypt(const Bytes& key, const Bytes& in, Bytes* out);

// Platform PUBLICKEYBLOB -> DER RSAPublicKey; the toolkit's status.
int PublicBlobToP1(const Bytes& blob, Bytes* der);

// The certificates of a DER PKCS#7 bundle, and its leaf. 0, or the inner code:
// kEmptyCertificates (no input), kLibraryContext, kCertificateList,
// kLeafCertificate (unreadable), kListEmpty.
int BundleCertificates(const Bytes& p7, std::vector<Bytes>* certs);
int BundleLeaf(const Bytes& p7, Bytes* leaf);

// Subject and issuer of a DER certificate as distinguished-name text
// (the toolkit's one-line form). False when the certificate does not decode.
bool CertificateNames(const Bytes& cert, std::u16string* subject, std::u16string* issuer);
// The certificate's notAfter as seconds since the epoch; false when absent.
bool CertificateNotAfter(const Bytes& cert, int64_t* when);
// The certificate's DER SubjectPublicKeyInfo; false when it does not decode.
bool CertificatePublicKeyInfo(const Bytes& cert, Bytes* spki);

// True when distinguished-name text (UTF-8) parses as a name.
bool IsNameText(const std::string& utf8);

// A DER PKCS#10 request for the key (DER RSAPublicKey) with the subject (DN
// text, UTF-8), no attributes, signed sha1WithRSAEncryption by sign(), which
// receives the DER CertificationRequestInfo and returns the big-endian
// signature or false. 0, kRequestBuild, or kSignRequest when sign() failed.
using RequestSigner = std::function<bool(const Bytes& info, Bytes* signature)>;
int BuildRequest(const std::string& subject, const Bytes& publicKey, const RequestSigner& sign,
                 Bytes* request);
// The public key of a DER request into a record, the signature not checked:
// the toolkit's status.
int RequestPublicKey(PKCS_CTX ctx, const Bytes& request, PKCS_PUBKEY* key);

// A DER PFX of the certificate and key under the password (UTF-8).
// 0, kNoCertificate, kLibraryInit, kLibraryContext or kPfxBuild.
int BuildPfx(const Bytes& cert, const PKCS_PRIKEY& key, const std::string& password, Bytes* pfx);

}  // namespace kv::control
