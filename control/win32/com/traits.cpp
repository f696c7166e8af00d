// The ActiveX control traits a browser relies on: embedding (IOleObject),
// in-place activation with a child window or windowless, the view and data
// objects, persistence (there is no state to persist), quick activation,
// property pages (none) and the control interface. The control draws
// nothing of its own; these answer as a host uses them and no more.
#include "control/win32/com/object.h"

namespace kv::control::com {

namespace {

const wchar_t kWindowClass[] = L"KorvantaControlWindow";

ATOM RegisterWindowClass() {
  static ATOM atom = [] {
    WNDCLASSEXW wc{};
    wc.cbSize = sizeof wc;
    wc.lpfnWndProc = DefWindowProcW;
    wc.hInstance = ModuleHandle();
    wc.hCursor = LoadCursor(nullptr, IDC_ARROW);
    wc.hbrBackground = reinterpret_cast<HBRUSH>(COLOR_WINDOW + 1);
    wc.lpszClassName = kWindowClass;
    ATOM registered = RegisterClassExW(&wc);
    // A module loaded again in the same process finds its class there; the
    // window procedure is the system's, so the old registration serves.
    if (!registered && ::GetLastError() == ERROR_CLASS_ALREADY_EXISTS) registered = 1;
    return registered;
  }();
  return atom;
}

template <typename T>
void Replace(T** slot, T* value) {
  if (value) value->AddRef();
  if (*slot) (*slot)->Release();
  *slot = value;
}

}  // namespace

// ---- In-place activation ----

HRESULT KorvantaObject::ActivateInPlace(IOleClientSite* site, HWND parent, LPCRECT rect,
                                        bool uiActivate) {
  if (!site) site = site_;
  if (!site) return E_UNEXPECTED;
  if (!inPlaceActive_) {
    IOleInPlaceSite* ips = nullptr;
    if (FAILED(site->QueryInterface(IID_IOleInPlaceSite, reinterpret_cast<void**>(&ips)))) {
      return E_NOINTERFACE;
    }
    if (ips->CanInPlaceActivate() != S_OK) {
      ips->Release();
      return E_FAIL;
    }
    // A windowless site that allows it gets a windowless control.
    IOleInPlaceSiteWindowless* wl = nullptr;
    bool windowless = false;
    if (SUCCEEDED(
            ips->QueryInterface(IID_IOleInPlaceSiteWindowless, reinterpret_cast<void**>(&wl)))) {
      windowless = wl->CanWindowlessActivate() == S_OK;
      if (!windowless || FAILED(wl->OnInPlaceActivateEx(nullptr, ACTIVATE_WINDOWLESS))) {
        wl->Release();
        wl = nullptr;
        windowless = false;
      }
    }
    if (!windowless && FAILED(ips->OnInPlaceActivate())) {
      ips->Release();
      return E_FAIL;
    }
    Replace(&inPlaceSite_, ips);
    ips->Release();
    if (wl) {
      Replace(&windowlessSite_, wl);
      wl->Release();
    }
    inPlaceActive_ = true;

    IOleInPlaceFrame* frame = nullptr;
    IOleInPlaceUIWindow* doc = nullptr;
    RECT pos{}, clip{};
    OLEINPLACEFRAMEINFO info{};
    info.cb = sizeof info;
    if (SUCCEEDED(inPlaceSite_->GetWindowContext(&frame, &doc, &pos, &clip, &info))) {
      pos_ = pos;
      if (frame) frame->Release();
      if (doc) doc->Release();
    }
    if (rect) pos_ = *rect;
    if (!windowless) {
      HWND hostWindow = parent;
      if (!hostWindow) inPlaceSite_->GetWindow(&hostWindow);
      if (!RegisterWindowClass()) return HRESULT_FROM_WIN32(::GetLastError());
      hwnd_ = CreateWindowExW(0, kWindowClass, L"", kWindowStyle, pos_.left, pos_.top,
                              pos_.right - pos_.left, pos_.bottom - pos_.top, hostWindow, nullptr,
                              ModuleHandle(), nullptr);
      if (!hwnd_) {
        HRESULT hr = HRESULT_FROM_WIN32(::GetLastError());
        InPlaceDeactivate();
        return FAILED(hr) ? hr : E_FAIL;
      }
    }
  }
  if (uiActivate && !uiActive_) {
    uiActive_ = true;
    inPlaceSite_->OnUIActivate();
  }
  return S_OK;
}

void KorvantaObject::DestroyControlWindow() {
  if (hwnd_) {
    DestroyWindow(hwnd_);
    hwnd_ = nullptr;
  }
}

// ---- IOleObject ----

STDMETHODIMP KorvantaObject::SetClientSite(IOleClientSite* site) {
  Replace(&site_, site);
  return S_OK;
}

STDMETHODIMP KorvantaObject::GetClientSite(IOleClientSite** site) {
  if (!site) return E_POINTER;
  *site = site_;
  if (site_) site_->AddRef();
  return S_OK;
}

STDMETHODIMP KorvantaObject::SetHostNames(LPCOLESTR, LPCOLESTR) {
  return S_OK;
}

STDMETHODIMP KorvantaObject::Close(DWORD) {
  InPlaceDeactivate();
  if (oleAdvise_) oleAdvise_->SendOnClose();
  return S_OK;
}

STDMETHODIMP KorvantaObject::SetMoniker(DWORD, IMoniker*) {
  return E_NOTIMPL;
}

STDMETHODIMP KorvantaObject::GetMoniker(DWORD, DWORD, IMoniker** mk) {
  if (mk) *mk = nullptr;
  return E_NOTIMPL;
}

STDMETHODIMP KorvantaObject::InitFromData(IDataObject*, BOOL, DWORD) {
  return E_NOTIMPL;
}

STDMETHODIMP KorvantaObject::GetClipboardData(DWORD, IDataObject** data) {
  if (data) *data = nullptr;
  return E_NOTIMPL;
}

STDMETHODIMP KorvantaObject::DoVerb(LONG verb, LPMSG, IOleClientSite* site, LONG, HWND parent,
                                    LPCRECT rect) {
  switch (verb) {
    case OLEIVERB_PRIMARY:
    case OLEIVERB_SHOW:
    case OLEIVERB_UIACTIVATE:
      return ActivateInPlace(site, parent, rect, true);
    case OLEIVERB_INPLACEACTIVATE:
      return ActivateInPlace(site, parent, rect, false);
    case OLEIVERB_HIDE:
      return UIDeactivate();
    default:
      return verb < 0 ? E_NOTIMPL : OLEOBJ_S_INVALIDVERB;
  }
}

STDMETHODIMP KorvantaObject::EnumVerbs(IEnumOLEVERB** verbs) {
  return OleRegEnumVerbs(CLSID_BrendalKorvanta, verbs);
}

STDMETHODIMP KorvantaObject::Update() {
  return S_OK;
}

STDMETHODIMP KorvantaObject::IsUpToDate() {
  return S_OK;
}

STDMETHODIMP KorvantaObject::GetUserClassID(CLSID* clsid) {
  if (!clsid) return E_POINTER;
  *clsid = CLSID_BrendalKorvanta;
  return S_OK;
}

STDMETHODIMP KorvantaObject::GetUserType(DWORD form, LPOLESTR* type) {
  return OleRegGetUserType(CLSID_BrendalKorvanta, form, type);
}

STDMETHODIMP KorvantaObject::SetExtent(DWORD aspect, SIZEL* size) {
  if (aspect != DVASPECT_CONTENT) return DV_E_DVASPECT;
  if (!size) return E_POINTER;
  extent_ = *size;
  return S_OK;
}

STDMETHODIMP KorvantaObject::GetExtent(DWORD aspect, SIZEL* size) {
  if (aspect != DVASPECT_CONTENT) return DV_E_DVASPECT;
  if (!size) return E_POINTER;
  *size = extent_;
  return S_OK;
}

STDMETHODIMP KorvantaObject::Advise(IAdviseSink* sink, DWORD* cookie) {
  if (!oleAdvise_) {
    HRESULT hr = CreateOleAdviseHolder(&oleAdvise_);
    if (FAILED(hr)) return hr;
  }
  return oleAdvise_->Advise(sink, cookie);
}

STDMETHODIMP KorvantaObject::Unadvise(DWORD cookie) {
  return oleAdvise_ ? oleAdvise_->Unadvise(cookie) : OLE_E_NOCONNECTION;
}

STDMETHODIMP KorvantaObject::EnumAdvise(IEnumSTATDATA** advise) {
  if (!advise) return E_POINTER;
  *advise = nullptr;
  return oleAdvise_ ? oleAdvise_->EnumAdvise(advise) : S_OK;
}

STDMETHODIMP KorvantaObject::GetMiscStatus(DWORD, DWORD* status) {
  if (!status) return E_POINTER;
  *status = kMiscStatus;
  return S_OK;
}

STDMETHODIMP KorvantaObject::SetColorScheme(LOGPALETTE*) {
  return E_NOTIMPL;
}

// ---- IOleWindow, IOleInPlaceObjectWindowless, IOleInPlaceActiveObject ----

STDMETHODIMP KorvantaObject::GetWindow(HWND* hwnd) {
  if (!hwnd) return E_POINTER;
  *hwnd = hwnd_;
  return hwnd_ ? S_OK : E_FAIL;
}

STDMETHODIMP KorvantaObject::ContextSensitiveHelp(BOOL) {
  return E_NOTIMPL;
}

STDMETHODIMP KorvantaObject::InPlaceDeactivate() {
  if (!inPlaceActive_) return S_OK;
  UIDeactivate();
  DestroyControlWindow();
  inPlaceActive_ = false;
  if (windowlessSite_) {
    windowlessSite_->OnInPlaceDeactivateEx(TRUE);
    Replace(&windowlessSite_, static_cast<IOleInPlaceSiteWindowless*>(nullptr));
  } else if (inPlaceSite_) {
    inPlaceSite_->OnInPlaceDeactivate();
  }
  Replace(&inPlaceSite_, static_cast<IOleInPlaceSite*>(nullptr));
  return S_OK;
}

STDMETHODIMP KorvantaObject::UIDeactivate() {
  if (uiActive_) {
    uiActive_ = false;
    if (inPlaceSite_) inPlaceSite_->OnUIDeactivate(FALSE);
  }
  return S_OK;
}

STDMETHODIMP KorvantaObject::SetObjectRects(LPCRECT pos, LPCRECT) {
  if (!pos) return E_POINTER;
  pos_ = *pos;
  if (hwnd_) {
    SetWindowPos(hwnd_, nullptr, pos_.left, pos_.top, pos_.right - pos_.left,
                 pos_.bottom - pos_.top, SWP_NOZORDER | SWP_NOACTIVATE);
  }
  return S_OK;
}

STDMETHODIMP KorvantaObject::ReactivateAndUndo() {
  return E_NOTIMPL;
}

STDMETHODIMP KorvantaObject::OnWindowMessage(UINT, WPARAM, LPARAM, LRESULT* result) {
  // Windowless: nothing of the host's messages concerns us.
  if (result) *result = 0;
  return S_FALSE;
}

STDMETHODIMP KorvantaObject::GetDropTarget(IDropTarget** target) {
  if (target) *target = nullptr;
  return E_NOTIMPL;
}

STDMETHODIMP KorvantaObject::TranslateAccelerator(LPMSG) {
  return S_FALSE;
}

STDMETHODIMP KorvantaObject::OnFrameWindowActivate(BOOL) {
  return S_OK;
}

STDMETHODIMP KorvantaObject::OnDocWindowActivate(BOOL) {
  return S_OK;
}

STDMETHODIMP KorvantaObject::ResizeBorder(LPCRECT, IOleInPlaceUIWindow*, BOOL) {
  return S_OK;
}

STDMETHODIMP KorvantaObject::EnableModeless(BOOL) {
  return S_OK;
}

// ---- IViewObjectEx ----

STDMETHODIMP KorvantaObject::Draw(DWORD aspect, LONG, void*, DVTARGETDEVICE*, HDC, HDC, LPCRECTL,
                                  LPCRECTL, BOOL(STDMETHODCALLTYPE*)(ULONG_PTR), ULONG_PTR) {
  // Nothing of its own to draw; the host's background shows through.
  return aspect == DVASPECT_CONTENT ? S_OK : DV_E_DVASPECT;
}

STDMETHODIMP KorvantaObject::GetColorSet(DWORD, LONG, void*, DVTARGETDEVICE*, HDC,
                                         LOGPALETTE** colors) {
  if (colors) *colors = nullptr;
  return S_FALSE;
}

STDMETHODIMP KorvantaObject::Freeze(DWORD, LONG, void*, DWORD* freeze) {
  if (freeze) *freeze = 0;
  return E_NOTIMPL;
}

STDMETHODIMP KorvantaObject::Unfreeze(DWORD) {
  return E_NOTIMPL;
}

STDMETHODIMP KorvantaObject::SetAdvise(DWORD aspects, DWORD advf, IAdviseSink* sink) {
  Replace(&viewSink_, sink);
  viewAspects_ = aspects;
  viewAdvf_ = advf;
  return S_OK;
}

STDMETHODIMP KorvantaObject::GetAdvise(DWORD* aspects, DWORD* advf, IAdviseSink** sink) {
  if (aspects) *aspects = viewAspects_;
  if (advf) *advf = viewAdvf_;
  if (sink) {
    *sink = viewSink_;
    if (viewSink_) viewSink_->AddRef();
  }
  return S_OK;
}

STDMETHODIMP KorvantaObject::GetExtent(DWORD aspect, LONG, DVTARGETDEVICE*, LPSIZEL size) {
  return GetExtent(aspect, size);
}

STDMETHODIMP KorvantaObject::GetRect(DWORD aspect, LPRECTL rect) {
  if (aspect != DVASPECT_CONTENT) return DV_E_DVASPECT;
  if (!rect) return E_POINTER;
  *rect = RECTL{pos_.left, pos_.top, pos_.right, pos_.bottom};
  return S_OK;
}

STDMETHODIMP KorvantaObject::GetViewStatus(DWORD* status) {
  if (!status) return E_POINTER;
  // Draws nothing: transparent, and the same in every aspect.
  *status = 0;
  return S_OK;
}

STDMETHODIMP KorvantaObject::QueryHitPoint(DWORD aspect, LPCRECT bounds, POINT loc, LONG,
                                           DWORD* hit) {
  if (aspect != DVASPECT_CONTENT) return DV_E_DVASPECT;
  if (!bounds || !hit) return E_POINTER;
  *hit = PtInRect(bounds, loc) ? HITRESULT_HIT : HITRESULT_OUTSIDE;
  return S_OK;
}

STDMETHODIMP KorvantaObject::QueryHitRect(DWORD aspect, LPCRECT bounds, LPCRECT loc, LONG,
                                          DWORD* hit) {
  if (aspect != DVASPECT_CONTENT) return DV_E_DVASPECT;
  if (!bounds || !loc || !hit) return E_POINTER;
  RECT both{};
  *hit = IntersectRect(&both, bounds, loc) ? HITRESULT_HIT : HITRESULT_OUTSIDE;
  return S_OK;
}

STDMETHODIMP KorvantaObject::GetNaturalExtent(DWORD, LONG, DVTARGETDEVICE*, HDC, DVEXTENTINFO*,
                                              LPSIZEL) {
  return E_NOTIMPL;
}

// ---- IDataObject: no data formats of its own; advises are kept ----

STDMETHODIMP KorvantaObject::GetData(FORMATETC*, STGMEDIUM*) {
  return DV_E_FORMATETC;
}

STDMETHODIMP KorvantaObject::GetDataHere(FORMATETC*, STGMEDIUM*) {
  return DV_E_FORMATETC;
}

STDMETHODIMP KorvantaObject::QueryGetData(FORMATETC*) {
  return DV_E_FORMATETC;
}

STDMETHODIMP KorvantaObject::GetCanonicalFormatEtc(FORMATETC*, FORMATETC* out) {
  if (out) out->ptd = nullptr;
  return E_NOTIMPL;
}

STDMETHODIMP KorvantaObject::SetData(FORMATETC*, STGMEDIUM*, BOOL) {
  return E_NOTIMPL;
}

STDMETHODIMP KorvantaObject::EnumFormatEtc(DWORD direction, IEnumFORMATETC** formats) {
  return OleRegEnumFormatEtc(CLSID_BrendalKorvanta, direction, formats);
}

STDMETHODIMP KorvantaObject::DAdvise(FORMATETC* format, DWORD advf, IAdviseSink* sink,
                                     DWORD* cookie) {
  if (!dataAdvise_) {
    HRESULT hr = CreateDataAdviseHolder(&dataAdvise_);
    if (FAILED(hr)) return hr;
  }
  return dataAdvise_->Advise(static_cast<IDataObject*>(this), format, advf, sink, cookie);
}

STDMETHODIMP KorvantaObject::DUnadvise(DWORD cookie) {
  return dataAdvise_ ? dataAdvise_->Unadvise(cookie) : OLE_E_NOCONNECTION;
}

STDMETHODIMP KorvantaObject::EnumDAdvise(IEnumSTATDATA** advise) {
  if (!advise) return E_POINTER;
  *advise = nullptr;
  return dataAdvise_ ? dataAdvise_->EnumAdvise(advise) : OLE_E_ADVISENOTSUPPORTED;
}

// ---- Persistence: the control has no properties to keep ----

STDMETHODIMP KorvantaObject::GetClassID(CLSID* clsid) {
  if (!clsid) return E_POINTER;
  *clsid = CLSID_BrendalKorvanta;
  return S_OK;
}

STDMETHODIMP KorvantaObject::IsDirty() {
  return S_FALSE;
}

STDMETHODIMP KorvantaObject::Load(IStream* stream) {
  return stream ? S_OK : E_POINTER;
}

STDMETHODIMP KorvantaObject::Save(IStream* stream, BOOL) {
  return stream ? S_OK : E_POINTER;
}

STDMETHODIMP KorvantaObject::GetSizeMax(ULARGE_INTEGER* size) {
  if (!size) return E_POINTER;
  size->QuadPart = 0;
  return S_OK;
}

STDMETHODIMP KorvantaObject::InitNew() {
  return S_OK;
}

STDMETHODIMP KorvantaObject::InitNew(IStorage* storage) {
  return storage ? S_OK : E_POINTER;
}

STDMETHODIMP KorvantaObject::Load(IStorage* storage) {
  return storage ? S_OK : E_POINTER;
}

STDMETHODIMP KorvantaObject::Save(IStorage* storage, BOOL) {
  return storage ? S_OK : E_POINTER;
}

STDMETHODIMP KorvantaObject::SaveCompleted(IStorage*) {
  return S_OK;
}

STDMETHODIMP KorvantaObject::HandsOffStorage() {
  return S_OK;
}

// ---- IQuickActivate ----

STDMETHODIMP KorvantaObject::QuickActivate(QACONTAINER* container, QACONTROL* control) {
  if (!container || !control) return E_POINTER;
  if (container->cbSize < sizeof(QACONTAINER) || control->cbSize < sizeof(QACONTROL)) {
    return E_INVALIDARG;
  }
  SetClientSite(container->pClientSite);
  if (container->pAdviseSink) SetAdvise(DVASPECT_CONTENT, 0, container->pAdviseSink);
  control->dwMiscStatus = kMiscStatus;
  GetViewStatus(&control->dwViewStatus);
  control->dwEventCookie = 0;
  control->dwPropNotifyCookie = 0;
  control->dwPointerActivationPolicy = 0;
  return S_OK;
}

STDMETHODIMP KorvantaObject::SetContentExtent(LPSIZEL size) {
  return SetExtent(DVASPECT_CONTENT, size);
}

STDMETHODIMP KorvantaObject::GetContentExtent(LPSIZEL size) {
  return GetExtent(DVASPECT_CONTENT, size);
}

// ---- ISpecifyPropertyPages: none ----

STDMETHODIMP KorvantaObject::GetPages(CAUUID* pages) {
  if (!pages) return E_POINTER;
  pages->cElems = 0;
  pages->pElems = nullptr;
  return S_OK;
}

// ---- IOleControl ----

STDMETHODIMP KorvantaObject::GetControlInfo(CONTROLINFO* info) {
  if (!info) return E_POINTER;
  info->hAccel = nullptr;
  info->cAccel = 0;
  info->dwFlags = 0;
  return S_OK;
}

STDMETHODIMP KorvantaObject::OnMnemonic(MSG*) {
  return S_OK;
}

STDMETHODIMP KorvantaObject::OnAmbientPropertyChange(DISPID) {
  return S_OK;
}

STDMETHODIMP KorvantaObject::FreezeEvents(BOOL) {
  return S_OK;
}

}  // namespace kv::control::com
