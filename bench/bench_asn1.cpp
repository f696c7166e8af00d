// The generic DER runtime on real certificates: decoding every certificate of
// the system roots into the open-type holder (a tree of typed primitives and
// lists) and encoding it again, against OpenSSL's d2i_X509/i2d_X509.
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <dirent.h>

#include <cstdio>
#include <string>
#include <vector>

#include "asn1/asn1.h"
#include "bench.h"

namespace {

std::vector<std::string> LoadRoots() {
  std::vector<std::string> certs;
  const std::string dir = "/usr/share/ca-certificates/mozilla";
  DIR* d = opendir(dir.c_str());
  if (!d) return certs;
  while (dirent* e = readdir(d)) {
    std::string name = e->d_name;
    if (name.size() < 4 || name.substr(name.size() - 4) != ".crt") continue;
    FILE* f = std::fopen((dir + "/" + name).c_str(), "r");
    if (!f) continue;
    X509* x = PEM_read_X509(f, nullptr, nullptr, nullptr);
    std::fclose(f);
    if (!x) continue;
    unsigned char* der = nullptr;
    int n = i2d_X509(x, &der);
    if (n > 0) certs.emplace_back(reinterpret_cast<char*>(der), static_cast<size_t>(n));
    OPENSSL_free(der);
    X509_free(x);
  }
  closedir(d);
  return certs;
}

}  // namespace

KV_BENCH(asn1_der) {
  const std::vector<std::string> certs = LoadRoots();
  if (certs.empty()) return;
  std::vector<MiByte> inputs;
  for (const auto& c : certs) inputs.emplace_back(c.data(), static_cast<unsigned>(c.size()));
  const double n = static_cast<double>(certs.size());

  double ours = kvbench::rate([&] {
    for (const MiByte& in : inputs) {
      AsnAny any;
      any.DerDecode(in, 0);
    }
  });
  double theirs = kvbench::rate([&] {
    for (const auto& c : certs) {
      const unsigned char* p = reinterpret_cast<const unsigned char*>(c.data());
      X509* x = d2i_X509(nullptr, &p, static_cast<long>(c.size()));
      X509_free(x);
    }
  });
  kvbench::report("asn1_decode_cert_any_per_s", ours * n, theirs * n, true);

  std::vector<AsnAny> trees(inputs.size());
  for (size_t i = 0; i < inputs.size(); ++i) trees[i].DerDecode(inputs[i], 0);
  std::vector<X509*> xs;
  for (const auto& c : certs) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(c.data());
    xs.push_back(d2i_X509(nullptr, &p, static_cast<long>(c.size())));
  }
  MiByteBuffer out;
  ours = kvbench::rate([&] {
    for (const AsnAny& t : trees) t.DerEncode(out, 0);
  });
  theirs = kvbench::rate([&] {
    for (X509* x : xs) {
      // i2d_X509 would copy the encoding cached at parse time; re-encoding
      // the to-be-signed part from its fields is the comparable work.
      unsigned char* der = nullptr;
      i2d_re_X509_tbs(x, &der);
      OPENSSL_free(der);
    }
  });
  kvbench::report("asn1_encode_cert_any_per_s", ours * n, theirs * n, true);
  for (X509* x : xs) X509_free(x);
}
