#include "cmd_verify.h"

#include <iostream>
#include <memory>
#include <set>

#include "asn1/asn1.h"
#include "input.h"
#include "pki/pki.h"

namespace {

const char kVerifyHelp[] =
    "usage: korvanta verify --ca FILE [--ca FILE...] [--untrusted FILE...]\n"
    "                       [--at YYYYMMDDhhmmssZ] LEAF\n"
    "\n"
    "Builds the chain from the certificate in LEAF up to a certificate of a --ca\n"
    "file: each certificate's issuer is looked up by name among the --ca and\n"
    "--untrusted certificates (files of DER, PEM or Base64; PEM files may hold\n"
    "several), its signature checked with that issuer's RSA key (md2, md5 or\n"
    "sha1WithRSAEncryption) and its validity period with the current time, or\n"
    "with --at. Prints \"verify OK\" and the chain, leaf first. Exit status 0 when\n"
    "the chain holds, 1 when it does not or an input is unreadable, 2 bad usage.\n";

constexpr unsigned kMaxDepth = 16;

int Usage(const std::string& message) {
  std::cerr << "korvanta: " << message << "\n\n" << kVerifyHelp;
  return 2;
}

int Fail(const std::string& where, const std::string& message) {
  std::cerr << "korvanta: " << where << ": " << message << "\n";
  return 1;
}

struct Cert {
  std::string der, subject, issuer;  // names as DER, for matching
  std::string subjectText;
  KV_Certificate obj;
  bool trusted = false;
};

std::string NameDer(const Name* name) {
  if (name == nullptr) return std::string();
  MiByteBuffer buf;
  unsigned n = name->DerEncode(buf, 0);
  return std::string(buf.GetChars(), n);
}

std::string NameText(const Name* name) {
  if (name == nullptr) return "?";
  KV_Name n(*name);
  MiString text;
  return n.getText(text) == 0 ? std::string(text) : std::string("?");
}

// Reads every certificate of a file into certs.
bool Load(const std::string& file, bool trusted, std::vector<std::unique_ptr<Cert>>& certs,
          std::string& error) {
  std::string data;
  std::vector<kvtool::Blob> blobs;
  if (!kvtool::ReadAll(file, data, error) || !kvtool::ParseInput(data, blobs, error)) {
    return false;
  }
  for (const kvtool::Blob& blob : blobs) {
    auto c = std::make_unique<Cert>();
    c->der = blob.der;
    c->trusted = trusted;
    if (c->obj.setCertificate(MiByte(blob.der.data(), static_cast<unsigned>(blob.der.size()))) !=
        0) {
      error = "not a certificate";
      return false;
    }
    const TBSCertificate* tbs = c->obj.certificate()->GetTBSCertificate();
    c->subject = NameDer(tbs->GetSubject());
    c->issuer = NameDer(tbs->GetIssuer());
    c->subjectText = NameText(tbs->GetSubject());
    certs.push_back(std::move(c));
  }
  return true;
}

std::string Quote(const std::string& s) {
  return "\"" + s + "\"";
}

}  // namespace

int CmdVerify(const std::vector<std::string>& args) {
  std::vector<std::string> caFiles, untrustedFiles;
  std::string leafFile, at;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--help" || a == "-h") {
      std::cout << kVerifyHelp;
      return 0;
    } else if (a == "--ca" || a == "--untrusted" || a == "--at") {
      if (i + 1 >= args.size()) return Usage(a + " needs a value");
      const std::string& v = args[++i];
      if (a == "--ca") {
        caFiles.push_back(v);
      } else if (a == "--untrusted") {
        untrustedFiles.push_back(v);
      } else {
        at = v;
      }
    } else if (a.size() > 1 && a[0] == '-') {
      return Usage("unknown option " + a);
    } else if (!leafFile.empty()) {
      return Usage("verify takes one certificate");
    } else {
      leafFile = a;
    }
  }
  if (leafFile.empty()) return Usage("verify needs a certificate");
  if (caFiles.empty()) return Usage("verify needs at least one --ca file");
  MiTime now = MiTime::Now();
  if (!at.empty()) {
    try {
      AsnGeneralizedTime t;
      t.SetTime(at.c_str());
      now = t.GetTime();
    } catch (const MiException&) {
      return Usage("--at takes a time such as 20300101000000Z");
    }
  }

  std::vector<std::unique_ptr<Cert>> pool, leafOnly;
  std::string error;
  for (const std::string& f : caFiles)
    if (!Load(f, true, pool, error)) return Fail(f, error);
  for (const std::string& f : untrustedFiles)
    if (!Load(f, false, pool, error)) return Fail(f, error);
  if (!Load(leafFile, false, leafOnly, error)) return Fail(leafFile, error);
  if (leafOnly.size() != 1) return Fail(leafFile, "expected one certificate");

  KV_P11_OP op;
  KV_PKCS11_S soft{};
  soft.selector = KV_P11_STORE_SOFT;
  if (op.createChooser(&soft) != 0) return Fail(leafFile, "no soft token");

  std::vector<const Cert*> chain{leafOnly[0].get()};
  for (;;) {
    const Cert* current = chain.back();
    int rv = current->obj.VerifyValidityPeriod(now);
    if (rv == KV_ERR_VALIDITY) {
      return Fail(leafFile, Quote(current->subjectText) + " is not valid at this time");
    }
    if (rv != 0) {
      return Fail(leafFile, Quote(current->subjectText) + " has no readable validity period");
    }
    // Reached a trusted certificate itself.
    for (const auto& c : pool) {
      if (c->trusted && c->der == current->der) {
        std::cout << "verify OK\n";
        for (size_t d = 0; d < chain.size(); ++d)
          std::cout << d << " " << chain[d]->subjectText << "\n";
        return 0;
      }
    }
    if (chain.size() >= kMaxDepth) return Fail(leafFile, "chain too long");
    // Candidates by name, trusted ones first; the first whose key verifies
    // the signature is the issuer.
    const Cert* issuer = nullptr;
    int lastStatus = 0;
    bool named = false;
    for (int pass = 0; pass < 2 && issuer == nullptr; ++pass) {
      for (const auto& c : pool) {
        if (c->trusted != (pass == 0) || c->subject != current->issuer) continue;
        if (c->der == current->der) continue;  // self-signed but not trusted
        named = true;
        RSAPublicKey key;
        rv = c->obj.getRSAPublicKey(key);
        if (rv == 0) {
          rv = KV_Certificate_Tool::VerifySignature(op, *current->obj.certificate(), key);
        }
        if (rv == 0) {
          issuer = c.get();
          break;
        }
        lastStatus = rv;
      }
    }
    if (issuer == nullptr && !named) {
      std::string issuerText =
          NameText(current->obj.certificate()->GetTBSCertificate()->GetIssuer());
      if (current->subject == current->issuer) {
        return Fail(leafFile, "chain ends in " + Quote(current->subjectText) +
                                  ", which is not among the trusted certificates (--ca)");
      }
      return Fail(leafFile, "no issuer certificate found for " + Quote(issuerText));
    }
    if (issuer == nullptr) {
      if (lastStatus == KV_ERR_UNSUPPORTED) {
        return Fail(leafFile, "signature algorithm of " + Quote(current->subjectText) +
                                  " or its issuer's key is not supported");
      }
      return Fail(leafFile, "signature of " + Quote(current->subjectText) +
                                " does not verify (status " + std::to_string(lastStatus) + ")");
    }
    for (const Cert* c : chain)
      if (c == issuer) return Fail(leafFile, "the chain loops");
    chain.push_back(issuer);
  }
}
