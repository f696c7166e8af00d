// signedData verification: a 1 KiB message signed with SHA-1 and RSA-2048
// (authenticated attributes, the signer's certificate carried), decoded and
// verified by us and by OpenSSL's PKCS7_verify and CMS_verify, both without
// a chain check.
#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/pkcs7.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <cstdio>
#include <functional>
#include <string>

#include "bench.h"
#include "pki/pki.h"

namespace {

// As in the token figures: alternating short rounds, fastest round of each.
void Compare(const char* name, const std::function<bool()>& ours,
             const std::function<bool()>& theirs, int perRound, int rounds) {
  if (!ours() || !theirs()) {
    std::printf("%s: a side failed to verify\n", name);
    return;
  }
  double best[2] = {1e30, 1e30};
  const std::function<bool()>* fns[2] = {&ours, &theirs};
  for (int r = 0; r < rounds; ++r) {
    for (int f = 0; f < 2; ++f) {
      const auto start = kvbench::Clock::now();
      for (int i = 0; i < perRound; ++i) (*fns[f])();
      const double t = kvbench::seconds_since(start) / perRound;
      if (t < best[f]) best[f] = t;
    }
  }
  kvbench::report(name, 1 / best[0], 1 / best[1], true);
}

// A self-signed SHA-1 certificate and a message signed with its key, DER.
bool MakeMessage(std::string& der) {
  EVP_PKEY* key = EVP_RSA_gen(2048);
  X509* cert = X509_new();
  bool ok = key && cert;
  if (ok) {
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert), 86400);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("bench"), -1, -1, 0);
    X509_set_issuer_name(cert, name);
    X509_set_pubkey(cert, key);
    ok = X509_sign(cert, key, EVP_sha1()) > 0;
  }
  std::string content(1024, 'k');
  BIO* in = BIO_new_mem_buf(content.data(), static_cast<int>(content.size()));
  PKCS7* p7 = nullptr;
  if (ok) {
    p7 = PKCS7_sign(nullptr, nullptr, nullptr, in, PKCS7_BINARY | PKCS7_PARTIAL);
    ok = p7 && PKCS7_sign_add_signer(p7, cert, key, EVP_sha1(), PKCS7_BINARY) &&
         PKCS7_final(p7, in, PKCS7_BINARY);
  }
  if (ok) {
    unsigned char* buf = nullptr;
    int n = i2d_PKCS7(p7, &buf);
    ok = n > 0;
    if (ok) der.assign(reinterpret_cast<char*>(buf), n);
    OPENSSL_free(buf);
  }
  PKCS7_free(p7);
  BIO_free(in);
  X509_free(cert);
  EVP_PKEY_free(key);
  return ok;
}

}  // namespace

KV_BENCH(pkcs7) {
  std::string der;
  if (!MakeMessage(der)) {
    std::printf("pkcs7: could not make the message\n");
    return;
  }
  KV_P11_OP op;
  KV_PKCS11_S chooser{KV_P11_STORE_SOFT, nullptr, 0, nullptr, 0};
  if (op.createChooser(&chooser) != 0) return;
  const MiByte msg(der.data(), static_cast<unsigned>(der.size()));
  auto ours = [&] {
    KV_PKCS7_SignedData sd;
    return sd.decode(msg) == 0 && sd.verify(op) == 0;
  };
  auto pkcs7 = [&] {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(der.data());
    PKCS7* p7 = d2i_PKCS7(nullptr, &p, static_cast<long>(der.size()));
    BIO* out = BIO_new(BIO_s_mem());
    bool ok = p7 && PKCS7_verify(p7, nullptr, nullptr, nullptr, out, PKCS7_NOVERIFY) == 1;
    BIO_free(out);
    PKCS7_free(p7);
    return ok;
  };
  auto cms = [&] {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(der.data());
    CMS_ContentInfo* ci = d2i_CMS_ContentInfo(nullptr, &p, static_cast<long>(der.size()));
    BIO* out = BIO_new(BIO_s_mem());
    bool ok = ci && CMS_verify(ci, nullptr, nullptr, nullptr, out, CMS_NO_SIGNER_CERT_VERIFY) == 1;
    BIO_free(out);
    CMS_ContentInfo_free(ci);
    return ok;
  };
  Compare("pkcs7_verify_sha1_rsa2048_1k_vs_PKCS7_verify", ours, pkcs7, 200, 5);
  Compare("pkcs7_verify_sha1_rsa2048_1k_vs_CMS_verify", ours, cms, 200, 5);
}
