// The in-process server: its exports, the class factory of BrendalKorvanta,
// the type library in the module's resources, and the registry entries
// written on registration and removed on unregistration.
#include <cwchar>
#include <string>

// The interface and class identifiers are defined in this file.
#include "control/win32/internal/windows.h"
// initguid.h must follow windows.h.
#ifndef _MSC_VER
#include <initguid.h>  // widl's header then defines the identifiers
#endif

#include "control/win32/com/object.h"

namespace kv::control::com {

namespace {

HMODULE g_module = nullptr;
LONG g_objects = 0;
LONG g_locks = 0;
ITypeLib* g_typeLib = nullptr;

const wchar_t kClassName[] = L"BrendalKorvanta Class";
const wchar_t kProgId[] = L"Korvanta.BrendalKorvanta.1";
const wchar_t kIndependentProgId[] = L"Korvanta.BrendalKorvanta";
const wchar_t kMiscStatusText[] = L"131473";

std::wstring GuidText(REFGUID guid) {
  wchar_t buf[64] = {};
  StringFromGUID2(guid, buf, 64);
  return buf;
}

std::wstring ModulePath() {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    DWORD n = GetModuleFileNameW(g_module, &path[0], static_cast<DWORD>(path.size()));
    if (n == 0) return std::wstring();
    if (n < path.size()) {
      path.resize(n);
      return path;
    }
    path.resize(path.size() * 2);
  }
}

// Loads the type library from the module once; the reference is kept until
// the module may unload.
HRESULT TypeLib(ITypeLib** lib) {
  if (!g_typeLib) {
    ITypeLib* loaded = nullptr;
    HRESULT hr = LoadTypeLibEx(ModulePath().c_str(), REGKIND_NONE, &loaded);
    if (FAILED(hr)) return hr;
    if (InterlockedCompareExchangePointer(reinterpret_cast<void**>(&g_typeLib), loaded, nullptr) !=
        nullptr) {
      loaded->Release();
    }
  }
  *lib = g_typeLib;
  (*lib)->AddRef();
  return S_OK;
}

// A key of the classes root with its default value (null: none).
class Key {
 public:
  Key(HKEY parent, const std::wstring& path, const wchar_t* value) {
    rc_ = RegCreateKeyExW(parent, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_WRITE,
                          nullptr, &key_, nullptr);
    if (rc_ == ERROR_SUCCESS && value) Set(nullptr, value);
  }
  ~Key() {
    if (key_) RegCloseKey(key_);
  }
  Key(const Key&) = delete;
  Key& operator=(const Key&) = delete;

  void Set(const wchar_t* name, const std::wstring& value) {
    if (rc_ != ERROR_SUCCESS) return;
    rc_ = RegSetValueExW(key_, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                         static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
  }
  // A subkey with a default value; its outcome joins ours.
  void Sub(const std::wstring& name, const wchar_t* value) {
    if (rc_ != ERROR_SUCCESS) return;
    Key sub(key_, name, value);
    rc_ = sub.rc();
  }
  HKEY get() const { return key_; }
  LONG rc() const { return rc_; }

 private:
  HKEY key_ = nullptr;
  LONG rc_ = ERROR_SUCCESS;
};

LONG DeleteTree(const std::wstring& path) {
  LONG rc = RegDeleteTreeW(HKEY_CLASSES_ROOT, path.c_str());
  return rc == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : rc;
}

HRESULT Register() {
  const std::wstring module = ModulePath();
  if (module.empty()) return HRESULT_FROM_WIN32(::GetLastError());
  const std::wstring clsid = GuidText(CLSID_BrendalKorvanta);
  const std::wstring libid = GuidText(LIBID_KORVANTALib);
  const std::wstring classKey = L"CLSID\\" + clsid;
  LONG rc = ERROR_SUCCESS;
  {
    Key progId(HKEY_CLASSES_ROOT, kProgId, kClassName);
    progId.Sub(L"CLSID", clsid.c_str());
    rc = progId.rc();
  }
  if (rc == ERROR_SUCCESS) {
    Key independent(HKEY_CLASSES_ROOT, kIndependentProgId, kClassName);
    independent.Sub(L"CLSID", clsid.c_str());
    independent.Sub(L"CurVer", kProgId);
    rc = independent.rc();
  }
  // The class key is made afresh, so nothing of an older registration stays.
  if (rc == ERROR_SUCCESS) rc = DeleteTree(classKey);
  if (rc == ERROR_SUCCESS) {
    Key cls(HKEY_CLASSES_ROOT, classKey, kClassName);
    cls.Sub(L"ProgID", kProgId);
    cls.Sub(L"VersionIndependentProgID", kIndependentProgId);
    cls.Sub(L"Programmable", nullptr);
    {
      Key server(cls.get(), L"InprocServer32", module.c_str());
      server.Set(L"ThreadingModel", L"Apartment");
      if (server.rc() != ERROR_SUCCESS) rc = server.rc();
    }
    cls.Sub(L"Control", nullptr);
    cls.Sub(L"Insertable", nullptr);
    cls.Sub(L"ToolboxBitmap32", (module + L", 102").c_str());
    {
      Key misc(cls.get(), L"MiscStatus", L"0");
      misc.Sub(L"1", kMiscStatusText);
      if (misc.rc() != ERROR_SUCCESS) rc = misc.rc();
    }
    cls.Sub(L"TypeLib", libid.c_str());
    cls.Sub(L"Version", L"1.0");
    if (rc == ERROR_SUCCESS) rc = cls.rc();
  }
  if (rc != ERROR_SUCCESS) return HRESULT_FROM_WIN32(rc);
  ITypeLib* lib = nullptr;
  HRESULT hr = TypeLib(&lib);
  if (FAILED(hr)) return hr;
  std::wstring path = module;
  hr = RegisterTypeLib(lib, &path[0], nullptr);
  lib->Release();
  return hr;
}

HRESULT Unregister() {
  const std::wstring clsid = GuidText(CLSID_BrendalKorvanta);
  LONG rc = DeleteTree(L"CLSID\\" + clsid);
  LONG rc2 = DeleteTree(kProgId);
  LONG rc3 = DeleteTree(kIndependentProgId);
  HRESULT hr = UnRegisterTypeLib(LIBID_KORVANTALib, 1, 0, LOCALE_NEUTRAL, SYS_WIN64);
  // A library that was never registered is not an error here.
  if (hr == TYPE_E_REGISTRYACCESS || hr == TYPE_E_LIBNOTREGISTERED) hr = S_OK;
  if (rc != ERROR_SUCCESS) return HRESULT_FROM_WIN32(rc);
  if (rc2 != ERROR_SUCCESS) return HRESULT_FROM_WIN32(rc2);
  if (rc3 != ERROR_SUCCESS) return HRESULT_FROM_WIN32(rc3);
  return hr;
}

class ClassFactory : public IClassFactory {
 public:
  STDMETHODIMP QueryInterface(REFIID riid, void** out) override {
    if (!out) return E_POINTER;
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IClassFactory)) {
      *out = static_cast<IClassFactory*>(this);
      AddRef();
      return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
  }
  // A static object: its references only keep the module loaded.
  STDMETHODIMP_(ULONG) AddRef() override {
    ModuleAddRef();
    return 2;
  }
  STDMETHODIMP_(ULONG) Release() override {
    ModuleRelease();
    return 1;
  }
  STDMETHODIMP CreateInstance(IUnknown* outer, REFIID riid, void** out) override {
    if (!out) return E_POINTER;
    *out = nullptr;
    // An aggregate must ask for our inner unknown.
    if (outer && !IsEqualIID(riid, IID_IUnknown)) return CLASS_E_NOAGGREGATION;
    try {
      IUnknown* inner = nullptr;
      HRESULT hr = KorvantaObject::Create(outer, &inner);
      if (FAILED(hr)) return hr;
      hr = inner->QueryInterface(riid, out);
      inner->Release();
      return hr;
    } catch (...) {
      return E_FAIL;
    }
  }
  STDMETHODIMP LockServer(BOOL lock) override {
    if (lock) {
      InterlockedIncrement(&g_locks);
    } else {
      InterlockedDecrement(&g_locks);
    }
    return S_OK;
  }
};

ClassFactory g_factory;

}  // namespace

void ModuleAddRef() {
  InterlockedIncrement(&g_objects);
}

void ModuleRelease() {
  InterlockedDecrement(&g_objects);
}

HMODULE ModuleHandle() {
  return g_module;
}

HRESULT ModuleTypeInfo(REFGUID guid, ITypeInfo** info) {
  ITypeLib* lib = nullptr;
  HRESULT hr = TypeLib(&lib);
  if (FAILED(hr)) return hr;
  hr = lib->GetTypeInfoOfGuid(guid, info);
  lib->Release();
  return hr;
}

}  // namespace kv::control::com

using namespace kv::control::com;

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) {
    g_module = instance;
    DisableThreadLibraryCalls(instance);
  }
  return TRUE;
}

STDAPI DllCanUnloadNow() {
  if (g_objects != 0 || g_locks != 0) return S_FALSE;
  if (ITypeLib* lib = static_cast<ITypeLib*>(
          InterlockedExchangePointer(reinterpret_cast<void**>(&g_typeLib), nullptr))) {
    lib->Release();
  }
  return S_OK;
}

STDAPI DllGetClassObject(REFCLSID clsid, REFIID riid, LPVOID* out) {
  if (!out) return E_POINTER;
  *out = nullptr;
  if (!IsEqualCLSID(clsid, CLSID_BrendalKorvanta)) return CLASS_E_CLASSNOTAVAILABLE;
  return g_factory.QueryInterface(riid, out);
}

STDAPI DllRegisterServer() {
  try {
    return Register();
  } catch (...) {
    return E_FAIL;
  }
}

STDAPI DllUnregisterServer() {
  try {
    return Unregister();
  } catch (...) {
    return E_FAIL;
  }
}
