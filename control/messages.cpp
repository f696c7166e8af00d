// The XML request messages: the two download requests sealed by the MAC of
// the authorisation code, and the five requests the user signs ("DS").
#include <cstdlib>

#include "control/internal/method.h"
#include "control/internal/toolkit.h"
#include "control/korvanta_control.h"

using namespace kv::control;

namespace {

const char kDeclaration[] =
    "<?xml version=\"1.0\" encoding=\"gb2312\" standalone=\"yes\" ?><request>";

std::string Header(const char* type) {
  return std::string("<source><header><type>") + type + "</type><version>2.0</version><localtime>" +
         LocalTimeText() + "</localtime></header>";
}

// A key length the KMC can generate: the leading decimal integer of the text.
bool IsKmcKeyLength(const std::string& text) {
  if (text.empty()) return false;
  long bits = std::strtol(text.c_str(), nullptr, 10);
  return bits == 512 || bits == 1024 || bits == 2048 || bits == 4096;
}

// Seals SOURCE with the MAC of the authorisation code: 0 or the detail.
int SealWithMac(const std::string& source, const std::string& authCode, std::string* message) {
  std::string mac;
  if (int detail = MacOf(source, authCode, &mac)) return detail;
  *message = kDeclaration + source +
             "<signature><signaturemethod algorithm=\"MAC\"></signaturemethod><signaturevalue>" +
             mac + "</signaturevalue></signature></request>";
  return 0;
}

// Has the user sign SOURCE with a certificate of their choosing: 0 or the
// detail.
int SealWithSignature(Platform& p, const std::string& source, std::string* message) {
  if (source.empty()) return kEmptySource;
  SignedText signed_ = p.ChooseAndSign(source);
  if (signed_.signatureBase64.empty() || signed_.certificateBase64.empty()) return kSigning;
  *message = kDeclaration + source +
             "<signature><signaturemethod algorithm=\"DS\"></signaturemethod><signaturevalue>" +
             signed_.signatureBase64 + "</signaturevalue><keyinfo><x509data><x509certificate>" +
             signed_.certificateBase64 +
             "</x509certificate></x509data></keyinfo></signature></request>";
  return 0;
}

int32_t Signed(Platform& p, int32_t block, const std::string& source, CBrendalKorvanta::Text* out) {
  std::string message;
  if (int detail = SealWithSignature(p, source, &message)) return Status(block, detail);
  SetText(p, out, message);
  return 0;
}

}  // namespace

int32_t CBrendalKorvanta::genEEDownCertRequestData_Client(const std::u16string& refNo,
                                                          const std::u16string& AuthCode,
                                                          const std::u16string& pubkey,
                                                          Text* xmlEEDownClientCertReq) {
  return Guarded([&]() -> int32_t {
    const int32_t block = kBlockDownClient;
    const std::string ref = Narrow(platform_, refNo);
    const std::string code = Narrow(platform_, AuthCode);
    const std::string key = Narrow(platform_, pubkey);
    if (ref.empty()) return Status(block, kEmptyRefNo);
    if (code.empty()) return Status(block, kEmptyAuthCode);
    if (key.empty()) return Status(block, kEmptyPublicKey);
    const std::string source = Header("EEDOWNCERT") + "<body><entry name=\"REFNO\" value=\"" + ref +
                               "\"/><entry name=\"PUBLICKEY\" value=\"" + key +
                               "\"/></body></source>";
    std::string message;
    if (int detail = SealWithMac(source, code, &message)) return Status(block, detail);
    SetText(platform_, xmlEEDownClientCertReq, message);
    return 0;
  });
}

int32_t CBrendalKorvanta::genEEDownCertRequestData_Kmc(const std::u16string& refNo,
                                                       const std::u16string& AuthCode,
                                                       const std::u16string& tmppubkey,
                                                       const std::u16string& keyLength,
                                                       Text* xmlEEDownKmcCertReq) {
  return Guarded([&]() -> int32_t {
    const int32_t block = kBlockDownKmc;
    const std::string ref = Narrow(platform_, refNo);
    const std::string code = Narrow(platform_, AuthCode);
    const std::string key = Narrow(platform_, tmppubkey);
    const std::string length = Narrow(platform_, keyLength);
    if (ref.empty()) return Status(block, kEmptyRefNo);
    if (code.empty()) return Status(block, kEmptyAuthCode);
    if (key.empty()) return Status(block, kEmptyPublicKey);
    if (!IsKmcKeyLength(length)) return Status(block, kBadKmcKeyLength);
    const std::string source = Header("EEDOWNCERT") + "<body><entry name=\"REFNO\" value=\"" + ref +
                               "\"/><entry name=\"TEMPPUBLICKEY\" value=\"" + key +
                               "\"/><entry name=\"KEYLENGTH\" value=\"" + length +
                               "\"/></body></source>";
    std::string message;
    if (int detail = SealWithMac(source, code, &message)) return Status(block, detail);
    SetText(platform_, xmlEEDownKmcCertReq, message);
    return 0;
  });
}

int32_t CBrendalKorvanta::genEERevokeCertRequestData(Text* xmlEERevokeCertReq) {
  return Guarded([&]() -> int32_t {
    return Signed(platform_, kBlockRevoke, Header("EEREVOKECERT") + "<body></body></source>",
                  xmlEERevokeCertReq);
  });
}

int32_t CBrendalKorvanta::genEEUpdateCertRequestData(Text* xmlEEUpdateCertReq) {
  return Guarded([&]() -> int32_t {
    return Signed(platform_, kBlockUpdate, Header("EEUPDATECERT") + "<body></body></source>",
                  xmlEEUpdateCertReq);
  });
}

int32_t CBrendalKorvanta::genEERestoreKHRequestData(Text* retXmlData) {
  return Guarded([&]() -> int32_t {
    return Signed(platform_, kBlockRestoreKH, Header("EERESTOREKH") + "<body></body></source>",
                  retXmlData);
  });
}

int32_t CBrendalKorvanta::genEEUpdateCertRequestData_Client(const std::u16string& P10Str,
                                                            Text* xmlEEUpdateCertReq) {
  return Guarded([&]() -> int32_t {
    // The request is not checked: an empty one gives an empty entry.
    const std::string request = Narrow(platform_, P10Str);
    return Signed(platform_, kBlockUpdate,
                  Header("EEUPDATECERT") + "<body>" + "<entry name=\"PUBLICKEY\" value=\"" +
                      request + "\"/>" + "</body></source>",
                  xmlEEUpdateCertReq);
  });
}

int32_t CBrendalKorvanta::genEEUpdateCertRequestData_Kmc(const std::u16string& tmppubkey,
                                                         const std::u16string& keyLength,
                                                         Text* xmlEEUpdateCertReq) {
  return Guarded([&]() -> int32_t {
    const std::string key = Narrow(platform_, tmppubkey);
    const std::string length = Narrow(platform_, keyLength);
    // A bad length reports in the block of genEEDownCertRequestData_Kmc.
    if (!IsKmcKeyLength(length)) return Status(kBlockDownKmc, kBadKmcKeyLength);
    return Signed(platform_, kBlockUpdate,
                  Header("EEUPDATECERT") + "<body>" + "<entry name=\"TEMPPUBLICKEY\" value=\"" +
                      key + "\"/><entry name=\"KEYLENGTH\" value=\"" + length +
                      "\"/></body></source>",
                  xmlEEUpdateCertReq);
  });
}
