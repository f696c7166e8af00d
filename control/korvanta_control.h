// CBrendalKorvanta: the enrolment control's object, the 29 methods a page
// calls, in dispatch order (their dispatch identifiers are 1 to 29).
//
// Every method returns a status: 0 on success, otherwise the positive
// eight-digit code 22000000 + 10000 x block + detail (control/internal/codes.h
// names the details), or KV_E_FAIL, the failing automation result that a few
// internal faults produce (the out-value is then left untouched). The real
// result comes through the last parameter:
//   - text results are std::optional<std::u16string>: std::nullopt is the
//     unassigned (null) result, an empty string the empty one;
//   - the `ret` of install and import methods is std::optional<int32_t>: it
//     carries 0 or a code of the same form, and stays unset only with
//     KV_E_FAIL.
// Text arguments are automation text (UTF-16); a null string is passed as an
// empty one.
//
// One object serves one page, on one thread; it takes no locks.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "control/platform.h"

// The failing automation result (E_FAIL).
constexpr int32_t KV_E_FAIL = static_cast<int32_t>(0x80004005u);

class CBrendalKorvanta {
 public:
  using Text = std::optional<std::u16string>;
  using Ret = std::optional<int32_t>;

  explicit CBrendalKorvanta(kv::control::Platform& platform);
  ~CBrendalKorvanta();
  CBrendalKorvanta(const CBrendalKorvanta&) = delete;
  CBrendalKorvanta& operator=(const CBrendalKorvanta&) = delete;

  /* 1 */ int32_t listCSP(int index, Text* cspName);
  /* 2 */ int32_t setCSP(const std::u16string& cspName);
  /* 3 */ int32_t genKeyPair(int keySize, Text* bstrP1DerBase64Pubkey);
  /* 4 */ int32_t genTempKeyPair(Text* bstrP1DerBase64TmpPubkey);
  /* 5 */ int32_t getVersion(Text* pVersionStr);
  /* 6 */ int32_t writeClientCert(const std::u16string& p7Certs, Ret* ret);
  /* 7 */ int32_t writeKmcCert(const std::u16string& p7Certs, const std::u16string& EncPrikey,
                               const std::u16string& TempUKEK, Ret* ret);
  /* 8 */ int32_t genEEDownCertRequestData_Client(const std::u16string& refNo,
                                                  const std::u16string& AuthCode,
                                                  const std::u16string& pubkey,
                                                  Text* xmlEEDownClientCertReq);
  /* 9 */ int32_t genEEDownCertRequestData_Kmc(const std::u16string& refNo,
                                               const std::u16string& AuthCode,
                                               const std::u16string& tmppubkey,
                                               const std::u16string& keyLength,
                                               Text* xmlEEDownKmcCertReq);
  /* 10 */ int32_t genEERevokeCertRequestData(Text* xmlEERevokeCertReq);
  /* 11 */ int32_t genEEUpdateCertRequestData(Text* xmlEEUpdateCertReq);
  /* 12 */ int32_t getPublicKeyFromPKCS10Data(const std::u16string& p10Base64Data,
                                              Text* p1Base64Der);
  /* 13 */ int32_t genEERestoreKHRequestData(Text* retXmlData);
  /* 14 */ int32_t writeKmcCertwithKH(const std::u16string& p7Certs,
                                      const std::u16string& EncPrikey,
                                      const std::u16string& TempUKEK,
                                      const std::u16string& keyHistory, Ret* ret);
  /* 15 */ int32_t writeKH(const std::u16string& keyHistory, Ret* ret);
  /* 16 */ int32_t writeClientCertToPFX(const std::u16string& p7Certs, const std::u16string& passwd,
                                        Text* retPfx);
  /* 17 */ int32_t writeKmcCertToPFX(const std::u16string& p7Certs, const std::u16string& EncPrikey,
                                     const std::u16string& TempUKEK, const std::u16string& passwd,
                                     Text* retPfx);
  /* 18 */ int32_t genP10(int keySize, Text* bstrP10DerBase64Pubkey);
  /* 19 */ int32_t genEEUpdateCertRequestData_Client(const std::u16string& P10Str,
                                                     Text* xmlEEUpdateCertReq);
  /* 20 */ int32_t genEEUpdateCertRequestData_Kmc(const std::u16string& tmppubkey,
                                                  const std::u16string& keyLength,
                                                  Text* xmlEEUpdateCertReq);
  /* 21 */ int32_t restoreKmcCert(const std::u16string& p7Certs, const std::u16string& EncPrikey,
                                  const std::u16string& TempUKEK, Ret* ret);
  /* 22 */ int32_t genP10_kex(int keySize, Text* bstrP10DerBase64Pubkey);
  /* 23 */ int32_t writeClientCert_kex(const std::u16string& p7Certs, Ret* ret);
  /* 24 */ int32_t genP10_exp(int keySize, int keyExportable, Text* bstrP10DerBase64Pubkey);
  /* 25 */ int32_t writeClientCert_exp(const std::u16string& p7Certs, Ret* ret);
  /* 26 */ int32_t writeClientCert_noprotect(const std::u16string& p7Certs, Ret* ret);
  /* 27 */ int32_t genP10_exp_withdn(int keySize, int keyExportable,
                                     const std::u16string& bstrCertDN, Text* bstrP10Bse64Pack);
  /* 28 */ int32_t writeClientCert_exp_X509(const std::u16string& p7Certs, Ret* ret);
  /* 29 */ int32_t leavingMostRecentCert(const std::u16string& UserDN,
                                         const std::u16string& IssuerDN, Ret* ret);

  // The selected provider name ("" when none or empty) and the current
  // container name, for hosts that show them.
  const std::string& SelectedProvider() const { return provider_; }
  const std::string& CurrentContainer() const { return container_; }

 private:
  kv::control::Platform& platform_;
  std::string provider_;
  std::string container_;
};
