// DER decoding and re-encoding of the system root certificates, ours beside
// OpenSSL's d2i_X509/i2d_re_X509_tbs: once through the generated Certificate
// class, once through the open-type holder (a generic tree of the same octets).
#include <dirent.h>
#include <openssl/x509.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "asn1/asn1.h"
#include "bench.h"
#include "pki/pki.h"

namespace {

const char kRoots[] = "/usr/share/ca-certificates/mozilla";

std::vector<MiByte> LoadRoots() {
  std::vector<MiByte> certs;
  DIR* d = opendir(kRoots);
  if (!d) return certs;
  while (dirent* e = readdir(d)) {
    std::string name = e->d_name;
    if (name.size() < 5 || name.compare(name.size() - 4, 4, ".crt") != 0) continue;
    std::ifstream f(std::string(kRoots) + "/" + name);
    std::string pem((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    const std::string begin = "-----BEGIN CERTIFICATE-----";
    size_t b = pem.find(begin);
    size_t end = pem.find("-----END CERTIFICATE-----");
    if (b == std::string::npos || end == std::string::npos) continue;
    b += begin.size();
    MiByte text(pem.data() + b, static_cast<unsigned>(end - b));
    MiByte der;
    KV_Base64 codec;
    if (codec.Decode(text, der) == 0 && !der.Empty()) certs.push_back(der);
  }
  closedir(d);
  return certs;
}

const unsigned char* Octets(const MiByte& b) {
  return reinterpret_cast<const unsigned char*>(b.GetChars());
}

// Decodes every certificate into T, then re-encodes the decoded trees.
template <class T>
void Measure(const std::string& prefix, const std::vector<MiByte>& certs, double sslDecode,
             double sslEncode) {
  const double n = static_cast<double>(certs.size());
  double decode = kvbench::rate([&] {
    for (const MiByte& c : certs) {
      T t;
      t.DerDecode(c, 0);
    }
  });
  kvbench::report(prefix + "_decode_roots_certs_per_s", decode * n, sslDecode, true);
  std::vector<std::unique_ptr<T>> trees;
  for (const MiByte& c : certs) {
    trees.emplace_back(new T());
    trees.back()->DerDecode(c, 0);
  }
  MiByteBuffer out;
  double encode = kvbench::rate([&] {
    for (const auto& t : trees) t->DerEncode(out, 0);
  });
  kvbench::report(prefix + "_encode_roots_certs_per_s", encode * n, sslEncode, true);
}

}  // namespace

KV_BENCH(der) {
  std::vector<MiByte> certs = LoadRoots();
  if (certs.empty()) return;
  const double n = static_cast<double>(certs.size());

  double sslDecode = kvbench::rate([&] {
                       for (const MiByte& c : certs) {
                         const unsigned char* p = Octets(c);
                         X509_free(d2i_X509(nullptr, &p, c.GetLength()));
                       }
                     }) *
                     n;
  std::vector<X509*> xs;
  for (const MiByte& c : certs) {
    const unsigned char* p = Octets(c);
    xs.push_back(d2i_X509(nullptr, &p, c.GetLength()));
  }
  std::vector<unsigned char> buf(1 << 16);
  double sslEncode = kvbench::rate([&] {
                       for (X509* x : xs) {
                         // i2d_X509 only copies the encoding kept from parsing; this makes
                         // OpenSSL encode the to-be-signed part (nearly all of it) from its fields.
                         unsigned char* p = buf.data();
                         i2d_re_X509_tbs(x, &p);
                       }
                     }) *
                     n;
  for (X509* x : xs) X509_free(x);

  Measure<Certificate>("der_certificate", certs, sslDecode, sslEncode);
  Measure<AsnAny>("der_any", certs, sslDecode, sslEncode);
}
