// The certificate fields a token's certificate object carries, read by our
// DER walk, against Python's cryptography over the system's real roots.
#include <gtest/gtest.h>

#include <sstream>

#include "crypto/internal/p11_certinfo.h"
#include "softhsm_env.h"

namespace {

using p11test::Hex;

// One line per root: file subject-DER issuer-DER serial-DER modulus ("-" when
// the key is not RSA), all hex.
const char kOracle[] = R"PY(
import sys, os, warnings
warnings.simplefilter('ignore')
from cryptography import x509
from cryptography.hazmat.primitives.asymmetric import rsa
from cryptography.hazmat.primitives.serialization import Encoding
d = sys.argv[1]
for name in sorted(os.listdir(d)):
    c = x509.load_pem_x509_certificate(open(os.path.join(d, name), 'rb').read())
    der = c.public_bytes(Encoding.DER)
    open(os.path.join(sys.argv[2], name + '.der'), 'wb').write(der)
    s = c.serial_number
    body = s.to_bytes((s.bit_length() + 8) // 8, 'big')
    serial = bytes([2, len(body)]) + body if 0 < s and len(body) < 128 else None
    k = c.public_key()
    mod = format(k.public_numbers().n, 'x') if isinstance(k, rsa.RSAPublicKey) else '-'
    if len(mod) % 2 and mod != '-': mod = '0' + mod
    print(name, c.subject.public_bytes().hex(), c.issuer.public_bytes().hex(),
          serial.hex() if serial else '-', mod)
)PY";

TEST(CertFields, MatchPythonOverTheSystemRoots) {
  kvtest::TempDir d;
  std::string script = d.Write("oracle.py", kOracle);
  auto r = kvtest::RunShell(std::string(p11test::kPython) + " '" + script + "' '" +
                            kvtest::kSystemRootsDir + "' '" + d.Path() + "'");
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
    EXPECT_EQ(modulus == "-" ? "" : modulus, Hex(f.modulus)) << name;
    ++count;
    rsa += modulus != "-";
  }
  EXPECT_GT(count, 50);
  EXPECT_GT(rsa, 20);
  EXPECT_LT(rsa, count) << "the roots include non-RSA keys";
}

TEST(CertFields, RejectsWhatIsNotACertificateWithoutReadingPastTheEnd) {
  auto names = kvtest::SystemRootNames();
  ASSERT_FALSE(names.empty());
  std::string pem = kvtest::ReadFile(std::string(kvtest::kSystemRootsDir) + "/" + names[0]);
  auto blocks = kvtest::PemBlocks(pem, {"CERTIFICATE"});
  ASSERT_EQ(blocks.size(), 1u);
  const std::string& der = blocks[0];
  kv::p11::CertFields f;
  // Every cut inside the TBSCertificate up to its key fails (a heap copy of
  // exactly the cut length, so an over-read shows under AddressSanitizer).
  for (size_t n = 0; n < der.size() / 2; ++n) {
    std::vector<unsigned char> cut(der.begin(), der.begin() + static_cast<std::ptrdiff_t>(n));
    EXPECT_FALSE(kv::p11::ReadCertFields(cut.data(), cut.size(), &f)) << n;
  }
  const std::vector<std::vector<unsigned char>> bad = {
      {0x30, 0x80, 0x00, 0x00},                    // indefinite length
      {0x30, 0x85, 0x01, 0x00, 0x00, 0x00, 0x00},  // five length octets
      {0x31, 0x00},                                // a SET
      {0x30, 0x02, 0x30, 0x00},                    // empty TBSCertificate
      {0x30, 0x04, 0x30, 0x02, 0x05, 0x00},        // no serial number
  };
  for (const auto& b : bad) EXPECT_FALSE(kv::p11::ReadCertFields(b.data(), b.size(), &f));
  EXPECT_FALSE(kv::p11::ReadCertFields(nullptr, 10, &f));
  EXPECT_TRUE(f.subject.empty());
}

TEST(CertFields, KeyIdIsSha1OfTheModulusWithoutLeadingZeros) {
  // SHA-1("abc") from FIPS 180: the same ID whatever zero octets lead.
  std::vector<unsigned char> n = {'a', 'b', 'c'}, padded = {0, 0, 'a', 'b', 'c'};
  EXPECT_EQ(Hex(kv::p11::KeyIdOfModulus(n)), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(kv::p11::KeyIdOfModulus(padded), kv::p11::KeyIdOfModulus(n));
}

}  // namespace
