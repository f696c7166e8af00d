#include "cmd_pkcs7.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>

#include "asn1/asn1.h"
#include "input.h"
#include "pem.h"
#include "pki/pki.h"

const char kPkcs7Help[] =
    "usage: korvanta pkcs7 list FILE|-\n"
    "       korvanta pkcs7 verify [--content FILE] [--cert CERT] [--ca CERT]...\n"
    "                             [-o OUT] FILE|-\n"
    "       korvanta pkcs7 sign --cert CERT --key KEY [--detached] [--md sha1|md5|md2]\n"
    "                           [--no-attributes] [--pem] [-o OUT] FILE|-\n"
    "       korvanta pkcs7 encrypt --recipient CERT [--recipient CERT]...\n"
    "                              [--cipher des|des3|rc2-40|rc2-64|rc2-128|rc4]\n"
    "                              [--pem] [-o OUT] FILE|-\n"
    "       korvanta pkcs7 decrypt --cert CERT --key KEY [-o OUT] FILE|-\n"
    "\n"
    "list     the certificates of a signedData (a CA's certificate bundle) as\n"
    "         subject and issuer lines, and which of them is the leaf\n"
    "verify   checks every signature of a signedData; --content gives detached\n"
    "         content, --cert the signer's certificate when the message lacks it,\n"
    "         --ca trusted certificates the signer must chain to; -o writes the\n"
    "         signed content\n"
    "sign     signs the content of FILE (default SHA-1, with authenticated\n"
    "         attributes); --detached leaves the content out\n"
    "encrypt  makes an envelopedData for the recipients (default des3)\n"
    "decrypt  opens an envelopedData with the recipient's certificate and key;\n"
    "         the content is written readable by its owner only\n"
    "\n"
    "Messages and certificates are read as DER, PEM or Base64; keys as PEM or DER\n"
    "PKCS #1 or unencrypted PKCS #8. Messages are written as DER, or PEM with\n"
    "--pem; OUT is standard output when not given, and is replaced only when the\n"
    "whole result is ready.\n";

namespace {

using kvtool::Blob;

int Usage(const std::string& message) {
  std::cerr << "korvanta: " << message << "\n\n" << kPkcs7Help;
  return 2;
}

int Fail(const std::string& where, const std::string& message) {
  std::cerr << "korvanta: " << where << ": " << message << "\n";
  return 1;
}

std::string Where(const std::string& file) {
  return file == "-" ? "standard input" : file;
}

MiByte Bytes(const std::string& s) {
  return MiByte(s.data(), static_cast<unsigned>(s.size()));
}

std::string Str(const MiByte& b) {
  return std::string(b.GetChars() ? b.GetChars() : "", b.GetLength());
}

// What a status means to someone at the command line.
std::string Reason(int status) {
  switch (status) {
    case KV_ERR_DECODE:
      return "not a PKCS #7 message (or a damaged one)";
    case KV_ERR_CONTENT_TYPE:
      return "not a message of the kind this command takes";
    case KV_ERR_UNSUPPORTED:
      return "an algorithm the toolkit does not support";
    case KV_ERR_SIGNATURE:
      return "signature does not verify";
    case KV_ERR_DIGEST:
      return "message digest does not match the content";
    case KV_ERR_NOT_FOUND:
      return "no matching signer or recipient certificate";
    case KV_ERR_DECRYPT:
      return "cannot decrypt: wrong key or damaged message";
    case KV_ERR_CHAIN:
      return "the signer's certificate does not chain to a --ca certificate";
    case KV_ERR_ARGUMENT:
      return "missing content (a detached signature needs --content)";
    default:
      return "failed with status " + std::to_string(status);
  }
}

// The structures of a file (PEM blocks, or the whole DER or Base64).
bool ReadBlobs(const std::string& file, std::vector<Blob>& blobs, std::string& error) {
  std::string data;
  return kvtool::ReadAll(file, data, error) && kvtool::ParseInput(data, blobs, error);
}

bool ReadOne(const std::string& file, std::string& der, std::string& error) {
  std::vector<Blob> blobs;
  if (!ReadBlobs(file, blobs, error)) return false;
  der = blobs[0].der;
  return true;
}

bool ReadCertificates(const std::string& file, std::vector<MiByte>& out, std::string& error) {
  std::vector<Blob> blobs;
  if (!ReadBlobs(file, blobs, error)) return false;
  for (const Blob& b : blobs) {
    Certificate cert;
    try {
      MiByte der = Bytes(b.der);
      if (cert.DerDecode(der, 0) != der.GetLength()) throw AsnDecodeExp();
    } catch (const MiException&) {
      error = "not a certificate";
      return false;
    }
    out.push_back(Bytes(b.der));
  }
  return true;
}

// An RSA private key from PKCS #1 or unencrypted PKCS #8. The key's octets
// are never printed.
bool ReadKey(const std::string& file, KV_P11_Key& key, std::string& error) {
  std::vector<Blob> blobs;
  if (!ReadBlobs(file, blobs, error)) return false;
  const Blob& b = blobs[0];
  if (b.label == "ENCRYPTED PRIVATE KEY") {
    error = "encrypted private keys are not supported; decrypt it first";
    return false;
  }
  RSAPrivateKey rsa;
  try {
    MiByte der = Bytes(b.der);
    bool pkcs8 = b.label == "PRIVATE KEY";
    if (b.label.empty()) {
      try {
        pkcs8 = rsa.DerDecode(der, 0) != der.GetLength();
      } catch (const MiException&) {
        pkcs8 = true;
      }
    }
    if (pkcs8) {
      PrivateKeyInfo info;
      if (info.DerDecode(der, 0) != der.GetLength() || !info.GetPrivateKeyAlgorithm() ||
          !info.GetPrivateKeyAlgorithm()->GetAlgorithm() ||
          !info.GetPrivateKeyAlgorithm()->GetAlgorithm()->GetData().Equals(
              MiString("1.2.840.113549.1.1.1")) ||
          !info.GetPrivateKey())
        throw AsnDecodeExp();
      der = info.GetPrivateKey()->GetData();
    }
    if (rsa.DerDecode(der, 0) != der.GetLength()) throw AsnDecodeExp();
  } catch (const MiException&) {
    error = "not an RSA private key";
    return false;
  }
  if (key.setRSAPrivateKey(rsa) != 0 || key.setKeyType(KV_KEY_RSA_PRIVATE) != 0) {
    error = "not a complete RSA private key";
    return false;
  }
  return true;
}

// Writes beside the target with owner-only permissions and renames, so no
// partial file and no readable copy of a secret is ever left; "-" is
// standard output.
bool WritePrivate(const std::string& path, const std::string& data, std::string& error) {
  if (path == "-") return kvtool::WriteAll(path, data, error);
  return kvtool::WritePrivate(path, data, error);
}

bool OpenToken(KV_P11_OP& op) {
  KV_PKCS11_S soft{};
  soft.selector = KV_P11_STORE_SOFT;
  return op.createChooser(&soft) == 0;
}

// A distinguished name as "O=Example, CN=Name".
std::string NameText(const Name& name) {
  static const std::map<std::string, std::string> kLabels = {
      {"2.5.4.3", "CN"},
      {"2.5.4.4", "SN"},
      {"2.5.4.5", "serialNumber"},
      {"2.5.4.6", "C"},
      {"2.5.4.7", "L"},
      {"2.5.4.8", "ST"},
      {"2.5.4.10", "O"},
      {"2.5.4.11", "OU"},
      {"2.5.4.12", "title"},
      {"2.5.4.42", "GN"},
      {"1.2.840.113549.1.9.1", "emailAddress"},
      {"0.9.2342.19200300.100.1.25", "DC"}};
  std::string out;
  const auto* rdns = name.GetRdnSequence();
  if (!rdns) return out;
  for (unsigned i = 0; i < rdns->Size(); ++i) {
    const auto& rdn = *rdns->Get(i);
    for (unsigned j = 0; j < rdn.Size(); ++j) {
      const AttributeTypeAndDistinguishedValue& atv = *rdn.Get(j);
      out += j ? "+" : (i ? ", " : "");
      std::string type = atv.GetType() ? Str(MiByte(atv.GetType()->GetData().GetChars(),
                                                    atv.GetType()->GetData().GetLength()))
                                       : "?";
      auto it = kLabels.find(type);
      out += (it != kLabels.end() ? it->second : type) + "=";
      const AsnObject* v = atv.GetValue() ? atv.GetValue()->GetData() : nullptr;
      if (const auto* s = dynamic_cast<const AsnNarrowString*>(v)) {
        out += std::string(s->GetData().GetChars(), s->GetData().GetLength());
      } else if (const auto* w = dynamic_cast<const AsnWideString*>(v)) {
        MiString u = w->GetUtf8();
        out += std::string(u.GetChars(), u.GetLength());
      } else if (v) {
        MiByteBuffer buf;
        v->DerEncode(buf, 0);
        static const char d[] = "0123456789ABCDEF";
        out += "#";
        for (unsigned k = 0; k < buf.GetLength(); ++k)
          out += std::string{d[buf.GetBytes()[k] >> 4], d[buf.GetBytes()[k] & 15]};
      }
    }
  }
  return out;
}

struct Options {
  std::string file, out = "-", content, cert, key, md = "sha1", cipher = "des3";
  std::vector<std::string> recipients, cas;
  bool haveFile = false, haveContent = false, detached = false, noAttributes = false, pem = false;
};

// Parses the options a subcommand allows; 2 on bad usage, -1 for help.
int Parse(const std::string& verb, const std::vector<std::string>& args, Options& o) {
  auto allowed = [&](const std::string& opt) {
    static const std::map<std::string, std::string> kAllowed = {
        {"list", ""},
        {"verify", " --content --cert --ca -o --output "},
        {"sign", " --cert --key --detached --md --no-attributes --pem -o --output "},
        {"encrypt", " --recipient --cipher --pem -o --output "},
        {"decrypt", " --cert --key -o --output "}};
    return kAllowed.at(verb).find(" " + opt + " ") != std::string::npos;
  };
  for (size_t i = 1; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--help" || a == "-h") return -1;
    if (a.size() > 1 && a[0] == '-') {
      if (!allowed(a)) return Usage("pkcs7 " + verb + ": unknown option " + a);
      if (a == "--detached") {
        o.detached = true;
        continue;
      }
      if (a == "--no-attributes") {
        o.noAttributes = true;
        continue;
      }
      if (a == "--pem") {
        o.pem = true;
        continue;
      }
      if (i + 1 >= args.size()) return Usage(a + " needs a value");
      const std::string& v = args[++i];
      if (a == "-o" || a == "--output") {
        o.out = v;
      } else if (a == "--content") {
        o.content = v;
        o.haveContent = true;
      } else if (a == "--cert") {
        o.cert = v;
      } else if (a == "--key") {
        o.key = v;
      } else if (a == "--ca") {
        o.cas.push_back(v);
      } else if (a == "--recipient") {
        o.recipients.push_back(v);
      } else if (a == "--md") {
        o.md = v;
      } else if (a == "--cipher") {
        o.cipher = v;
      }
    } else if (o.haveFile) {
      return Usage("pkcs7 " + verb + " takes one input");
    } else {
      o.file = a;
      o.haveFile = true;
    }
  }
  if (!o.haveFile) return Usage("pkcs7 " + verb + " needs an input (FILE or -)");
  return 0;
}

int List(const Options& o) {
  std::string der, error;
  if (!ReadOne(o.file, der, error)) return Fail(Where(o.file), error);
  KV_LIST* list = nullptr;
  if (KV_CreateList(&list) != 0) return Fail(Where(o.file), "out of memory");
  int rv = PKCS7_ReadSignedDataMsg(nullptr, reinterpret_cast<const unsigned char*>(der.data()),
                                   static_cast<unsigned>(der.size()), list);
  unsigned count = 0;
  KV_ListCount(list, &count);
  std::string leaf;
  if (rv == 0) {
    unsigned n = 0;
    if (PKCS7_GetLeafCert(nullptr, list, nullptr, &n) == 0) {
      leaf.resize(n);
      PKCS7_GetLeafCert(nullptr, list, reinterpret_cast<unsigned char*>(&leaf[0]), &n);
    }
  }
  int leafIndex = 0;
  for (unsigned i = 0; rv == 0 && i < count; ++i) {
    const unsigned char* p = nullptr;
    unsigned n = 0;
    KV_ListGet(list, i, &p, &n);
    Certificate cert;
    MiByte c(reinterpret_cast<const char*>(p), n);
    cert.DerDecode(c, 0);
    std::cout << "certificate " << (i + 1) << " of " << count << "\n"
              << "  subject: " << NameText(*cert.GetTBSCertificate()->GetSubject()) << "\n"
              << "  issuer:  " << NameText(*cert.GetTBSCertificate()->GetIssuer()) << "\n";
    if (!leaf.empty() && std::string(reinterpret_cast<const char*>(p), n) == leaf)
      leafIndex = static_cast<int>(i + 1);
  }
  KV_DestroyList(list);
  if (rv != 0) return Fail(Where(o.file), Reason(rv));
  if (leafIndex)
    std::cout << "leaf: certificate " << leafIndex << "\n";
  else
    std::cout << "leaf: none (no single certificate that issued no other)\n";
  return 0;
}

int Verify(const Options& o) {
  std::string der, error, content, cert;
  if (!ReadOne(o.file, der, error)) return Fail(Where(o.file), error);
  if (o.haveContent && !kvtool::ReadAll(o.content, content, error))
    return Fail(Where(o.content), error);
  std::vector<MiByte> trusted, given;
  if (!o.cert.empty() && !ReadCertificates(o.cert, given, error)) return Fail(o.cert, error);
  for (const std::string& ca : o.cas)
    if (!ReadCertificates(ca, trusted, error)) return Fail(ca, error);
  KV_P11_OP op;
  if (!OpenToken(op)) return Fail("token", "cannot open the soft token");
  KV_PKCS7_SignedData sd;
  int rv = sd.decode(Bytes(der));
  MiByte detached = Bytes(content);
  const MiByte* givenCert = given.empty() ? nullptr : &given[0];
  if (rv == 0) rv = sd.verify(op, o.haveContent ? &detached : nullptr, givenCert);
  if (rv == 0 && !o.cas.empty()) rv = sd.verifyChain(op, trusted, givenCert);
  if (rv != 0) return Fail(Where(o.file), Reason(rv));
  if (o.out != "-" && !kvtool::WriteAll(o.out, o.haveContent ? content : Str(sd.content()), error))
    return Fail(o.out, error);
  std::cerr << "korvanta: signature ok (" << sd.signerCount() << " signer"
            << (sd.signerCount() == 1 ? "" : "s") << (o.cas.empty() ? "" : ", chain ok") << ")\n";
  return 0;
}

int Sign(const Options& o) {
  static const std::map<std::string, int> kDigests = {
      {"sha1", KV_ALG_SHA1}, {"md5", KV_ALG_MD5}, {"md2", KV_ALG_MD2}};
  if (o.cert.empty() || o.key.empty()) return Usage("pkcs7 sign needs --cert and --key");
  auto md = kDigests.find(o.md);
  if (md == kDigests.end()) return Usage("--md takes sha1, md5 or md2");
  std::string content, error;
  if (!kvtool::ReadAll(o.file, content, error)) return Fail(Where(o.file), error);
  std::vector<MiByte> certs;
  if (!ReadCertificates(o.cert, certs, error)) return Fail(o.cert, error);
  KV_PKCS7_Signer signer;
  if (!ReadKey(o.key, signer.key, error)) return Fail(o.key, error);
  signer.cert = certs[0];
  signer.digest = md->second;
  signer.attributes = !o.noAttributes;
  KV_P11_OP op;
  if (!OpenToken(op)) return Fail("token", "cannot open the soft token");
  KV_PKCS7_SignedData sd;
  sd.setContent(Bytes(content), o.detached);
  sd.addSigner(signer);
  for (size_t i = 1; i < certs.size(); ++i) sd.addCertificate(certs[i]);
  MiByte out;
  int rv = sd.encode(op, out);
  if (rv != 0) return Fail(o.key, Reason(rv));
  if (!kvtool::WriteAll(o.out, o.pem ? kvtool::PemEncode("PKCS7", Str(out)) : Str(out), error))
    return Fail(o.out, error);
  return 0;
}

int Encrypt(const Options& o) {
  static const std::map<std::string, int> kCiphers = {
      {"des", PKCS7_CIPHER_DES},         {"des3", PKCS7_CIPHER_DES3},
      {"rc2-40", PKCS7_CIPHER_RC2_40},   {"rc2-64", PKCS7_CIPHER_RC2_64},
      {"rc2-128", PKCS7_CIPHER_RC2_128}, {"rc4", PKCS7_CIPHER_RC4}};
  if (o.recipients.empty()) return Usage("pkcs7 encrypt needs at least one --recipient");
  auto cipher = kCiphers.find(o.cipher);
  if (cipher == kCiphers.end())
    return Usage("--cipher takes des, des3, rc2-40, rc2-64, rc2-128 or rc4");
  std::string content, error;
  if (!kvtool::ReadAll(o.file, content, error)) return Fail(Where(o.file), error);
  KV_PKCS7_EnvelopedData ed;
  for (const std::string& r : o.recipients) {
    std::vector<MiByte> certs;
    if (!ReadCertificates(r, certs, error)) return Fail(r, error);
    for (const MiByte& c : certs) {
      int rv = ed.addRecipient(c);
      if (rv != 0) return Fail(r, rv == KV_ERR_UNSUPPORTED ? "not an RSA certificate" : Reason(rv));
    }
  }
  ed.setContent(Bytes(content));
  ed.setCipher(cipher->second);
  KV_P11_OP op;
  if (!OpenToken(op)) return Fail("token", "cannot open the soft token");
  MiByte out;
  int rv = ed.encode(op, out);
  if (rv != 0) return Fail(Where(o.file), Reason(rv));
  if (!kvtool::WriteAll(o.out, o.pem ? kvtool::PemEncode("PKCS7", Str(out)) : Str(out), error))
    return Fail(o.out, error);
  return 0;
}

int Decrypt(const Options& o) {
  if (o.cert.empty() || o.key.empty()) return Usage("pkcs7 decrypt needs --cert and --key");
  std::string der, error;
  if (!ReadOne(o.file, der, error)) return Fail(Where(o.file), error);
  std::vector<MiByte> certs;
  if (!ReadCertificates(o.cert, certs, error)) return Fail(o.cert, error);
  KV_P11_Key key;
  if (!ReadKey(o.key, key, error)) return Fail(o.key, error);
  KV_P11_OP op;
  if (!OpenToken(op)) return Fail("token", "cannot open the soft token");
  KV_PKCS7_EnvelopedData ed;
  MiByte content;
  int rv = ed.decode(Bytes(der));
  if (rv == 0) rv = ed.decrypt(op, certs[0], key, content);
  if (rv != 0) return Fail(Where(o.file), Reason(rv));
  if (!WritePrivate(o.out, Str(content), error)) return Fail(o.out, error);
  return 0;
}

}  // namespace

int CmdPkcs7(const std::vector<std::string>& args) {
  if (args.empty()) return Usage("pkcs7 needs list, verify, sign, encrypt or decrypt");
  const std::string& verb = args[0];
  if (verb == "--help" || verb == "-h") {
    std::cout << kPkcs7Help;
    return 0;
  }
  if (verb != "list" && verb != "verify" && verb != "sign" && verb != "encrypt" &&
      verb != "decrypt")
    return Usage("pkcs7 has no subcommand \"" + verb + "\"");
  Options o;
  int rv = Parse(verb, args, o);
  if (rv == -1) {
    std::cout << kPkcs7Help;
    return 0;
  }
  if (rv != 0) return rv;
  if (verb == "list") return List(o);
  if (verb == "verify") return Verify(o);
  if (verb == "sign") return Sign(o);
  if (verb == "encrypt") return Encrypt(o);
  return Decrypt(o);
}
