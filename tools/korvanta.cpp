// korvanta: everyday tools on the toolkit.
//
//   korvanta dump [--type NAME] FILE|-         text dump of a DER, PEM or Base64 structure
//   korvanta base64 encode|decode [...]        Base64 over files or standard input
//   korvanta types                             the catalogue classes --type accepts
//   korvanta req --subject DN --key-out KEY    RSA key and PKCS#10 request (or --verify)
//   korvanta verify --ca FILE LEAF             chain walk to a trusted certificate
//
// Exit status: 0 success, 1 unreadable or undecodable input, 2 bad usage.
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "asn1/asn1.h"
#include "cmd_control.h"
#include "cmd_req.h"
#include "cmd_verify.h"
#include "cmd_pkcs7.h"
#include "cmd_pkcs12.h"
#include "cmd_portable.h"
#include "input.h"
#include "recognise.h"

namespace {

using kvtool::Blob;

const char kMainHelp[] =
    "usage: korvanta VERB [OPTIONS] [ARGS]\n"
    "\n"
    "verbs:\n"
    "  dump     print the text dump of a certificate, CRL, PKCS#10 request, PKCS#7\n"
    "           message, PFX file, RSA key or any catalogue structure\n"
    "  base64   encode or decode Base64\n"
    "  types    list the catalogue classes that 'dump --type' accepts\n"
    "  req      make an RSA key and a PKCS#10 request, or check a request\n"
    "  verify   check a certificate's chain up to a trusted certificate\n"
    "  pkcs7    list, verify, sign, encrypt and decrypt PKCS#7 messages\n"
    "  pkcs12   build a PFX file from a key and certificates, or list one's bags\n"
    "  stores   list the certificates of the user's MY, CA and ROOT stores\n"
    "  containers  list the user's key containers and their keys\n"
    "  control  drive an enrolment control object (calls as arguments or JSON lines)\n"
    "  help     show help for a verb ('korvanta help dump')\n"
    "\n"
    "Every verb takes --help. Exit status: 0 success, 1 bad input, 2 bad usage.\n";

const char kDumpHelp[] =
    "usage: korvanta dump [--type NAME] FILE|-\n"
    "\n"
    "Reads DER, PEM (one or more blocks) or bare Base64 text from FILE, or from\n"
    "standard input for '-', and prints the structure as an indented text dump.\n"
    "Certificates, CRLs, PKCS#10 requests, PKCS#7 messages, PFX files, RSA public\n"
    "and private keys (PKCS#1, X.509 public key info, PKCS#8) are recognised;\n"
    "--type NAME decodes the input as any catalogue class ('korvanta types').\n";

const char kBase64Help[] =
    "usage: korvanta base64 encode [--no-wrap] [-o OUT] [FILE|-]\n"
    "       korvanta base64 decode [-o OUT] [FILE|-]\n"
    "\n"
    "encode writes Base64 text with a line feed after every 64 characters (one\n"
    "line with --no-wrap); decode skips line breaks and characters outside the\n"
    "alphabet and fails on text that ends in an incomplete group. Input is FILE or\n"
    "standard input ('-' or nothing); output is standard output or OUT, which is\n"
    "replaced only when the whole result is ready.\n";

const char kTypesHelp[] =
    "usage: korvanta types\n"
    "\n"
    "Lists the catalogue classes, one a line, for 'korvanta dump --type NAME'.\n";

int Usage(const std::string& message, const char* help) {
  std::cerr << "korvanta: " << message << "\n\n" << help;
  return 2;
}

int Fail(const std::string& where, const std::string& message) {
  std::cerr << "korvanta: " << where << ": " << message << "\n";
  return 1;
}

bool IsHelp(const std::string& a) {
  return a == "--help" || a == "-h";
}

std::string Text(const MiString& s) {
  return std::string(s.GetChars() ? s.GetChars() : "", s.GetLength());
}

// Replaces a PKCS#7 message's open content by its typed structure, so the dump
// names its fields. Content we cannot type stays as it was decoded.
void TypeContent(AsnObject& object) {
  auto* info = dynamic_cast<ContentInfo*>(&object);
  if (!info || !info->GetContentType() || !info->GetContent()) return;
  std::string cls = kvtool::Pkcs7ContentClass(Text(info->GetContentType()->GetData()));
  if (cls.empty()) return;
  std::unique_ptr<AsnObject> typed(CreatePkiType(cls.c_str()));
  if (!typed) return;
  try {
    info->GetContent()->DecodeInto(*typed);
  } catch (const MiException&) {
    return;
  }
  info->GetContent()->SetDataSpace(typed.release());
}

int DumpOne(const std::string& where, const Blob& blob, const std::string& forcedType) {
  std::string type = forcedType;
  if (type.empty()) type = kvtool::RecogniseLabel(blob.label);
  if (type.empty()) type = kvtool::RecogniseDer(blob.der);
  if (type.empty()) {
    return Fail(where, "not a recognised structure (name one with --type; see 'korvanta types')");
  }
  std::unique_ptr<AsnObject> object(CreatePkiType(type.c_str()));
  if (!object) return Fail(where, "no catalogue class named \"" + type + "\"");
  try {
    MiByte in(blob.der.data(), static_cast<unsigned>(blob.der.size()));
    unsigned used = object->DerDecode(in, 0);
    if (used != in.GetLength()) {
      return Fail(where, "decoding as " + type + " left " + std::to_string(in.GetLength() - used) +
                             " octets unread");
    }
    TypeContent(*object);
    object->ToOstream(std::cout, 0);
    std::cout << "\n";
  } catch (const MiException& e) {
    return Fail(where, "decoding as " + type + " failed: " + e.GetMessage());
  }
  return 0;
}

int Dump(const std::vector<std::string>& args) {
  std::string type, file;
  bool haveFile = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (IsHelp(a)) {
      std::cout << kDumpHelp;
      return 0;
    } else if (a == "--type" || a == "-t") {
      if (i + 1 >= args.size()) return Usage("--type needs a class name", kDumpHelp);
      type = args[++i];
    } else if (a.size() > 1 && a[0] == '-') {
      return Usage("unknown option " + a, kDumpHelp);
    } else if (haveFile) {
      return Usage("dump takes one input", kDumpHelp);
    } else {
      file = a;
      haveFile = true;
    }
  }
  if (!haveFile) return Usage("dump needs an input (FILE or -)", kDumpHelp);
  if (!type.empty()) {
    std::unique_ptr<AsnObject> probe(CreatePkiType(type.c_str()));
    if (!probe) return Usage("no catalogue class named \"" + type + "\"", kDumpHelp);
  }
  std::string where = file == "-" ? "standard input" : file;
  std::string data, error;
  if (!kvtool::ReadAll(file, data, error)) return Fail(where, error);
  std::vector<Blob> blobs;
  if (!kvtool::ParseInput(data, blobs, error)) return Fail(where, error);
  int status = 0;
  for (size_t i = 0; i < blobs.size(); ++i) {
    if (blobs.size() > 1) {
      std::cout << (i ? "\n" : "") << "# " << (i + 1) << " of " << blobs.size();
      if (!blobs[i].label.empty()) std::cout << " (" << blobs[i].label << ")";
      std::cout << "\n";
    }
    std::string at = blobs.size() > 1 ? where + " #" + std::to_string(i + 1) : where;
    if (DumpOne(at, blobs[i], type) != 0) status = 1;
  }
  return status;
}

int Base64(const std::vector<std::string>& args) {
  if (args.empty()) return Usage("base64 needs 'encode' or 'decode'", kBase64Help);
  if (IsHelp(args[0])) {
    std::cout << kBase64Help;
    return 0;
  }
  const std::string& mode = args[0];
  if (mode != "encode" && mode != "decode") {
    return Usage("base64 needs 'encode' or 'decode', not \"" + mode + "\"", kBase64Help);
  }
  bool wrap = true, haveFile = false;
  std::string file = "-", out = "-";
  for (size_t i = 1; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (IsHelp(a)) {
      std::cout << kBase64Help;
      return 0;
    } else if (a == "--no-wrap" && mode == "encode") {
      wrap = false;
    } else if (a == "-o" || a == "--output") {
      if (i + 1 >= args.size()) return Usage(a + " needs a file name", kBase64Help);
      out = args[++i];
    } else if (a.size() > 1 && a[0] == '-') {
      return Usage("unknown option " + a, kBase64Help);
    } else if (haveFile) {
      return Usage("base64 takes one input", kBase64Help);
    } else {
      file = a;
      haveFile = true;
    }
  }
  std::string where = file == "-" ? "standard input" : file;
  std::string data, error, result;
  if (!kvtool::ReadAll(file, data, error)) return Fail(where, error);
  if (mode == "encode") {
    result = kvtool::Base64Encode(data, wrap);
    // The codec's own layout ends a text whose length is a multiple of 64
    // with a single counted line feed; one line feed always ends our output.
    if (!wrap && !result.empty()) result += '\n';
  } else if (!kvtool::Base64Decode(data, result)) {
    return Fail(where, "Base64 text ends in an incomplete group");
  }
  if (!kvtool::WriteAll(out, result, error)) return Fail(out, error);
  return 0;
}

int Types(const std::vector<std::string>& args) {
  if (!args.empty() && IsHelp(args[0])) {
    std::cout << kTypesHelp;
    return 0;
  }
  if (!args.empty()) return Usage("types takes no arguments", kTypesHelp);
  for (unsigned i = 0; i < PkiTypeCount(); ++i) std::cout << PkiTypeName(i) << "\n";
  return 0;
}

int Run(int argc, char** argv) {
  if (argc < 2) return Usage("no verb given", kMainHelp);
  std::string verb = argv[1];
  std::vector<std::string> args(argv + 2, argv + argc);
  if (IsHelp(verb)) {
    std::cout << kMainHelp;
    return 0;
  }
  if (verb == "help") {
    if (args.empty()) {
      std::cout << kMainHelp;
    } else if (args[0] == "dump") {
      std::cout << kDumpHelp;
    } else if (args[0] == "base64") {
      std::cout << kBase64Help;
    } else if (args[0] == "types") {
      std::cout << kTypesHelp;
    } else if (args[0] == "req" || args[0] == "verify") {
      return args[0] == "req" ? CmdReq({"--help"}) : CmdVerify({"--help"});
    } else if (args[0] == "control") {
      return CmdControl({"--help"});
    } else if (args[0] == "stores") {
      std::cout << kvtool::kStoresHelp;
    } else if (args[0] == "containers") {
      std::cout << kvtool::kContainersHelp;
    } else {
      return Usage("no verb named \"" + args[0] + "\"", kMainHelp);
    }
    return 0;
  }
  if (verb == "dump") return Dump(args);
  if (verb == "base64") return Base64(args);
  if (verb == "types") return Types(args);
  if (verb == "req") return CmdReq(args);
  if (verb == "verify") return CmdVerify(args);
  if (verb == "pkcs7") return CmdPkcs7(args);
  if (verb == "control") return CmdControl(args);
  if (verb == "pkcs12") return CmdPkcs12(args);
  if (verb == "stores") return kvtool::StoresCommand(args);
  if (verb == "containers") return kvtool::ContainersCommand(args);
  return Usage("no verb named \"" + verb + "\"", kMainHelp);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& e) {
    std::cerr << "korvanta: " << e.what() << "\n";
  } catch (const MiException& e) {
    std::cerr << "korvanta: " << e.GetMessage() << "\n";
  }
  return 1;
}
