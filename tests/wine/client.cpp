// A C++ client of korvanta.dll, run under Wine by tests/wine/run.sh. It
// reaches the control the way a host does, through COM, and checks what a
// script cannot see: the status codes (the methods' HRESULTs), the vtable
// order against the type library, aggregation, object safety and the control
// traits. CryptoAPI itself is the oracle for keys the control made.
//
//   wine_client acp                     prints the ANSI code page
//   wine_client typelib METHODS.TXT     the type library against the table
//   wine_client identity DLL            creation, aggregation, safety, IDispatch
//   wine_client statuses                status codes of the 29 methods
//   wine_client traits                  in-place activation and the other traits
//
// Each prints "FAIL <what>" per failed check and ends with
// "<section>: N checks, M failed"; the exit code is 0 only without failures.
#include <windows.h>
// windows.h first.
#ifndef _MSC_VER
#include <initguid.h>  // widl's header then defines the identifiers
#endif
#include <objsafe.h>
#include <ocidl.h>
#include <ole2.h>
#include <wincrypt.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "control/win32/com/korvanta_h.h"

namespace {

int g_checks = 0;
int g_failed = 0;

std::string Utf8(const std::wstring& w) {
  if (w.empty()) return std::string();
  int n = WideCharToMultiByte(CP_UTF8, 0, w.data(), static_cast<int>(w.size()), nullptr, 0, nullptr,
                              nullptr);
  std::string out(static_cast<size_t>(n), '\0');
  WideCharToMultiByte(CP_UTF8, 0, w.data(), static_cast<int>(w.size()), &out[0], n, nullptr,
                      nullptr);
  return out;
}

std::wstring FromCodePage(UINT cp, const std::string& s) {
  if (s.empty()) return std::wstring();
  int n = MultiByteToWideChar(cp, 0, s.data(), static_cast<int>(s.size()), nullptr, 0);
  std::wstring out(static_cast<size_t>(n), L'\0');
  MultiByteToWideChar(cp, 0, s.data(), static_cast<int>(s.size()), &out[0], n);
  return out;
}

std::string ToCodePage(UINT cp, const std::wstring& w) {
  if (w.empty()) return std::string();
  int n = WideCharToMultiByte(cp, 0, w.data(), static_cast<int>(w.size()), nullptr, 0, nullptr,
                              nullptr);
  std::string out(static_cast<size_t>(n), '\0');
  WideCharToMultiByte(cp, 0, w.data(), static_cast<int>(w.size()), &out[0], n, nullptr, nullptr);
  return out;
}

void Check(bool ok, const std::string& what) {
  ++g_checks;
  if (!ok) {
    ++g_failed;
    std::printf("FAIL %s\n", what.c_str());
  }
}

template <typename A, typename B>
void Equal(const A& got, const B& want, const std::string& what) {
  std::ostringstream s;
  s << what << ": got " << got << ", want " << want;
  Check(got == static_cast<A>(want), s.str());
}

std::string Hex(HRESULT hr) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%08lX", static_cast<unsigned long>(hr));
  return buf;
}

// A BSTR owned here.
class Bstr {
 public:
  Bstr() = default;
  explicit Bstr(const wchar_t* s) : b_(SysAllocString(s)) {}
  ~Bstr() { SysFreeString(b_); }
  Bstr(const Bstr&) = delete;
  Bstr& operator=(const Bstr&) = delete;
  BSTR* out() {
    SysFreeString(b_);
    b_ = nullptr;
    return &b_;
  }
  BSTR get() const { return b_; }
  bool null() const { return b_ == nullptr; }
  std::wstring text() const { return b_ ? std::wstring(b_, SysStringLen(b_)) : std::wstring(); }

 private:
  BSTR b_ = nullptr;
};

template <typename T>
class Ptr {
 public:
  Ptr() = default;
  ~Ptr() {
    if (p_) p_->Release();
  }
  Ptr(const Ptr&) = delete;
  Ptr& operator=(const Ptr&) = delete;
  T** out() {
    if (p_) p_->Release();
    p_ = nullptr;
    return &p_;
  }
  void** vout() { return reinterpret_cast<void**>(out()); }
  T* operator->() const { return p_; }
  T* get() const { return p_; }
  explicit operator bool() const { return p_ != nullptr; }

 private:
  T* p_ = nullptr;
};

HRESULT CreateControl(IBrendalKorvanta** out) {
  return CoCreateInstance(CLSID_BrendalKorvanta, nullptr, CLSCTX_INPROC_SERVER,
                          IID_IBrendalKorvanta, reinterpret_cast<void**>(out));
}

std::vector<std::string> Split(const std::string& s, char sep) {
  std::vector<std::string> out;
  std::string cur;
  for (char c : s) {
    if (c == sep) {
      out.push_back(cur);
      cur.clear();
    } else {
      cur += c;
    }
  }
  out.push_back(cur);
  return out;
}

// ---- typelib ----

struct MethodRow {
  int id = 0;
  std::wstring name;
  std::wstring help;
  std::vector<std::wstring> params;
  std::string retval;
};

std::vector<MethodRow> ReadMethods(const char* path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<MethodRow> rows;
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() || line[0] == '#') continue;
    auto f = Split(line, '|');
    if (f.size() != 5) continue;
    MethodRow r;
    r.id = std::atoi(f[0].c_str());
    r.name = FromCodePage(CP_UTF8, f[1]);
    r.help = FromCodePage(CP_UTF8, f[2]);
    for (const auto& p : Split(f[3], ',')) r.params.push_back(FromCodePage(CP_UTF8, p));
    r.retval = f[4];
    rows.push_back(r);
  }
  return rows;
}

const char* VtName(VARTYPE vt) {
  switch (vt) {
    case VT_BSTR:
      return "BSTR";
    case VT_INT:
      return "INT";
    case VT_I4:
      return "I4";
    default:
      return "?";
  }
}

void TypeLibSection(const char* methodsFile) {
  std::vector<MethodRow> rows = ReadMethods(methodsFile);
  Equal(rows.size(), 29u, "rows in the methods table");

  Ptr<ITypeLib> lib;
  HRESULT hr = LoadRegTypeLib(LIBID_KORVANTALib, 1, 0, LOCALE_NEUTRAL, lib.out());
  Check(SUCCEEDED(hr), "LoadRegTypeLib " + Hex(hr));
  if (!lib) return;
  Bstr libName;
  lib->GetDocumentation(-1, libName.out(), nullptr, nullptr, nullptr);
  Equal(Utf8(libName.text()), "KORVANTALib", "library name");

  Ptr<ITypeInfo> cls;
  hr = lib->GetTypeInfoOfGuid(CLSID_BrendalKorvanta, cls.out());
  Check(SUCCEEDED(hr), "coclass type info " + Hex(hr));
  if (cls) {
    Bstr name, doc;
    cls->GetDocumentation(MEMBERID_NIL, name.out(), doc.out(), nullptr, nullptr);
    Equal(Utf8(name.text()), "BrendalKorvanta", "coclass name");
    Equal(Utf8(doc.text()), "BrendalKorvanta Class", "coclass help string");
  }

  Ptr<ITypeInfo> info;
  hr = lib->GetTypeInfoOfGuid(IID_IBrendalKorvanta, info.out());
  Check(SUCCEEDED(hr), "interface type info " + Hex(hr));
  if (!info) return;
  {
    Bstr name, doc;
    info->GetDocumentation(MEMBERID_NIL, name.out(), doc.out(), nullptr, nullptr);
    Equal(Utf8(name.text()), "IBrendalKorvanta", "interface name");
    Equal(Utf8(doc.text()), "IBrendalKorvanta Interface", "interface help string");
  }
  TYPEATTR* attr = nullptr;
  info->GetTypeAttr(&attr);
  if (!attr) return;
  Check((attr->wTypeFlags & TYPEFLAG_FDUAL) != 0, "interface is dual");
  info->ReleaseTypeAttr(attr);
  // The vtable side of the dual interface.
  HREFTYPE href = 0;
  Ptr<ITypeInfo> vtbl;
  if (FAILED(info->GetRefTypeOfImplType(-1, &href)) ||
      FAILED(info->GetRefTypeInfo(href, vtbl.out()))) {
    Check(false, "the dual interface's vtable type info");
    return;
  }
  vtbl->GetTypeAttr(&attr);
  if (!attr) return;
  Equal(attr->typekind, TKIND_INTERFACE, "vtable type kind");
  Equal(attr->cFuncs, 29, "methods in the interface");
  vtbl->ReleaseTypeAttr(attr);

  // The help strings are 8-bit text in the type library, read in the ANSI
  // code page: what was stored as GB2312 must come back as GB2312 read in
  // this code page (the exact Unicode text on a Chinese system).
  const bool chinese = GetACP() == 936;
  // The functions in the type library's own order, by dispatch id.
  std::vector<UINT> indexOf(30, UINT(-1));
  for (UINT i = 0; i < 29; ++i) {
    FUNCDESC* fd = nullptr;
    if (FAILED(vtbl->GetFuncDesc(i, &fd))) continue;
    if (fd->memid >= 1 && fd->memid <= 29) indexOf[static_cast<size_t>(fd->memid)] = i;
    vtbl->ReleaseFuncDesc(fd);
  }
  for (const MethodRow& row : rows) {
    const std::string tag = "method " + std::to_string(row.id) + " ";
    FUNCDESC* fd = nullptr;
    const UINT index = row.id >= 1 && row.id <= 29 ? indexOf[static_cast<size_t>(row.id)] : ~0u;
    if (index == ~0u || FAILED(vtbl->GetFuncDesc(index, &fd))) {
      Check(false, tag + "no function with that dispatch id");
      continue;
    }
    // Vtable order is dispatch order, after the seven slots of IUnknown and
    // IDispatch.
    Equal(fd->oVft, static_cast<SHORT>((6 + row.id) * sizeof(void*)), tag + "vtable offset");
    Equal(fd->invkind, INVOKE_FUNC, tag + "invoke kind");
    Equal(fd->elemdescFunc.tdesc.vt, VT_HRESULT, tag + "returns HRESULT");
    std::vector<BSTR> names(static_cast<size_t>(fd->cParams) + 1, nullptr);
    UINT got = 0;
    vtbl->GetNames(fd->memid, names.data(), static_cast<UINT>(names.size()), &got);
    Equal(got, row.params.size() + 1, tag + "names");
    Equal(Utf8(names[0] ? names[0] : L""), Utf8(row.name), tag + "name");
    for (UINT k = 1; k < got && k - 1 < row.params.size(); ++k) {
      Equal(Utf8(names[k]), Utf8(row.params[k - 1]), tag + "parameter " + std::to_string(k));
    }
    for (BSTR b : names) SysFreeString(b);
    // The [out, retval] parameter and its type.
    if (row.retval == "-") {
      Check(fd->cParams == 0 ||
                !(fd->lprgelemdescParam[fd->cParams - 1].paramdesc.wParamFlags & PARAMFLAG_FRETVAL),
            tag + "has no retval");
    } else if (fd->cParams > 0) {
      const ELEMDESC& last = fd->lprgelemdescParam[fd->cParams - 1];
      Check((last.paramdesc.wParamFlags & (PARAMFLAG_FOUT | PARAMFLAG_FRETVAL)) ==
                (PARAMFLAG_FOUT | PARAMFLAG_FRETVAL),
            tag + "last parameter is [out, retval]");
      const bool ptr = last.tdesc.vt == VT_PTR && last.tdesc.lptdesc;
      Equal(std::string(ptr ? VtName(last.tdesc.lptdesc->vt) : "?"), row.retval,
            tag + "retval type");
    }
    Bstr doc;
    vtbl->GetDocumentation(fd->memid, nullptr, doc.out(), nullptr, nullptr);
    const std::wstring stored = FromCodePage(CP_ACP, ToCodePage(936, row.help));
    Equal(Utf8(doc.text()), Utf8(stored), tag + "help string");
    if (chinese) Equal(Utf8(doc.text()), Utf8(row.help), tag + "help string in code page 936");
    vtbl->ReleaseFuncDesc(fd);
  }
}

// ---- identity: creation, aggregation, safety, IDispatch ----

// {9A3F1B40-5C55-4E1B-9C1F-3E5C2B7A0D11}: an interface only the outer
// object answers.
const IID IID_IOuterOnly = {
    0x9a3f1b40, 0x5c55, 0x4e1b, {0x9c, 0x1f, 0x3e, 0x5c, 0x2b, 0x7a, 0x0d, 0x11}};

class Outer : public IUnknown {
 public:
  STDMETHODIMP QueryInterface(REFIID riid, void** out) override {
    ++queries;
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IOuterOnly)) {
      *out = this;
      AddRef();
      return S_OK;
    }
    if (inner) return inner->QueryInterface(riid, out);
    *out = nullptr;
    return E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++refs); }
  STDMETHODIMP_(ULONG) Release() override { return static_cast<ULONG>(--refs); }
  IUnknown* inner = nullptr;
  long refs = 1;
  int queries = 0;
};

void IdentitySection(const char* dllPath) {
  // The class is reachable by ProgID as a page names it.
  CLSID byProgId{};
  HRESULT hr = CLSIDFromProgID(L"Korvanta.BrendalKorvanta", &byProgId);
  Check(SUCCEEDED(hr) && IsEqualCLSID(byProgId, CLSID_BrendalKorvanta),
        "CLSIDFromProgID(Korvanta.BrendalKorvanta)");
  hr = CLSIDFromProgID(L"Korvanta.BrendalKorvanta.1", &byProgId);
  Check(SUCCEEDED(hr) && IsEqualCLSID(byProgId, CLSID_BrendalKorvanta),
        "CLSIDFromProgID(Korvanta.BrendalKorvanta.1)");

  HMODULE dll = LoadLibraryA(dllPath);
  Check(dll != nullptr, "LoadLibrary of the module");
  using CanUnload = HRESULT(WINAPI*)();
  auto canUnload = dll ? reinterpret_cast<CanUnload>(
                             reinterpret_cast<void*>(GetProcAddress(dll, "DllCanUnloadNow")))
                       : nullptr;
  Check(canUnload != nullptr, "DllCanUnloadNow exported");

  // Aggregation: the inner object's interfaces delegate to the outer one.
  {
    Outer outer;
    IUnknown* refused = nullptr;
    hr = CoCreateInstance(CLSID_BrendalKorvanta, &outer, CLSCTX_INPROC_SERVER, IID_IBrendalKorvanta,
                          reinterpret_cast<void**>(&refused));
    Equal(Hex(hr), Hex(CLASS_E_NOAGGREGATION), "aggregate asking for another than IUnknown");
    hr = CoCreateInstance(CLSID_BrendalKorvanta, &outer, CLSCTX_INPROC_SERVER, IID_IUnknown,
                          reinterpret_cast<void**>(&outer.inner));
    Check(SUCCEEDED(hr) && outer.inner, "created inside an aggregate " + Hex(hr));
    if (outer.inner) {
      if (canUnload) Equal(Hex(canUnload()), Hex(S_FALSE), "DllCanUnloadNow with an object");
      IBrendalKorvanta* k = nullptr;
      hr = outer.inner->QueryInterface(IID_IBrendalKorvanta, reinterpret_cast<void**>(&k));
      Check(SUCCEEDED(hr) && k, "inner gives IBrendalKorvanta");
      if (k) {
        // Reference counts and queries of the inner interfaces go to the
        // outer object.
        long before = outer.refs;
        k->AddRef();
        Equal(outer.refs, before + 1, "AddRef through the inner interface reaches the outer");
        k->Release();
        IUnknown* viaInner = nullptr;
        int queries = outer.queries;
        hr = k->QueryInterface(IID_IOuterOnly, reinterpret_cast<void**>(&viaInner));
        Check(SUCCEEDED(hr) && viaInner == &outer, "QueryInterface delegates to the outer");
        Check(outer.queries > queries, "the outer saw the query");
        if (viaInner) viaInner->Release();
        IUnknown* identity = nullptr;
        k->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&identity));
        Check(identity == &outer, "IUnknown of an inner interface is the outer");
        if (identity) identity->Release();
        Bstr version;
        hr = k->getVersion(version.out());
        Equal(Utf8(version.text()), "Version:2.5.26.1 Build:201406041650",
              "getVersion inside an aggregate");
        k->Release();
      }
      outer.inner->Release();
      outer.inner = nullptr;
    }
    Equal(outer.refs, 1L, "outer references balanced");
  }
  if (canUnload) Equal(Hex(canUnload()), Hex(S_OK), "DllCanUnloadNow after the last object");

  Ptr<IBrendalKorvanta> k;
  hr = CreateControl(k.out());
  Check(SUCCEEDED(hr), "CoCreateInstance " + Hex(hr));
  if (!k) return;

  // Object safety: mask 3 supported, nothing enabled until asked.
  Ptr<IObjectSafety> safety;
  hr = k->QueryInterface(IID_IObjectSafety, safety.vout());
  Check(SUCCEEDED(hr), "IObjectSafety");
  if (safety) {
    for (const IID* iid : {&IID_IDispatch, &IID_IBrendalKorvanta, &IID_IPersistStreamInit}) {
      DWORD supported = 0, enabled = 0;
      hr = safety->GetInterfaceSafetyOptions(*iid, &supported, &enabled);
      Check(SUCCEEDED(hr), "GetInterfaceSafetyOptions " + Hex(hr));
      Equal(supported, 3ul, "supported safety options");
      Equal(enabled, 0ul, "enabled safety options before any set");
    }
    Equal(Hex(safety->SetInterfaceSafetyOptions(IID_IDispatch, 3, 3)), Hex(S_OK),
          "accepts safe for scripting and initialisation");
    DWORD supported = 0, enabled = 0;
    safety->GetInterfaceSafetyOptions(IID_IDispatch, &supported, &enabled);
    Equal(enabled, 3ul, "enabled after the set");
    Equal(Hex(safety->SetInterfaceSafetyOptions(IID_IDispatch, 1, 0)), Hex(S_OK), "clear one");
    safety->GetInterfaceSafetyOptions(IID_IDispatch, &supported, &enabled);
    Equal(enabled, 2ul, "only the masked option cleared");
    Check(FAILED(safety->SetInterfaceSafetyOptions(IID_IDispatch, 4, 4)),
          "refuses an option it does not support");
    Equal(Hex(safety->GetInterfaceSafetyOptions(IID_IOuterOnly, &supported, &enabled)),
          Hex(E_NOINTERFACE), "safety of an interface it does not have");
  }

  // IDispatch through the type library: names are case-insensitive, a
  // positive status reaches the script as success with its result.
  Ptr<IDispatch> disp;
  k->QueryInterface(IID_IDispatch, disp.vout());
  Check(bool(disp), "IDispatch");
  if (!disp) return;
  UINT count = 0;
  disp->GetTypeInfoCount(&count);
  Equal(count, 1u, "GetTypeInfoCount");
  const wchar_t* names[] = {L"genKeyPair", L"GENKEYPAIR", L"leavingMostRecentCert", L"nosuch"};
  const DISPID want[] = {3, 3, 29, DISPID_UNKNOWN};
  for (int i = 0; i < 4; ++i) {
    DISPID id = 0;
    LPOLESTR name = const_cast<LPOLESTR>(names[i]);
    hr = disp->GetIDsOfNames(IID_NULL, &name, 1, LOCALE_USER_DEFAULT, &id);
    Equal(id, want[i], "dispatch id of " + Utf8(names[i]));
    if (i == 3) Equal(Hex(hr), Hex(DISP_E_UNKNOWNNAME), "unknown name");
  }
  {
    VARIANT arg;
    VariantInit(&arg);
    V_VT(&arg) = VT_I4;
    V_I4(&arg) = -1;
    DISPPARAMS params{&arg, nullptr, 1, 0};
    VARIANT result;
    VariantInit(&result);
    EXCEPINFO ex{};
    hr = disp->Invoke(1, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params, &result, &ex,
                      nullptr);
    Check(SUCCEEDED(hr), "Invoke listCSP(-1) succeeds for the script " + Hex(hr));
    Check(V_VT(&result) == VT_BSTR && SysStringLen(V_BSTR(&result)) == 0,
          "Invoke listCSP(-1) gives the empty string");
    VariantClear(&result);
    hr = disp->Invoke(5, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params, &result, &ex,
                      nullptr);
    Equal(Hex(hr), Hex(DISP_E_BADPARAMCOUNT), "Invoke getVersion with an argument");
    DISPPARAMS none{nullptr, nullptr, 0, 0};
    hr = disp->Invoke(5, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &none, &result, &ex,
                      nullptr);
    Check(SUCCEEDED(hr) && V_VT(&result) == VT_BSTR, "Invoke getVersion");
    if (V_VT(&result) == VT_BSTR) {
      Equal(Utf8(V_BSTR(&result)), "Version:2.5.26.1 Build:201406041650", "getVersion result");
    }
    VariantClear(&result);
  }
  Ptr<IProvideClassInfo> classInfo;
  k->QueryInterface(IID_IProvideClassInfo, classInfo.vout());
  if (classInfo) {
    Ptr<ITypeInfo> ti;
    classInfo->GetClassInfo(ti.out());
    TYPEATTR* attr = nullptr;
    if (ti) ti->GetTypeAttr(&attr);
    Check(attr && IsEqualGUID(attr->guid, CLSID_BrendalKorvanta), "IProvideClassInfo");
    if (attr) ti->ReleaseTypeAttr(attr);
  }
  if (dll) FreeLibrary(dll);
}

// ---- statuses: the codes of the 29 methods ----

// The container-name file, read as the control writes it.
std::string ContainerFile() {
  char drive[1024] = {}, path[1024] = {};
  ExpandEnvironmentStringsA("%HOMEDRIVE%", drive, sizeof drive);
  ExpandEnvironmentStringsA("%HOMEPATH%", path, sizeof path);
  std::ifstream in(std::string(drive) + path + "\\velmoraContianer.data", std::ios::binary);
  if (!in) return "<none>";
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<BYTE> FromBase64(const std::wstring& text) {
  DWORD len = 0;
  if (!CryptStringToBinaryW(text.c_str(), static_cast<DWORD>(text.size()), CRYPT_STRING_BASE64,
                            nullptr, &len, nullptr, nullptr)) {
    return {};
  }
  std::vector<BYTE> out(len);
  CryptStringToBinaryW(text.c_str(), static_cast<DWORD>(text.size()), CRYPT_STRING_BASE64,
                       out.data(), &len, nullptr, nullptr);
  out.resize(len);
  return out;
}

// A public-key blob without its 8-octet header, whose algorithm field
// differs between signature and exchange keys: RSAPUBKEY and modulus.
std::vector<BYTE> KeyPart(const std::vector<BYTE>& blob) {
  if (blob.size() <= 8) return {};
  return std::vector<BYTE>(blob.begin() + 8, blob.end());
}

// The key of a PKCS#1 RSAPublicKey as CryptoAPI decodes it.
std::vector<BYTE> BlobOfPkcs1(const std::vector<BYTE>& der) {
  DWORD len = 0;
  if (der.empty() ||
      !CryptDecodeObjectEx(X509_ASN_ENCODING, RSA_CSP_PUBLICKEYBLOB, der.data(),
                           static_cast<DWORD>(der.size()), 0, nullptr, nullptr, &len)) {
    return {};
  }
  std::vector<BYTE> blob(len);
  CryptDecodeObjectEx(X509_ASN_ENCODING, RSA_CSP_PUBLICKEYBLOB, der.data(),
                      static_cast<DWORD>(der.size()), 0, nullptr, blob.data(), &len);
  blob.resize(len);
  return KeyPart(blob);
}

// The public-key blob of a container's key, straight from the provider.
std::vector<BYTE> BlobOfContainer(const std::string& container, const char* provider, DWORD spec) {
  HCRYPTPROV prov = 0;
  if (!CryptAcquireContextA(&prov, container.c_str(), provider, PROV_RSA_FULL, 0)) return {};
  std::vector<BYTE> blob;
  HCRYPTKEY key = 0;
  if (CryptGetUserKey(prov, spec, &key)) {
    DWORD len = 0;
    CryptExportKey(key, 0, PUBLICKEYBLOB, 0, nullptr, &len);
    blob.resize(len);
    if (!CryptExportKey(key, 0, PUBLICKEYBLOB, 0, blob.data(), &len)) blob.clear();
    CryptDestroyKey(key);
  }
  CryptReleaseContext(prov, 0);
  return KeyPart(blob);
}

bool ContainerExists(const std::string& container, const char* provider) {
  HCRYPTPROV prov = 0;
  if (!CryptAcquireContextA(&prov, container.c_str(), provider, PROV_RSA_FULL, 0)) return false;
  CryptReleaseContext(prov, 0);
  return true;
}

// The RSA full providers in the platform's order.
std::vector<std::wstring> RsaFullProviders() {
  std::vector<std::wstring> out;
  for (DWORD i = 0;; ++i) {
    DWORD type = 0, len = 0;
    if (!CryptEnumProvidersW(i, nullptr, 0, &type, nullptr, &len)) break;
    std::wstring name(len / sizeof(wchar_t), L'\0');
    if (!CryptEnumProvidersW(i, nullptr, 0, &type, &name[0], &len)) break;
    name.resize(wcslen(name.c_str()));
    if (type == PROV_RSA_FULL) out.push_back(name);
  }
  return out;
}

const char kEnhanced[] = "Microsoft Enhanced Cryptographic Provider v1.0";

void StatusesSection() {
  Ptr<IBrendalKorvanta> k;
  HRESULT hr = CreateControl(k.out());
  Check(SUCCEEDED(hr), "CoCreateInstance " + Hex(hr));
  if (!k) return;
  // The "DS" messages sign with the configured chooser; a thumbprint that
  // matches no certificate is a user who cancels.
  HKEY key = nullptr;
  RegCreateKeyExA(HKEY_CURRENT_USER, "Software\\Korvanta", 0, nullptr, 0, KEY_WRITE, nullptr, &key,
                  nullptr);
  const char none[] = "0000000000000000000000000000000000000000";
  RegSetValueExA(key, "SigningCertificate", 0, REG_SZ, reinterpret_cast<const BYTE*>(none),
                 sizeof none);
  RegCloseKey(key);

  // 1 listCSP: the RSA full providers in enumeration order, DSS ones left out.
  {
    Bstr name;
    Equal(k->listCSP(-1, name.out()), 22018102, "listCSP(-1)");
    Check(!name.null() && name.text().empty(), "listCSP(-1) gives the empty string");
    std::vector<std::wstring> want = RsaFullProviders();
    Check(want.size() >= 2, "the platform has RSA full providers");
    size_t i = 0;
    for (; i < want.size(); ++i) {
      Equal(k->listCSP(static_cast<int>(i), name.out()), 0, "listCSP status");
      Equal(Utf8(name.text()), Utf8(want[i]), "listCSP(" + std::to_string(i) + ")");
    }
    Equal(k->listCSP(static_cast<int>(i), name.out()), 0, "listCSP past the end");
    Check(name.null(), "listCSP past the end gives a null string");
  }
  // 5 getVersion
  {
    Bstr v;
    Equal(k->getVersion(v.out()), 0, "getVersion status");
    Equal(Utf8(v.text()), "Version:2.5.26.1 Build:201406041650", "getVersion");
  }
  // 6 7 21: installs before any key or provider.
  {
    Bstr blank(L"");
    int ret = -1;
    Equal(k->writeClientCert(blank.get(), &ret), 0, "writeClientCert status");
    Equal(ret, 22038309, "writeClientCert without a container file");
    ret = -1;
    Equal(k->writeKmcCert(blank.get(), blank.get(), blank.get(), &ret), 0, "writeKmcCert status");
    Equal(ret, 22078201, "writeKmcCert without a provider");
    ret = -1;
    Equal(k->restoreKmcCert(blank.get(), blank.get(), blank.get(), &ret), 0,
          "restoreKmcCert status");
    Equal(ret, 22078201, "restoreKmcCert without a provider");
  }
  // 2 setCSP and 3 genKeyPair without a provider.
  {
    Bstr empty(L""), out;
    Equal(k->setCSP(empty.get()), 22028201, "setCSP(\"\")");
    Equal(k->genKeyPair(1024, out.out()), 22038201, "genKeyPair without a provider");
    Check(!out.null() && out.text().empty(), "genKeyPair failure gives the empty string");
    // The name is saved before the provider is checked.
    Equal(ContainerFile().size(), 36u, "container file after genKeyPair without a provider");
  }
  Bstr enhanced(FromCodePage(CP_ACP, kEnhanced).c_str());
  Equal(k->setCSP(enhanced.get()), 0, "setCSP(Enhanced)");
  // 3 genKeyPair: a bad size still replaces the container file's name.
  {
    Bstr out;
    Equal(k->genKeyPair(768, out.out()), 22038202, "genKeyPair(768)");
    std::string file = ContainerFile();
    Equal(file.size(), 36u, "container file after genKeyPair(768)");
    Check(!ContainerExists(file, kEnhanced), "no container made for a bad key size");
    Equal(k->genKeyPair(1024, out.out()), 0, "genKeyPair(1024)");
    file = ContainerFile();
    Equal(file.size(), 36u, "container file after genKeyPair(1024)");
    Check(file.size() == 36 && file[14] >= '0' &&
              (file[14] <= '9' || (file[14] >= 'a' && file[14] <= 'f')) && file[8] == '-',
          "container name is GUID text with its third group in lower case: " + file);
    std::vector<BYTE> fromControl = BlobOfPkcs1(FromBase64(out.text()));
    std::vector<BYTE> fromProvider = BlobOfContainer(file, kEnhanced, AT_SIGNATURE);
    Check(!fromControl.empty() && fromControl == fromProvider,
          "genKeyPair's public key is the container's signature key");
  }
  // 4 genTempKeyPair twice: two different keys, the second in the container.
  {
    Bstr first, second;
    Equal(k->genTempKeyPair(first.out()), 0, "genTempKeyPair");
    Equal(k->genTempKeyPair(second.out()), 0, "genTempKeyPair again");
    Check(first.text() != second.text(), "genTempKeyPair makes a new key each time");
    std::vector<BYTE> blob = BlobOfPkcs1(FromBase64(second.text()));
    Check(!blob.empty() &&
              blob == BlobOfContainer("BrendalTmpContainer",
                                      "Microsoft Base Cryptographic Provider v1.0", AT_SIGNATURE),
          "the temporary key is in BrendalTmpContainer");
    // 2048 bits: RSAPUBKEY (12) + modulus (256).
    Equal(blob.size(), 268u, "temporary key is 2048 bits");
  }
  // 18 22 24 27: the request family reports in genKeyPair's block.
  {
    Bstr out, dn(L"CN=Korvanta Test,C=CN");
    Equal(k->genP10(768, out.out()), 22038202, "genP10(768)");
    Equal(k->genP10_kex(768, out.out()), 22038202, "genP10_kex(768)");
    Equal(k->genP10_exp(768, 1, out.out()), 22038202, "genP10_exp(768)");
    Equal(k->genP10_exp_withdn(768, 1, dn.get(), out.out()), 22038202, "genP10_exp_withdn(768)");
    Equal(k->genP10_exp(1024, 1, out.out()), 0, "genP10_exp(1024, 1)");
    std::string file = ContainerFile();
    Check(file.size() == 37 && file[36] == '1', "container file after genP10_exp ends in 1");
    // 12: the request's key is the container's key, and the request is
    // signed by it.
    Bstr p1;
    Equal(k->getPublicKeyFromPKCS10Data(out.get(), p1.out()), 0, "getPublicKeyFromPKCS10Data");
    Check(!BlobOfPkcs1(FromBase64(p1.text())).empty() &&
              BlobOfPkcs1(FromBase64(p1.text())) ==
                  BlobOfContainer(file.substr(0, 36), kEnhanced, AT_SIGNATURE),
          "the request carries the container's key");
    std::vector<BYTE> p10 = FromBase64(out.text());
    CERT_PUBLIC_KEY_INFO* spki = nullptr;
    DWORD spkiLen = 0;
    std::vector<BYTE> p1der = FromBase64(p1.text());
    HCRYPTPROV prov = 0;
    bool verified = false;
    if (CryptAcquireContextA(&prov, file.substr(0, 36).c_str(), kEnhanced, PROV_RSA_FULL, 0)) {
      CryptExportPublicKeyInfo(prov, AT_SIGNATURE, X509_ASN_ENCODING, nullptr, &spkiLen);
      std::vector<BYTE> buf(spkiLen);
      spki = reinterpret_cast<CERT_PUBLIC_KEY_INFO*>(buf.data());
      if (CryptExportPublicKeyInfo(prov, AT_SIGNATURE, X509_ASN_ENCODING, spki, &spkiLen)) {
        verified = CryptVerifyCertificateSignature(0, X509_ASN_ENCODING, p10.data(),
                                                   static_cast<DWORD>(p10.size()), spki) != 0;
      }
      CryptReleaseContext(prov, 0);
    }
    Check(verified, "CryptoAPI verifies the request's signature with the container's key");
    Equal(k->genP10_exp(1024, 0, out.out()), 0, "genP10_exp(1024, 0)");
    file = ContainerFile();
    Check(file.size() == 37 && file[36] == '0', "container file after genP10_exp(.., 0)");
    Bstr blank(L"");
    Equal(k->getPublicKeyFromPKCS10Data(blank.get(), p1.out()), 22128211,
          "getPublicKeyFromPKCS10Data(\"\")");
    Check(p1.null(), "getPublicKeyFromPKCS10Data failure leaves the result null");
  }
  // 8 9 20: the MAC messages check their arguments.
  {
    Bstr blank(L""), ref(L"R1"), code(L"A1"), key(L"AAAA"), bad(L"768"), good(L"1024"), out;
    Equal(k->genEEDownCertRequestData_Client(blank.get(), code.get(), key.get(), out.out()),
          22088208, "genEEDownCertRequestData_Client without refNo");
    Check(out.null(), "a failed message leaves the result null");
    Equal(k->genEEDownCertRequestData_Client(ref.get(), blank.get(), key.get(), out.out()),
          22088209, "genEEDownCertRequestData_Client without AuthCode");
    Equal(k->genEEDownCertRequestData_Kmc(ref.get(), code.get(), key.get(), bad.get(), out.out()),
          22098217, "genEEDownCertRequestData_Kmc(768)");
    Equal(k->genEEUpdateCertRequestData_Kmc(key.get(), bad.get(), out.out()), 22098217,
          "genEEUpdateCertRequestData_Kmc(768) in the block of 9");
    Equal(k->genEEDownCertRequestData_Client(ref.get(), code.get(), key.get(), out.out()), 0,
          "genEEDownCertRequestData_Client");
    Check(out.text().find(L"<signaturemethod algorithm=\"MAC\">") != std::wstring::npos,
          "the client message is sealed by the MAC");
  }
  // 10 11 13 19: the signed messages, the user cancelling.
  {
    Bstr out, p10(L"AAAA");
    Equal(k->genEERevokeCertRequestData(out.out()), 22108306, "genEERevokeCertRequestData");
    Check(out.null(), "a cancelled signature leaves the result null");
    Equal(k->genEEUpdateCertRequestData(out.out()), 22118306, "genEEUpdateCertRequestData");
    Equal(k->genEERestoreKHRequestData(out.out()), 22138306, "genEERestoreKHRequestData");
    Equal(k->genEEUpdateCertRequestData_Client(p10.get(), out.out()), 22118306,
          "genEEUpdateCertRequestData_Client in the block of 11");
  }
  // 14 15 16 17: key history and PFX export refuse empty input.
  {
    Bstr blank(L""), junk(L"AAAA");
    int ret = -1;
    Equal(k->writeKH(blank.get(), &ret), 0, "writeKH status");
    Equal(ret, 22158307, "writeKH(\"\")");
    ret = -1;
    Equal(k->writeKmcCertwithKH(blank.get(), blank.get(), blank.get(), junk.get(), &ret), 0,
          "writeKmcCertwithKH status");
    Equal(ret, 22148307, "writeKmcCertwithKH with a bad key history");
    Bstr out;
    Equal(k->writeClientCertToPFX(blank.get(), blank.get(), out.out()), 22168216,
          "writeClientCertToPFX without a password");
    Equal(k->writeKmcCertToPFX(blank.get(), blank.get(), blank.get(), blank.get(), out.out()),
          22178216, "writeKmcCertToPFX without a password");
  }
  // 23 25 26 28: each install consumes the container file; the first finds
  // no certificate, the others no file.
  {
    Bstr blank(L"");
    int ret = -1;
    Equal(k->writeClientCert_kex(blank.get(), &ret), 0, "writeClientCert_kex status");
    Equal(ret, 22068204, "writeClientCert_kex with empty text");
    Equal(ContainerFile(), "<none>", "the install deleted the container file");
    for (auto call :
         {&IBrendalKorvanta::writeClientCert_exp, &IBrendalKorvanta::writeClientCert_noprotect,
          &IBrendalKorvanta::writeClientCert_exp_X509}) {
      ret = -1;
      Equal((k.get()->*call)(blank.get(), &ret), 0, "install status");
      Equal(ret, 22038309, "install without a container file");
    }
  }
  // 29 leavingMostRecentCert: nothing of that name.
  {
    Bstr user(L"CN=Nobody"), issuer(L"CN=No CA");
    LONG ret = -1;
    Equal(k->leavingMostRecentCert(user.get(), issuer.get(), &ret), 0,
          "leavingMostRecentCert status");
    Equal(ret, 8126L, "leavingMostRecentCert without a match");
  }
  // Null out pointers are refused, not written through.
  Equal(Hex(k->getVersion(nullptr)), Hex(E_POINTER), "getVersion(nullptr)");
  Equal(Hex(k->writeClientCert(nullptr, nullptr)), Hex(E_POINTER), "writeClientCert(.., nullptr)");
}

// ---- traits: embedding and in-place activation ----

class Site : public IOleClientSite, public IOleInPlaceSiteWindowless {
 public:
  explicit Site(HWND parent, bool windowless) : parent_(parent), windowless_(windowless) {}
  // IUnknown
  STDMETHODIMP QueryInterface(REFIID riid, void** out) override {
    *out = nullptr;
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IOleClientSite)) {
      *out = static_cast<IOleClientSite*>(this);
    } else if (IsEqualIID(riid, IID_IOleWindow) || IsEqualIID(riid, IID_IOleInPlaceSite) ||
               IsEqualIID(riid, IID_IOleInPlaceSiteEx) ||
               (windowless_ && IsEqualIID(riid, IID_IOleInPlaceSiteWindowless))) {
      *out = static_cast<IOleInPlaceSiteWindowless*>(this);
    }
    if (!*out) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++refs); }
  STDMETHODIMP_(ULONG) Release() override { return static_cast<ULONG>(--refs); }
  // IOleClientSite
  STDMETHODIMP SaveObject() override { return S_OK; }
  STDMETHODIMP GetMoniker(DWORD, DWORD, IMoniker** m) override {
    *m = nullptr;
    return E_NOTIMPL;
  }
  STDMETHODIMP GetContainer(IOleContainer** c) override {
    *c = nullptr;
    return E_NOINTERFACE;
  }
  STDMETHODIMP ShowObject() override { return S_OK; }
  STDMETHODIMP OnShowWindow(BOOL) override { return S_OK; }
  STDMETHODIMP RequestNewObjectLayout() override { return E_NOTIMPL; }
  // IOleWindow
  STDMETHODIMP GetWindow(HWND* h) override {
    *h = parent_;
    return S_OK;
  }
  STDMETHODIMP ContextSensitiveHelp(BOOL) override { return E_NOTIMPL; }
  // IOleInPlaceSite
  STDMETHODIMP CanInPlaceActivate() override { return S_OK; }
  STDMETHODIMP OnInPlaceActivate() override {
    ++activated;
    return S_OK;
  }
  STDMETHODIMP OnUIActivate() override {
    ++uiActivated;
    return S_OK;
  }
  STDMETHODIMP GetWindowContext(IOleInPlaceFrame** f, IOleInPlaceUIWindow** d, LPRECT pos,
                                LPRECT clip, LPOLEINPLACEFRAMEINFO) override {
    *f = nullptr;
    *d = nullptr;
    SetRect(pos, 10, 20, 110, 45);
    SetRect(clip, 0, 0, 400, 300);
    return S_OK;
  }
  STDMETHODIMP Scroll(SIZE) override { return E_NOTIMPL; }
  STDMETHODIMP OnUIDeactivate(BOOL) override { return S_OK; }
  STDMETHODIMP OnInPlaceDeactivate() override {
    ++deactivated;
    return S_OK;
  }
  STDMETHODIMP DiscardUndoState() override { return S_OK; }
  STDMETHODIMP DeactivateAndUndo() override { return S_OK; }
  STDMETHODIMP OnPosRectChange(LPCRECT) override { return S_OK; }
  // IOleInPlaceSiteEx
  STDMETHODIMP OnInPlaceActivateEx(BOOL* noRedraw, DWORD flags) override {
    if (noRedraw) *noRedraw = FALSE;
    activateExFlags = flags;
    ++activated;
    return S_OK;
  }
  STDMETHODIMP OnInPlaceDeactivateEx(BOOL) override {
    ++deactivated;
    return S_OK;
  }
  STDMETHODIMP RequestUIActivate() override { return S_OK; }
  // IOleInPlaceSiteWindowless
  STDMETHODIMP CanWindowlessActivate() override { return windowless_ ? S_OK : S_FALSE; }
  STDMETHODIMP GetCapture() override { return S_FALSE; }
  STDMETHODIMP SetCapture(BOOL) override { return S_OK; }
  STDMETHODIMP GetFocus() override { return S_FALSE; }
  STDMETHODIMP SetFocus(BOOL) override { return S_OK; }
  STDMETHODIMP GetDC(LPCRECT, DWORD, HDC*) override { return E_NOTIMPL; }
  STDMETHODIMP ReleaseDC(HDC) override { return E_NOTIMPL; }
  STDMETHODIMP InvalidateRect(LPCRECT, BOOL) override { return S_OK; }
  STDMETHODIMP InvalidateRgn(HRGN, BOOL) override { return S_OK; }
  STDMETHODIMP ScrollRect(INT, INT, LPCRECT, LPCRECT) override { return S_OK; }
  STDMETHODIMP AdjustRect(LPRECT) override { return S_OK; }
  STDMETHODIMP OnDefWindowMessage(UINT, WPARAM, LPARAM, LRESULT*) override { return S_FALSE; }

  long refs = 1;
  int activated = 0;
  int uiActivated = 0;
  int deactivated = 0;
  DWORD activateExFlags = 0;

 private:
  HWND parent_;
  bool windowless_;
};

template <typename I>
bool Has(IUnknown* o, REFIID iid) {
  I* p = nullptr;
  if (FAILED(o->QueryInterface(iid, reinterpret_cast<void**>(&p))) || !p) return false;
  p->Release();
  return true;
}

void TraitsSection() {
  Ptr<IBrendalKorvanta> k;
  HRESULT hr = CreateControl(k.out());
  Check(SUCCEEDED(hr), "CoCreateInstance " + Hex(hr));
  if (!k) return;
  IUnknown* o = k.get();
  Check(Has<IOleObject>(o, IID_IOleObject), "IOleObject");
  Check(Has<IOleInPlaceObject>(o, IID_IOleInPlaceObject), "IOleInPlaceObject");
  Check(Has<IOleInPlaceObjectWindowless>(o, IID_IOleInPlaceObjectWindowless),
        "IOleInPlaceObjectWindowless");
  Check(Has<IOleInPlaceActiveObject>(o, IID_IOleInPlaceActiveObject), "IOleInPlaceActiveObject");
  Check(Has<IViewObject>(o, IID_IViewObject), "IViewObject");
  Check(Has<IViewObject2>(o, IID_IViewObject2), "IViewObject2");
  Check(Has<IViewObjectEx>(o, IID_IViewObjectEx), "IViewObjectEx");
  Check(Has<IDataObject>(o, IID_IDataObject), "IDataObject");
  Check(Has<IPersistStreamInit>(o, IID_IPersistStreamInit), "IPersistStreamInit");
  Check(Has<IPersistStorage>(o, IID_IPersistStorage), "IPersistStorage");
  Check(Has<IQuickActivate>(o, IID_IQuickActivate), "IQuickActivate");
  Check(Has<ISpecifyPropertyPages>(o, IID_ISpecifyPropertyPages), "ISpecifyPropertyPages");
  Check(Has<IOleControl>(o, IID_IOleControl), "IOleControl");
  Check(!Has<IConnectionPointContainer>(o, IID_IConnectionPointContainer),
        "no interface it does not implement");

  Ptr<IOleObject> ole;
  k->QueryInterface(IID_IOleObject, ole.vout());
  if (!ole) return;
  DWORD misc = 0;
  ole->GetMiscStatus(DVASPECT_CONTENT, &misc);
  Equal(misc, 131473ul, "GetMiscStatus");
  CLSID cls{};
  ole->GetUserClassID(&cls);
  Check(IsEqualCLSID(cls, CLSID_BrendalKorvanta), "GetUserClassID");
  LPOLESTR userType = nullptr;
  if (SUCCEEDED(ole->GetUserType(USERCLASSTYPE_FULL, &userType)) && userType) {
    Equal(Utf8(userType), "BrendalKorvanta Class", "GetUserType from the registry");
    CoTaskMemFree(userType);
  } else {
    Check(false, "GetUserType");
  }

  Ptr<IPersistStreamInit> persist;
  k->QueryInterface(IID_IPersistStreamInit, persist.vout());
  if (persist) {
    Equal(Hex(persist->InitNew()), Hex(S_OK), "IPersistStreamInit::InitNew");
    Equal(Hex(persist->IsDirty()), Hex(S_FALSE), "IsDirty");
    persist->GetClassID(&cls);
    Check(IsEqualCLSID(cls, CLSID_BrendalKorvanta), "IPersist::GetClassID");
  }
  Ptr<ISpecifyPropertyPages> pages;
  k->QueryInterface(IID_ISpecifyPropertyPages, pages.vout());
  if (pages) {
    CAUUID list{5, nullptr};
    Equal(Hex(pages->GetPages(&list)), Hex(S_OK), "GetPages");
    Equal(list.cElems, 0ul, "no property pages");
  }
  Ptr<IDataObject> data;
  k->QueryInterface(IID_IDataObject, data.vout());
  if (data) {
    FORMATETC fmt{CF_TEXT, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    Equal(Hex(data->QueryGetData(&fmt)), Hex(DV_E_FORMATETC), "no data formats");
  }

  // A windowed activation: a child window with the control's styles.
  HWND parent = CreateWindowExW(0, L"STATIC", L"host", WS_OVERLAPPEDWINDOW | WS_CLIPCHILDREN, 0, 0,
                                400, 300, nullptr, nullptr, GetModuleHandleW(nullptr), nullptr);
  Check(parent != nullptr, "host window (the prefix needs a graphics driver)");
  if (!parent) return;
  {
    Site site(parent, false);
    Ptr<IQuickActivate> quick;
    k->QueryInterface(IID_IQuickActivate, quick.vout());
    if (quick) {
      QACONTAINER qc{};
      qc.cbSize = sizeof qc;
      qc.pClientSite = &site;
      QACONTROL ctl{};
      ctl.cbSize = sizeof ctl;
      Equal(Hex(quick->QuickActivate(&qc, &ctl)), Hex(S_OK), "QuickActivate");
      Equal(ctl.dwMiscStatus, 131473ul, "QuickActivate misc status");
      IOleClientSite* got = nullptr;
      ole->GetClientSite(&got);
      Check(got == &site, "QuickActivate sets the client site");
      if (got) got->Release();
    }
    hr = ole->DoVerb(OLEIVERB_INPLACEACTIVATE, nullptr, &site, 0, parent, nullptr);
    Equal(Hex(hr), Hex(S_OK), "DoVerb(INPLACEACTIVATE)");
    Equal(site.activated, 1, "the site saw the activation");
    Ptr<IOleInPlaceObject> ipo;
    k->QueryInterface(IID_IOleInPlaceObject, ipo.vout());
    HWND child = nullptr;
    if (ipo) ipo->GetWindow(&child);
    Check(child != nullptr && IsWindow(child), "the control has a window");
    if (child) {
      Equal(static_cast<unsigned long>(GetWindowLongW(child, GWL_STYLE)), 0x56000000ul,
            "window styles");
      Check(GetParent(child) == parent, "the window is the host's child");
      RECT r{};
      GetWindowRect(child, &r);
      MapWindowPoints(nullptr, parent, reinterpret_cast<POINT*>(&r), 2);
      Check(r.left == 10 && r.top == 20 && r.right == 110 && r.bottom == 45,
            "the window takes the site's position");
      RECT moved{5, 5, 55, 30};
      ipo->SetObjectRects(&moved, &moved);
      GetWindowRect(child, &r);
      MapWindowPoints(nullptr, parent, reinterpret_cast<POINT*>(&r), 2);
      Check(r.left == 5 && r.right == 55, "SetObjectRects moves the window");
      Equal(Hex(ipo->InPlaceDeactivate()), Hex(S_OK), "InPlaceDeactivate");
      Check(!IsWindow(child), "deactivation destroys the window");
      Equal(site.deactivated, 1, "the site saw the deactivation");
    }
    ole->SetClientSite(nullptr);
    ole->Close(OLECLOSE_NOSAVE);
    Equal(site.refs, 1L, "the control let go of the site");
  }
  // A windowless activation where the site allows it.
  {
    Ptr<IBrendalKorvanta> k2;
    CreateControl(k2.out());
    Ptr<IOleObject> ole2;
    if (k2) k2->QueryInterface(IID_IOleObject, ole2.vout());
    if (ole2) {
      Site site(parent, true);
      ole2->SetClientSite(&site);
      hr = ole2->DoVerb(OLEIVERB_INPLACEACTIVATE, nullptr, &site, 0, parent, nullptr);
      Equal(Hex(hr), Hex(S_OK), "windowless DoVerb");
      Equal(site.activateExFlags, static_cast<DWORD>(ACTIVATE_WINDOWLESS), "activated windowless");
      Ptr<IOleInPlaceObjectWindowless> wl;
      k2->QueryInterface(IID_IOleInPlaceObjectWindowless, wl.vout());
      HWND none = reinterpret_cast<HWND>(1);
      if (wl) {
        Check(FAILED(wl->GetWindow(&none)) && none == nullptr, "no window when windowless");
        LRESULT lr = 0;
        Equal(Hex(wl->OnWindowMessage(WM_MOUSEMOVE, 0, 0, &lr)), Hex(S_FALSE),
              "window messages left to the host");
        wl->InPlaceDeactivate();
      }
      Equal(site.deactivated, 1, "windowless deactivation reported");
      ole2->SetClientSite(nullptr);
      ole2->Close(OLECLOSE_NOSAVE);
    }
  }
  Ptr<IViewObjectEx> view;
  k->QueryInterface(IID_IViewObjectEx, view.vout());
  if (view) {
    DWORD hit = 0;
    RECT bounds{0, 0, 10, 10};
    view->QueryHitPoint(DVASPECT_CONTENT, &bounds, POINT{5, 5}, 0, &hit);
    Equal(hit, static_cast<DWORD>(HITRESULT_HIT), "hit inside");
    view->QueryHitPoint(DVASPECT_CONTENT, &bounds, POINT{15, 5}, 0, &hit);
    Equal(hit, static_cast<DWORD>(HITRESULT_OUTSIDE), "hit outside");
    SIZEL size{};
    Equal(Hex(view->GetExtent(DVASPECT_CONTENT, -1, nullptr, &size)), Hex(S_OK), "GetExtent");
  }
  DestroyWindow(parent);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::printf("usage: wine_client acp|typelib FILE|identity DLL|statuses|traits\n");
    return 2;
  }
  const std::string section = argv[1];
  if (section == "acp") {
    std::printf("ACP %u\n", GetACP());
    return 0;
  }
  HRESULT hr = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  if (FAILED(hr)) {
    std::printf("FAIL CoInitializeEx %s\n", Hex(hr).c_str());
    return 1;
  }
  if (section == "typelib" && argc > 2) {
    TypeLibSection(argv[2]);
  } else if (section == "identity" && argc > 2) {
    IdentitySection(argv[2]);
  } else if (section == "statuses") {
    StatusesSection();
  } else if (section == "traits") {
    TraitsSection();
  } else {
    std::printf("unknown section %s\n", section.c_str());
    return 2;
  }
  CoUninitialize();
  std::printf("%s: %d checks, %d failed\n", section.c_str(), g_checks, g_failed);
  return g_failed == 0 ? 0 : 1;
}
