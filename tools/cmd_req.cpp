#include "cmd_req.h"

#include <iostream>

#include "asn1/asn1.h"
#include "input.h"
#include "pem.h"
#include "pki/pki.h"

namespace {

const char kReqHelp[] =
    "usage: korvanta req --subject DN --key-out KEYFILE [--bits 512|1024|2048]\n"
    "                    [--key-form pem|der] [--out FILE|-] [--outform pem|der]\n"
    "       korvanta req --verify FILE|-\n"
    "\n"
    "The first form makes an RSA key pair (2048 bits by default) and a PKCS#10\n"
    "request for it, signed sha1WithRSAEncryption. DN is one line such as\n"
    "\"CN=alice,O=Example,C=CN\" (RFC 4514 order: the first attribute written is\n"
    "the last RDN encoded; keywords CN SN C L ST O OU T N G I GQ DQ E or dotted\n"
    "identifiers; UTF-8 values). The private key is written to KEYFILE as PKCS#1\n"
    "(\"RSA PRIVATE KEY\" PEM, or DER), readable by its owner only. The request\n"
    "goes to FILE or standard output, PEM by default.\n"
    "\n"
    "The second form checks the signature of a request (DER, PEM or Base64) with\n"
    "the key it carries and prints \"verify OK\" and its subject.\n";

int Usage(const std::string& message) {
  std::cerr << "korvanta: " << message << "\n\n" << kReqHelp;
  return 2;
}

int Fail(const std::string& where, const std::string& message) {
  std::cerr << "korvanta: " << where << ": " << message << "\n";
  return 1;
}

std::string Std(const MiByte& b) {
  return b.Empty() ? std::string() : std::string(b.GetChars(), b.GetLength());
}

MiByte Bytes(const std::string& s) {
  return MiByte(s.data(), static_cast<unsigned>(s.size()));
}

std::string SubjectText(const KV_PKCS10& req) {
  KV_Name subject;
  MiString text;
  if (req.getSubject(subject) != 0 || subject.getText(text) != 0) return "?";
  return std::string(text);
}

int Verify(const std::string& file) {
  std::string where = file == "-" ? "standard input" : file;
  std::string data, error;
  if (!kvtool::ReadAll(file, data, error)) return Fail(where, error);
  std::vector<kvtool::Blob> blobs;
  if (!kvtool::ParseInput(data, blobs, error)) return Fail(where, error);
  if (blobs.size() != 1) return Fail(where, "expected one request");
  KV_PKCS10 req;
  int rv = req.setRequest(Bytes(blobs[0].der));
  if (rv != 0) return Fail(where, "not a PKCS#10 request (status " + std::to_string(rv) + ")");
  KV_P11_OP op;
  KV_PKCS11_S soft{};
  soft.selector = KV_P11_STORE_SOFT;
  rv = op.createChooser(&soft);
  if (rv != 0) return Fail(where, "no soft token (status " + std::to_string(rv) + ")");
  rv = req.verify(op);
  if (rv == KV_ERR_UNSUPPORTED) {
    return Fail(where, "signature or key algorithm not supported (RSA with MD2, MD5 or SHA-1)");
  }
  if (rv != 0) return Fail(where, "signature does not verify");
  std::cout << "verify OK\nsubject=" << SubjectText(req) << "\n";
  return 0;
}

}  // namespace

int CmdReq(const std::vector<std::string>& args) {
  std::string subject, keyOut, out = "-", verifyFile;
  std::string keyForm = "pem", outForm = "pem";
  int bits = 2048;
  bool haveSubject = false, verify = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&](std::string& target) {
      if (i + 1 >= args.size()) return false;
      target = args[++i];
      return true;
    };
    if (a == "--help" || a == "-h") {
      std::cout << kReqHelp;
      return 0;
    } else if (a == "--subject") {
      if (!value(subject)) return Usage("--subject needs a DN");
      haveSubject = true;
    } else if (a == "--key-out") {
      if (!value(keyOut)) return Usage("--key-out needs a file name");
    } else if (a == "--out" || a == "-o") {
      if (!value(out)) return Usage(a + " needs a file name");
    } else if (a == "--key-form" || a == "--outform") {
      std::string form;
      if (!value(form) || (form != "pem" && form != "der")) return Usage(a + " takes pem or der");
      (a == "--key-form" ? keyForm : outForm) = form;
    } else if (a == "--bits") {
      std::string b;
      if (!value(b)) return Usage("--bits needs a number");
      if (b != "512" && b != "1024" && b != "2048") return Usage("--bits takes 512, 1024 or 2048");
      bits = std::stoi(b);
    } else if (a == "--verify") {
      if (!value(verifyFile)) return Usage("--verify needs a file");
      verify = true;
    } else {
      return Usage("unknown argument " + a);
    }
  }
  if (verify) {
    if (haveSubject || !keyOut.empty()) return Usage("--verify takes no other option");
    return Verify(verifyFile);
  }
  if (!haveSubject) return Usage("req needs --subject");
  if (keyOut.empty()) return Usage("req needs --key-out");
  if (keyOut == "-") return Usage("the private key is never written to standard output");

  KV_Name name;
  int rv = name.setText(subject.c_str());
  if (rv == KV_ERR_UNSUPPORTED) return Fail("--subject", "unknown attribute keyword");
  if (rv != 0) return Fail("--subject", "not a distinguished name (see 'korvanta req --help')");

  KV_P11_OP op;
  KV_PKCS11_S soft{};
  soft.selector = KV_P11_STORE_SOFT;
  rv = op.createChooser(&soft);
  KV_P11_Key pub, priv;
  // Labels only name token objects; an in-memory pair needs them all the same.
  MiByte pubLabel("req-public", 10), privLabel("req-private", 11);
  if (rv == 0) rv = op.GenRSAKeyPair(pub, pubLabel, priv, privLabel, bits, 0);
  if (rv != 0) return Fail("key generation", "failed (status " + std::to_string(rv) + ")");
  RSAPublicKey rsaPub;
  RSAPrivateKey rsaPriv;
  KV_PKCS10 req;
  rv = pub.getRSAPublicKey(rsaPub);
  if (rv == 0) rv = priv.getRSAPrivateKey(rsaPriv);
  if (rv == 0) rv = req.setSubject(name);
  if (rv == 0) rv = req.setPublicKey(rsaPub);
  if (rv == 0) rv = req.sign(op, priv);
  MiByte der;
  if (rv == 0) rv = req.getRequest(der);
  if (rv != 0) return Fail("request", "could not be made (status " + std::to_string(rv) + ")");

  std::string keyDer;
  try {
    MiByteBuffer buf;
    unsigned n = rsaPriv.DerEncode(buf, 0);
    keyDer.assign(buf.GetChars(), n);
  } catch (const MiException& e) {
    return Fail("key", e.GetMessage());
  }
  std::string keyData = keyForm == "pem" ? kvtool::PemEncode("RSA PRIVATE KEY", keyDer) : keyDer;
  std::fill(keyDer.begin(), keyDer.end(), '\0');
  std::string error;
  bool written = kvtool::WritePrivate(keyOut, keyData, error);
  std::fill(keyData.begin(), keyData.end(), '\0');
  if (!written) return Fail(keyOut, error);
  std::string reqData =
      outForm == "pem" ? kvtool::PemEncode("CERTIFICATE REQUEST", Std(der)) : Std(der);
  if (!kvtool::WriteAll(out, reqData, error)) return Fail(out, error);
  return 0;
}
