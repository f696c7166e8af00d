// The object's identity: creation inside or outside an aggregate, interface
// lookup, automation through the type library and the object-safety answer.
#include "control/win32/com/object.h"

#include <new>

namespace kv::control::com {

KorvantaObject::KorvantaObject(IUnknown* outer)
    : inner_(this), outer_(outer ? outer : &inner_), control_(platform_) {
  ModuleAddRef();
}

KorvantaObject::~KorvantaObject() {
  DestroyControlWindow();
  if (windowlessSite_) windowlessSite_->Release();
  if (inPlaceSite_) inPlaceSite_->Release();
  if (site_) site_->Release();
  if (oleAdvise_) oleAdvise_->Release();
  if (dataAdvise_) dataAdvise_->Release();
  if (viewSink_) viewSink_->Release();
  ModuleRelease();
}

HRESULT KorvantaObject::Create(IUnknown* outer, IUnknown** inner) {
  *inner = nullptr;
  auto* object = new (std::nothrow) KorvantaObject(outer);
  if (!object) return E_OUTOFMEMORY;
  *inner = &object->inner_;
  return S_OK;
}

// ---- IUnknown ----

STDMETHODIMP KorvantaObject::Inner::QueryInterface(REFIID riid, void** out) {
  return self_->InnerQueryInterface(riid, out);
}

STDMETHODIMP_(ULONG) KorvantaObject::Inner::AddRef() {
  return static_cast<ULONG>(InterlockedIncrement(&self_->refs_));
}

STDMETHODIMP_(ULONG) KorvantaObject::Inner::Release() {
  LONG n = InterlockedDecrement(&self_->refs_);
  if (n == 0) {
    // Guards against a re-entrant release from the destructor.
    self_->refs_ = 1;
    delete self_;
  }
  return static_cast<ULONG>(n);
}

HRESULT KorvantaObject::InnerQueryInterface(REFIID riid, void** out) {
  if (!out) return E_POINTER;
  *out = nullptr;
  IUnknown* found = nullptr;
  if (IsEqualIID(riid, IID_IUnknown)) {
    found = &inner_;
  } else if (IsEqualIID(riid, IID_IDispatch) || IsEqualIID(riid, IID_IBrendalKorvanta)) {
    found = static_cast<IBrendalKorvanta*>(this);
  } else if (IsEqualIID(riid, IID_IProvideClassInfo)) {
    found = static_cast<IProvideClassInfo*>(this);
  } else if (IsEqualIID(riid, IID_IObjectSafety)) {
    found = static_cast<IObjectSafety*>(this);
  } else if (IsEqualIID(riid, IID_IOleObject)) {
    found = static_cast<IOleObject*>(this);
  } else if (IsEqualIID(riid, IID_IOleWindow) || IsEqualIID(riid, IID_IOleInPlaceObject) ||
             IsEqualIID(riid, IID_IOleInPlaceObjectWindowless)) {
    found = static_cast<IOleInPlaceObjectWindowless*>(this);
  } else if (IsEqualIID(riid, IID_IOleInPlaceActiveObject)) {
    found = static_cast<IOleInPlaceActiveObject*>(this);
  } else if (IsEqualIID(riid, IID_IViewObject) || IsEqualIID(riid, IID_IViewObject2) ||
             IsEqualIID(riid, IID_IViewObjectEx)) {
    found = static_cast<IViewObjectEx*>(this);
  } else if (IsEqualIID(riid, IID_IDataObject)) {
    found = static_cast<IDataObject*>(this);
  } else if (IsEqualIID(riid, IID_IPersist) || IsEqualIID(riid, IID_IPersistStreamInit)) {
    found = static_cast<IPersistStreamInit*>(this);
  } else if (IsEqualIID(riid, IID_IPersistStorage)) {
    found = static_cast<IPersistStorage*>(this);
  } else if (IsEqualIID(riid, IID_IQuickActivate)) {
    found = static_cast<IQuickActivate*>(this);
  } else if (IsEqualIID(riid, IID_ISpecifyPropertyPages)) {
    found = static_cast<ISpecifyPropertyPages*>(this);
  } else if (IsEqualIID(riid, IID_IOleControl)) {
    found = static_cast<IOleControl*>(this);
  }
  if (!found) return E_NOINTERFACE;
  found->AddRef();
  *out = found;
  return S_OK;
}

STDMETHODIMP KorvantaObject::QueryInterface(REFIID riid, void** out) {
  return outer_->QueryInterface(riid, out);
}

STDMETHODIMP_(ULONG) KorvantaObject::AddRef() {
  return outer_->AddRef();
}

STDMETHODIMP_(ULONG) KorvantaObject::Release() {
  return outer_->Release();
}

// ---- IDispatch ----

STDMETHODIMP KorvantaObject::GetTypeInfoCount(UINT* count) {
  if (!count) return E_POINTER;
  *count = 1;
  return S_OK;
}

STDMETHODIMP KorvantaObject::GetTypeInfo(UINT index, LCID, ITypeInfo** info) {
  if (!info) return E_POINTER;
  *info = nullptr;
  if (index != 0) return DISP_E_BADINDEX;
  return ModuleTypeInfo(IID_IBrendalKorvanta, info);
}

STDMETHODIMP KorvantaObject::GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID,
                                           DISPID* ids) {
  if (!IsEqualIID(riid, IID_NULL)) return DISP_E_UNKNOWNINTERFACE;
  ITypeInfo* info = nullptr;
  HRESULT hr = ModuleTypeInfo(IID_IBrendalKorvanta, &info);
  if (FAILED(hr)) return hr;
  hr = DispGetIDsOfNames(info, names, count, ids);
  info->Release();
  return hr;
}

STDMETHODIMP KorvantaObject::Invoke(DISPID id, REFIID riid, LCID, WORD flags, DISPPARAMS* params,
                                    VARIANT* result, EXCEPINFO* excep, UINT* argErr) {
  if (!IsEqualIID(riid, IID_NULL)) return DISP_E_UNKNOWNINTERFACE;
  ITypeInfo* info = nullptr;
  HRESULT hr = ModuleTypeInfo(IID_IBrendalKorvanta, &info);
  if (FAILED(hr)) return hr;
  hr = info->Invoke(static_cast<IBrendalKorvanta*>(this), id, flags, params, result, excep, argErr);
  info->Release();
  return hr;
}

// ---- IProvideClassInfo ----

STDMETHODIMP KorvantaObject::GetClassInfo(ITypeInfo** info) {
  if (!info) return E_POINTER;
  *info = nullptr;
  return ModuleTypeInfo(CLSID_BrendalKorvanta, info);
}

// ---- IObjectSafety ----
// Safe for scripting and for initialisation on every interface the object
// has, so a browser lets a page call it without a prompt.

STDMETHODIMP KorvantaObject::GetInterfaceSafetyOptions(REFIID riid, DWORD* supported,
                                                       DWORD* enabled) {
  if (!supported || !enabled) return E_POINTER;
  *supported = 0;
  *enabled = 0;
  IUnknown* probe = nullptr;
  if (FAILED(InnerQueryInterface(riid, reinterpret_cast<void**>(&probe)))) return E_NOINTERFACE;
  probe->Release();
  *supported = kSafetyOptions;
  *enabled = safety_;
  return S_OK;
}

STDMETHODIMP KorvantaObject::SetInterfaceSafetyOptions(REFIID riid, DWORD mask, DWORD enabled) {
  IUnknown* probe = nullptr;
  if (FAILED(InnerQueryInterface(riid, reinterpret_cast<void**>(&probe)))) return E_NOINTERFACE;
  probe->Release();
  // Options outside the two we support are refused.
  if (mask & ~kSafetyOptions) return E_FAIL;
  safety_ = (safety_ & ~mask) | (enabled & mask);
  return S_OK;
}

}  // namespace kv::control::com
