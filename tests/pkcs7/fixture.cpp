#include "fixture.h"

#include <random>

namespace p7test {

namespace {

const char kCaExt[] = "basicConstraints=critical,CA:TRUE\nkeyUsage=critical,keyCertSign,cRLSign\n";
const char kEeExt[] = "keyUsage=critical,digitalSignature,keyEncipherment\n";

bool MakeParty(const Pki& pki, Party& p, const std::string& name, const std::string& subject,
               const Party* issuer, int serial, const std::string& ext) {
  const auto& d = pki.dir;
  p.name = name;
  p.certPem = d / (name + ".pem");
  p.keyPem = d / (name + ".key");
  std::string extFile = d.Write(name + ".ext", ext);
  bool ok;
  if (!issuer) {
    ok =
        Openssl("req -x509 -newkey rsa:2048 -nodes -keyout " + p.keyPem + " -subj \"" + subject +
                "\" -days 3650 -set_serial " + std::to_string(serial) + " -extensions v3 -config " +
                d.Write(name + ".cnf", "[req]\ndistinguished_name=dn\n[dn]\n[v3]\n" + ext) +
                " -out " + p.certPem);
  } else {
    std::string csr = d / (name + ".csr");
    ok = Openssl("req -new -newkey rsa:2048 -nodes -keyout " + p.keyPem + " -subj \"" + subject +
                 "\" -out " + csr) &&
         Openssl("x509 -req -sha1 -in " + csr + " -CA " + issuer->certPem + " -CAkey " +
                 issuer->keyPem + " -set_serial " + std::to_string(serial) +
                 " -days 3650 -extfile " + extFile + " -out " + p.certPem);
  }
  ok =
      ok && Openssl("x509 -in " + p.certPem + " -outform DER -out " + d / (name + ".der")) &&
      Openssl("rsa -in " + p.keyPem + " -traditional -outform DER -out " + d / (name + ".key.der"));
  p.cert = kvtest::ReadFile(d / (name + ".der"));
  p.key = kvtest::ReadFile(d / (name + ".key.der"));
  return ok && !p.cert.empty() && !p.key.empty();
}

}  // namespace

const Pki& TestPki() {
  static Pki* pki = [] {
    auto* p = new Pki;
    p->ok =
        !p->dir.Path().empty() &&
        MakeParty(*p, p->root, "root", "/O=Korvanta Test/CN=Test Root", nullptr, 1, kCaExt) &&
        MakeParty(*p, p->inter, "inter", "/O=Korvanta Test/CN=Test Intermediate", &p->root, 2,
                  kCaExt) &&
        MakeParty(*p, p->signer, "signer", "/O=Korvanta Test/CN=Signer", &p->inter, 3, kEeExt) &&
        MakeParty(*p, p->recipient, "recipient", "/O=Korvanta Test/CN=Recipient", &p->inter, 4,
                  kEeExt) &&
        MakeParty(*p, p->stranger, "stranger", "/O=Korvanta Test/CN=Stranger", &p->inter, 5,
                  kEeExt);
    return p;
  }();
  return *pki;
}

bool Openssl(const std::string& args) {
  return kvtest::RunShell("openssl " + args + " >/dev/null 2>&1").status == 0;
}

bool Sh(const std::string& command) {
  return kvtest::RunShell(command + " >/dev/null 2>&1").status == 0;
}

kvtest::ShellResult Oracle(const std::string& args) {
  return kvtest::RunShell(std::string("/usr/bin/python3 ") + KV_SOURCE_DIR +
                          "/tests/pkcs7/p7oracle.py " + args + " 2>&1");
}

Context::Context() {
  PKCS_Initialize();
  PKCS_CreateCtx(&ctx_);
}

Context::~Context() {
  PKCS_DestroyCtx(ctx_);
  PKCS_Finalize();
}

PriKey::PriKey(const std::string& der) {
  PKCS_InitPriKey(nullptr, &key_);
  KV_PKCS1PriKeyDecode(nullptr, U(der), N(der), &key_);
}

PriKey::~PriKey() {
  PKCS_FreePriKey(nullptr, &key_);
}

List::List() {
  KV_CreateList(&list_);
}

List::List(const std::vector<std::string>& items) : List() {
  for (const std::string& s : items) KV_ListAppend(list_, U(s), N(s));
}

List::~List() {
  KV_DestroyList(list_);
}

std::vector<std::string> List::Items() const {
  std::vector<std::string> out;
  unsigned n = 0;
  KV_ListCount(list_, &n);
  for (unsigned i = 0; i < n; ++i) {
    const unsigned char* p = nullptr;
    unsigned len = 0;
    KV_ListGet(list_, i, &p, &len);
    out.emplace_back(reinterpret_cast<const char*>(p), len);
  }
  return out;
}

std::string Take(unsigned char* p, unsigned n) {
  std::string s = p ? std::string(reinterpret_cast<const char*>(p), n) : std::string();
  T_free(p);
  return s;
}

const unsigned char* U(const std::string& s) {
  return reinterpret_cast<const unsigned char*>(s.data());
}

unsigned N(const std::string& s) {
  return static_cast<unsigned>(s.size());
}

std::string Content(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(rng() & 0xff);
  return s;
}

}  // namespace p7test
