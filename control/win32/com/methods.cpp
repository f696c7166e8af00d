// The 29 automation methods: each turns its BSTR and integer arguments into
// the control's types, calls the control and hands the result back as a new
// BSTR or integer. The control's status is the method's HRESULT: 0, a
// positive code (a success to automation, tested by the page), or E_FAIL.
// No C++ exception leaves a method.
#include <new>
#include <string>

#include "control/win32/com/object.h"

namespace kv::control::com {

namespace {

using Text = CBrendalKorvanta::Text;
using Ret = CBrendalKorvanta::Ret;

template <typename Fn>
HRESULT Guard(Fn&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (...) {
    return E_FAIL;
  }
}

// A null BSTR is the empty string.
std::u16string In(BSTR text) {
  if (!text) return std::u16string();
  return std::u16string(reinterpret_cast<const char16_t*>(text), SysStringLen(text));
}

// A method with a text result: unassigned stays a null BSTR, the empty
// string becomes an empty BSTR.
template <typename Fn>
HRESULT TextMethod(BSTR* out, Fn&& call) {
  if (!out) return E_POINTER;
  *out = nullptr;
  return Guard([&]() -> HRESULT {
    Text text;
    const int32_t status = call(&text);
    if (text) {
      BSTR b = SysAllocStringLen(reinterpret_cast<const OLECHAR*>(text->data()),
                                 static_cast<UINT>(text->size()));
      if (!b) return E_OUTOFMEMORY;
      *out = b;
    }
    return static_cast<HRESULT>(status);
  });
}

// A method with an integer `ret`: left untouched when the control gives
// none (its failing result).
template <typename T, typename Fn>
HRESULT RetMethod(T* out, Fn&& call) {
  if (!out) return E_POINTER;
  return Guard([&]() -> HRESULT {
    Ret ret;
    const int32_t status = call(&ret);
    if (ret) *out = static_cast<T>(*ret);
    return static_cast<HRESULT>(status);
  });
}

}  // namespace

STDMETHODIMP KorvantaObject::listCSP(int index, BSTR* cspName) {
  return TextMethod(cspName, [&](Text* r) { return control_.listCSP(index, r); });
}

STDMETHODIMP KorvantaObject::setCSP(BSTR cspName) {
  return Guard([&]() -> HRESULT { return control_.setCSP(In(cspName)); });
}

STDMETHODIMP KorvantaObject::genKeyPair(int keySize, BSTR* bstrP1DerBase64Pubkey) {
  return TextMethod(bstrP1DerBase64Pubkey,
                    [&](Text* r) { return control_.genKeyPair(keySize, r); });
}

STDMETHODIMP KorvantaObject::genTempKeyPair(BSTR* bstrP1DerBase64TmpPubkey) {
  return TextMethod(bstrP1DerBase64TmpPubkey, [&](Text* r) { return control_.genTempKeyPair(r); });
}

STDMETHODIMP KorvantaObject::getVersion(BSTR* pVersionStr) {
  // The version text is string resource 101 of the module.
  if (!pVersionStr) return E_POINTER;
  *pVersionStr = nullptr;
  return Guard([&]() -> HRESULT {
    const wchar_t* text = nullptr;
    int len = LoadStringW(ModuleHandle(), 101, reinterpret_cast<LPWSTR>(&text), 0);
    if (len <= 0 || !text) {
      // Without the resource, the control's own copy of the text.
      return TextMethod(pVersionStr, [&](Text* r) { return control_.getVersion(r); });
    }
    *pVersionStr = SysAllocStringLen(text, static_cast<UINT>(len));
    return *pVersionStr ? S_OK : E_OUTOFMEMORY;
  });
}

STDMETHODIMP KorvantaObject::writeClientCert(BSTR p7Certs, int* ret) {
  return RetMethod(ret, [&](Ret* r) { return control_.writeClientCert(In(p7Certs), r); });
}

STDMETHODIMP KorvantaObject::writeKmcCert(BSTR p7Certs, BSTR EncPrikey, BSTR TempUKEK, int* ret) {
  return RetMethod(ret, [&](Ret* r) {
    return control_.writeKmcCert(In(p7Certs), In(EncPrikey), In(TempUKEK), r);
  });
}

STDMETHODIMP KorvantaObject::genEEDownCertRequestData_Client(BSTR refNo, BSTR AuthCode, BSTR pubkey,
                                                             BSTR* xmlEEDownClientCertReq) {
  return TextMethod(xmlEEDownClientCertReq, [&](Text* r) {
    return control_.genEEDownCertRequestData_Client(In(refNo), In(AuthCode), In(pubkey), r);
  });
}

STDMETHODIMP KorvantaObject::genEEDownCertRequestData_Kmc(BSTR refNo, BSTR AuthCode, BSTR tmppubkey,
                                                          BSTR keyLength,
                                                          BSTR* xmlEEDownKmcCertReq) {
  return TextMethod(xmlEEDownKmcCertReq, [&](Text* r) {
    return control_.genEEDownCertRequestData_Kmc(In(refNo), In(AuthCode), In(tmppubkey),
                                                 In(keyLength), r);
  });
}

STDMETHODIMP KorvantaObject::genEERevokeCertRequestData(BSTR* xmlEERevokeCertReq) {
  return TextMethod(xmlEERevokeCertReq,
                    [&](Text* r) { return control_.genEERevokeCertRequestData(r); });
}

STDMETHODIMP KorvantaObject::genEEUpdateCertRequestData(BSTR* xmlEEUpdateCertReq) {
  return TextMethod(xmlEEUpdateCertReq,
                    [&](Text* r) { return control_.genEEUpdateCertRequestData(r); });
}

STDMETHODIMP KorvantaObject::getPublicKeyFromPKCS10Data(BSTR p10Base64Data, BSTR* p1Base64Der) {
  return TextMethod(p1Base64Der, [&](Text* r) {
    return control_.getPublicKeyFromPKCS10Data(In(p10Base64Data), r);
  });
}

STDMETHODIMP KorvantaObject::genEERestoreKHRequestData(BSTR* retXmlData) {
  return TextMethod(retXmlData, [&](Text* r) { return control_.genEERestoreKHRequestData(r); });
}

STDMETHODIMP KorvantaObject::writeKmcCertwithKH(BSTR p7Certs, BSTR EncPrikey, BSTR TempUKEK,
                                                BSTR keyHistory, int* ret) {
  return RetMethod(ret, [&](Ret* r) {
    return control_.writeKmcCertwithKH(In(p7Certs), In(EncPrikey), In(TempUKEK), In(keyHistory), r);
  });
}

STDMETHODIMP KorvantaObject::writeKH(BSTR keyHistory, int* ret) {
  return RetMethod(ret, [&](Ret* r) { return control_.writeKH(In(keyHistory), r); });
}

STDMETHODIMP KorvantaObject::writeClientCertToPFX(BSTR p7Certs, BSTR passwd, BSTR* retPfx) {
  return TextMethod(
      retPfx, [&](Text* r) { return control_.writeClientCertToPFX(In(p7Certs), In(passwd), r); });
}

STDMETHODIMP KorvantaObject::writeKmcCertToPFX(BSTR p7Certs, BSTR EncPrikey, BSTR TempUKEK,
                                               BSTR passwd, BSTR* retPfx) {
  return TextMethod(retPfx, [&](Text* r) {
    return control_.writeKmcCertToPFX(In(p7Certs), In(EncPrikey), In(TempUKEK), In(passwd), r);
  });
}

STDMETHODIMP KorvantaObject::genP10(int keySize, BSTR* bstrP10DerBase64Pubkey) {
  return TextMethod(bstrP10DerBase64Pubkey, [&](Text* r) { return control_.genP10(keySize, r); });
}

STDMETHODIMP KorvantaObject::genEEUpdateCertRequestData_Client(BSTR P10Str,
                                                               BSTR* xmlEEUpdateCertReq) {
  return TextMethod(xmlEEUpdateCertReq, [&](Text* r) {
    return control_.genEEUpdateCertRequestData_Client(In(P10Str), r);
  });
}

STDMETHODIMP KorvantaObject::genEEUpdateCertRequestData_Kmc(BSTR tmppubkey, BSTR keyLength,
                                                            BSTR* xmlEEUpdateCertReq) {
  return TextMethod(xmlEEUpdateCertReq, [&](Text* r) {
    return control_.genEEUpdateCertRequestData_Kmc(In(tmppubkey), In(keyLength), r);
  });
}

STDMETHODIMP KorvantaObject::restoreKmcCert(BSTR p7Certs, BSTR EncPrikey, BSTR TempUKEK, int* ret) {
  return RetMethod(ret, [&](Ret* r) {
    return control_.restoreKmcCert(In(p7Certs), In(EncPrikey), In(TempUKEK), r);
  });
}

STDMETHODIMP KorvantaObject::genP10_kex(int keySize, BSTR* bstrP10DerBase64Pubkey) {
  return TextMethod(bstrP10DerBase64Pubkey,
                    [&](Text* r) { return control_.genP10_kex(keySize, r); });
}

STDMETHODIMP KorvantaObject::writeClientCert_kex(BSTR p7Certs, int* ret) {
  return RetMethod(ret, [&](Ret* r) { return control_.writeClientCert_kex(In(p7Certs), r); });
}

STDMETHODIMP KorvantaObject::genP10_exp(int keySize, int keyExportable,
                                        BSTR* bstrP10DerBase64Pubkey) {
  return TextMethod(bstrP10DerBase64Pubkey,
                    [&](Text* r) { return control_.genP10_exp(keySize, keyExportable, r); });
}

STDMETHODIMP KorvantaObject::writeClientCert_exp(BSTR p7Certs, int* ret) {
  return RetMethod(ret, [&](Ret* r) { return control_.writeClientCert_exp(In(p7Certs), r); });
}

STDMETHODIMP KorvantaObject::writeClientCert_noprotect(BSTR p7Certs, int* ret) {
  return RetMethod(ret, [&](Ret* r) { return control_.writeClientCert_noprotect(In(p7Certs), r); });
}

STDMETHODIMP KorvantaObject::genP10_exp_withdn(int keySize, int keyExportable, BSTR bstrCertDN,
                                               BSTR* bstrP10Bse64Pack) {
  return TextMethod(bstrP10Bse64Pack, [&](Text* r) {
    return control_.genP10_exp_withdn(keySize, keyExportable, In(bstrCertDN), r);
  });
}

STDMETHODIMP KorvantaObject::writeClientCert_exp_X509(BSTR p7Certs, int* ret) {
  return RetMethod(ret, [&](Ret* r) { return control_.writeClientCert_exp_X509(In(p7Certs), r); });
}

STDMETHODIMP KorvantaObject::leavingMostRecentCert(BSTR UserDN, BSTR IssuerDN, LONG* ret) {
  return RetMethod(
      ret, [&](Ret* r) { return control_.leavingMostRecentCert(In(UserDN), In(IssuerDN), r); });
}

}  // namespace kv::control::com
