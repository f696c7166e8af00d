// The certificate fields a token's certificate object carries, read by our
// DER walk, against Python's cryptography over the system's real roots.
#include <gtest/gtest.h>

#include <sstream>

#include "crypto/internal/p11_certinfo.h"
#include "softhsm_env.h"

namespace {

using p11test::Hex;

// One line per root: name, subject, issuer, serial ("-" unless a positive
// short one) and RSA modulus ("-" for other keys), all DER in hex.
const char kOracle[] = R"PY(
import sys, os, warnings
from cryptography import x509
from cryptography.hazmat.primitives.asymmetric import rsa
from cryptography.hazmat.primitives.serialization import Encoding
warnings.simplefilter('ignore')
for name in sorted(os.listdir(sys.argv[1])):
    c = x509.load_pem_x509_certificate(open(os.path.join(sys.argv[1], name), 'rb').read())
    open(os.path.join(sys.argv[2], name + '.der'), 'wb').write(c.public_bytes(Encoding.DER))
    s = c.serial_number
    body = s.to_bytes((s.bit_length() + 8) // 8, 'big') if s > 0 else b''
    serial = (bytes([2, len(body)]) + body).hex() if 0 < len(body) < 128 else '-'
    k = c.public_key()
    mod = '%x' % k.public_numbers().n if isinstance(k, rsa.RSAPublicKey) else '-'
    print(name, c.subject.public_bytes().hex(), c.issuer.public_bytes().hex(), serial,
          ('0' + mod if len(mod) % 2 and mod != '-' else mod))
)PY";

TEST(CertFields, MatchPythonOverTheSystemRoots) {
  kvtest::TempDir d;
  auto r = kvtest::RunShell(std::string(p11test::kPython) + " '" + d.Write("o.py", kOracle) +
                            "' '" + kvtest::kSystemRootsDir + "' '" + d.Path() + "'");
  ASSERT_EQ(r.status, 0);
  std::istringstream lines(r.out);
  std::string name, subject, issuer, serial, modulus;
  int count = 0, rsa = 0;
  while (lines >> name >> subject >> issuer >> serial >> modulus) {
    std::string der = kvtest::ReadFile(d / (name + ".der"));
    kv::p11::CertFields f;
    ASSERT_TRUE(
        kv::p11::ReadCertFields(reinterpret_cast<const unsigned char*>(der.data()), der.size(), &f))
        << name;
    EXPECT_EQ(Hex(f.subject), subject) << name;
    EXPECT_EQ(Hex(f.issuer), issuer) << name;
    if (serial != "-") {
      EXPECT_EQ(Hex(f.serial), serial) << name;
    }
    EXPECT_EQ(Hex(f.modulus), modulus == "-" ? "" : modulus) << name;
    ++count;
    rsa += modulus != "-";
  }
  EXPECT_GT(count, 50);
  EXPECT_GT(rsa, 20);
  EXPECT_LT(rsa, count) << "the roots include keys that are not RSA";
}

TEST(CertFields, EveryCutBeforeTheKeyIsRefusedWithoutReadingPastTheEnd) {
  auto names = kvtest::SystemRootNames();
  ASSERT_FALSE(names.empty());
  auto blocks = kvtest::PemBlocks(
      kvtest::ReadFile(std::string(kvtest::kSystemRootsDir) + "/" + names[0]), {"CERTIFICATE"});
  ASSERT_EQ(blocks.size(), 1u);
  kv::p11::CertFields f;
  // A heap copy of exactly the cut length, so an over-read shows under ASan.
  for (size_t n = 0; n < blocks[0].size() / 2; ++n) {
    std::vector<unsigned char> cut(blocks[0].begin(), blocks[0].begin() + long(n));
    EXPECT_FALSE(kv::p11::ReadCertFields(cut.data(), n, &f)) << n;
  }
  const unsigned char indefinite[] = {0x30, 0x80, 0x30, 0x80, 0x02, 0x01, 0x01, 0, 0, 0, 0};
  EXPECT_FALSE(kv::p11::ReadCertFields(indefinite, sizeof indefinite, &f));
}

}  // namespace
