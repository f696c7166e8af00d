// DER decoding and re-encoding of the system root certificates, ours beside
// OpenSSL's d2i_X509/i2d_X509.
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
    size_t b = pem.find("-----BEGIN CERTIFICATE-----");
    size_t end = pem.find("-----END CERTIFICATE-----");
    if (b == std::string::npos || end == std::string::npos) continue;
    b += 27;
    MiByte text(pem.data() + b, static_cast<unsigned>(end - b));
    MiByte der;
    KV_Base64 codec;
    if (codec.Decode(text, der) == 0 && !der.Empty()) certs.push_back(der);
  }
  closedir(d);
  return certs;
}

}  // namespace

KV_BENCH(der) {
  std::vector<MiByte> certs = LoadRoots();
  if (certs.empty()) return;
  const double n = static_cast<double>(certs.size());

  double oursDecode = kvbench::rate([&] {
                        for (const MiByte& c : certs) {
                          Certificate cert;
                          cert.DerDecode(c, 0);
                        }
                      }) *
                      n;
  double sslDecode = kvbench::rate([&] {
                       for (const MiByte& c : certs) {
                         const unsigned char* p =
                             reinterpret_cast<const unsigned char*>(c.GetChars());
                         X509_free(d2i_X509(nullptr, &p, c.GetLength()));
                       }
                     }) *
                     n;
  kvbench::report("der_decode_roots_certs_per_s", oursDecode, sslDecode, true);

  std::vector<std::unique_ptr<Certificate>> ours;
  std::vector<X509*> theirs;
  for (const MiByte& c : certs) {
    ours.emplace_back(new Certificate());
    ours.back()->DerDecode(c, 0);
    const unsigned char* p = reinterpret_cast<const unsigned char*>(c.GetChars());
    theirs.push_back(d2i_X509(nullptr, &p, c.GetLength()));
  }
  MiByteBuffer out;
  double oursEncode = kvbench::rate([&] {
                        for (const auto& cert : ours) cert->DerEncode(out, 0);
                      }) *
                      n;
  std::vector<unsigned char> buf(1 << 16);
  double sslEncode = kvbench::rate([&] {
                       for (X509* x : theirs) {
                         unsigned char* p = buf.data();
                         i2d_X509(x, &p);
                       }
                     }) *
                     n;
  kvbench::report("der_reencode_roots_certs_per_s", oursEncode, sslEncode, true);
  for (X509* x : theirs) X509_free(x);
}
