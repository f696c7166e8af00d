#include "tokens/enrol_util.h"

#include <dirent.h>
#include <sys/stat.h>

namespace kvtest {

const char kEnhanced[] = "Microsoft Enhanced Cryptographic Provider v1.0";

std::string Cli(const std::string& data, const std::string& home) {
  return std::string(KV_KORVANTA_BIN) + " control --data-dir '" + data + "' --home '" + home + "'";
}

std::string Call(const std::string& data, const std::string& home, const std::string& calls) {
  ShellResult r = RunShell(Cli(data, home) + " " + calls + " | tail -n 1");
  const std::string key = "\"result\":\"";
  size_t at = r.out.find(key);
  if (r.status != 0 || at == std::string::npos) return "";
  at += key.size();
  return r.out.substr(at, r.out.find('"', at) - at);
}

std::string IssueFor(const TempDir& dir, const std::string& pubB64, const std::string& subject) {
  const std::string key = dir.Write("pub.b64", pubB64);
  ShellResult r =
      RunShell(std::string("/usr/bin/python3 ") + KV_SOURCE_DIR +
               "/tests/refca/refca.py issue --pubkey " + key + " --subject \"" + subject +
               "\" --intermediates 1 --ca-dir " + (dir / "ca") + " --out " + (dir / "p7.b64"));
  return r.status == 0 ? ReadFile(dir / "p7.b64") : std::string();
}

std::string B64Of(const std::string& bytes) {
  static const char k[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    uint32_t v = static_cast<uint8_t>(bytes[i]) << 16 | static_cast<uint8_t>(bytes[i + 1]) << 8 |
                 static_cast<uint8_t>(bytes[i + 2]);
    for (int s = 18; s >= 0; s -= 6) out += k[(v >> s) & 63];
  }
  if (i < bytes.size()) {
    uint32_t v = static_cast<uint8_t>(bytes[i]) << 16;
    if (i + 1 < bytes.size()) v |= static_cast<uint8_t>(bytes[i + 1]) << 8;
    out += k[(v >> 18) & 63];
    out += k[(v >> 12) & 63];
    out += i + 1 < bytes.size() ? k[(v >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

bool IsFile(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::vector<std::string> Files(const std::string& dir, const std::string& suffix) {
  std::vector<std::string> out;
  DIR* d = ::opendir(dir.c_str());
  if (!d) return out;
  while (dirent* e = ::readdir(d)) {
    std::string n = e->d_name;
    if (n.size() > suffix.size() && n.compare(n.size() - suffix.size(), suffix.size(), suffix) == 0)
      out.push_back(n);
  }
  ::closedir(d);
  return out;
}

std::string PublicModulus(kv::control::Platform& p, const std::string& container,
                          const std::string& provider, uint32_t keySpec) {
  kv::control::ProvHandle prov = 0;
  kv::control::KeyHandle key = 0;
  if (!p.AcquireContext(&prov, container.c_str(), provider.c_str(), kv::control::KV_PROV_RSA_FULL,
                        0))
    return "no container";
  std::string out = "no key";
  if (p.GetUserKey(prov, keySpec, &key)) {
    uint32_t len = 0;
    p.ExportKey(key, kv::control::KV_PUBLICKEYBLOB, 0, nullptr, &len);
    Bytes blob(len);
    if (p.ExportKey(key, kv::control::KV_PUBLICKEYBLOB, 0, blob.data(), &len)) {
      TempDir t;
      const std::string f = t.Write("pub.blob", std::string(blob.begin(), blob.end()));
      out = RunShell("openssl rsa -pubin -inform MSBLOB -in " + f + " -noout -modulus 2>&1").out;
    }
    p.DestroyKey(key);
  }
  p.ReleaseContext(prov);
  return out;
}

std::string CertModulus(const TempDir& dir, const std::string& der) {
  const std::string f = dir.Write("cert.der", der);
  return RunShell("openssl x509 -inform DER -in " + f + " -noout -modulus 2>&1").out;
}

}  // namespace kvtest
