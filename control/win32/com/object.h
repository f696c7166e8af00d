// The COM object around CBrendalKorvanta: the dual automation interface, the
// object-safety answer and the traits a browser expects of an ActiveX
// control. The object can be aggregated: every interface's IUnknown goes to
// the controlling unknown, which is the object's own inner unknown when it
// stands alone.
#pragma once

#include "control/win32/internal/windows.h"
// The COM headers need windows.h first.
#include <objsafe.h>
#include <ocidl.h>
#include <ole2.h>

#include <memory>
#include <string>

#include "control/korvanta_control.h"
#include "control/win32/com/korvanta_h.h"
#include "control/win32/win32_platform.h"

namespace kv::control::com {

// Module-wide object and lock counts, for DllCanUnloadNow.
void ModuleAddRef();
void ModuleRelease();
HMODULE ModuleHandle();
// The type library in the module's resources (loaded once, not registered).
HRESULT ModuleTypeInfo(REFGUID guid, ITypeInfo** info);

// The window styles of the control when it is activated with a window:
// WS_CHILD | WS_VISIBLE | WS_CLIPSIBLINGS | WS_CLIPCHILDREN.
constexpr DWORD kWindowStyle = 0x56000000;
// OLEMISC_RECOMPOSEONRESIZE | OLEMISC_CANTLINKINSIDE | OLEMISC_INSIDEOUT |
// OLEMISC_ACTIVATEWHENVISIBLE | OLEMISC_SETCLIENTSITEFIRST.
constexpr DWORD kMiscStatus = 131473;
// What the object declares itself safe for.
constexpr DWORD kSafetyOptions =
    INTERFACESAFE_FOR_UNTRUSTED_CALLER | INTERFACESAFE_FOR_UNTRUSTED_DATA;

class KorvantaObject final : public IBrendalKorvanta,
                             public IProvideClassInfo,
                             public IObjectSafety,
                             public IOleObject,
                             public IOleInPlaceObjectWindowless,
                             public IOleInPlaceActiveObject,
                             public IViewObjectEx,
                             public IDataObject,
                             public IPersistStreamInit,
                             public IPersistStorage,
                             public IQuickActivate,
                             public ISpecifyPropertyPages,
                             public IOleControl {
 public:
  // Makes an object; OUTER is the controlling unknown of an aggregate or
  // null. The result holds one reference on the inner unknown.
  static HRESULT Create(IUnknown* outer, IUnknown** inner);

  // IUnknown (delegating).
  STDMETHODIMP QueryInterface(REFIID riid, void** out) override;
  STDMETHODIMP_(ULONG) AddRef() override;
  STDMETHODIMP_(ULONG) Release() override;

  // IDispatch, through the type library.
  STDMETHODIMP GetTypeInfoCount(UINT* count) override;
  STDMETHODIMP GetTypeInfo(UINT index, LCID lcid, ITypeInfo** info) override;
  STDMETHODIMP GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID lcid,
                             DISPID* ids) override;
  STDMETHODIMP Invoke(DISPID id, REFIID riid, LCID lcid, WORD flags, DISPPARAMS* params,
                      VARIANT* result, EXCEPINFO* excep, UINT* argErr) override;

  // IBrendalKorvanta: the 29 methods (methods.cpp).
  STDMETHODIMP listCSP(int index, BSTR* cspName) override;
  STDMETHODIMP setCSP(BSTR cspName) override;
  STDMETHODIMP genKeyPair(int keySize, BSTR* bstrP1DerBase64Pubkey) override;
  STDMETHODIMP genTempKeyPair(BSTR* bstrP1DerBase64TmpPubkey) override;
  STDMETHODIMP getVersion(BSTR* pVersionStr) override;
  STDMETHODIMP writeClientCert(BSTR p7Certs, int* ret) override;
  STDMETHODIMP writeKmcCert(BSTR p7Certs, BSTR EncPrikey, BSTR TempUKEK, int* ret) override;
  STDMETHODIMP genEEDownCertRequestData_Client(BSTR refNo, BSTR AuthCode, BSTR pubkey,
                                               BSTR* xmlEEDownClientCertReq) override;
  STDMETHODIMP genEEDownCertRequestData_Kmc(BSTR refNo, BSTR AuthCode, BSTR tmppubkey,
                                            BSTR keyLength, BSTR* xmlEEDownKmcCertReq) override;
  STDMETHODIMP genEERevokeCertRequestData(BSTR* xmlEERevokeCertReq) override;
  STDMETHODIMP genEEUpdateCertRequestData(BSTR* xmlEEUpdateCertReq) override;
  STDMETHODIMP getPublicKeyFromPKCS10Data(BSTR p10Base64Data, BSTR* p1Base64Der) override;
  STDMETHODIMP genEERestoreKHRequestData(BSTR* retXmlData) override;
  STDMETHODIMP writeKmcCertwithKH(BSTR p7Certs, BSTR EncPrikey, BSTR TempUKEK, BSTR keyHistory,
                                  int* ret) override;
  STDMETHODIMP writeKH(BSTR keyHistory, int* ret) override;
  STDMETHODIMP writeClientCertToPFX(BSTR p7Certs, BSTR passwd, BSTR* retPfx) override;
  STDMETHODIMP writeKmcCertToPFX(BSTR p7Certs, BSTR EncPrikey, BSTR TempUKEK, BSTR passwd,
                                 BSTR* retPfx) override;
  STDMETHODIMP genP10(int keySize, BSTR* bstrP10DerBase64Pubkey) override;
  STDMETHODIMP genEEUpdateCertRequestData_Client(BSTR P10Str, BSTR* xmlEEUpdateCertReq) override;
  STDMETHODIMP genEEUpdateCertRequestData_Kmc(BSTR tmppubkey, BSTR keyLength,
                                              BSTR* xmlEEUpdateCertReq) override;
  STDMETHODIMP restoreKmcCert(BSTR p7Certs, BSTR EncPrikey, BSTR TempUKEK, int* ret) override;
  STDMETHODIMP genP10_kex(int keySize, BSTR* bstrP10DerBase64Pubkey) override;
  STDMETHODIMP writeClientCert_kex(BSTR p7Certs, int* ret) override;
  STDMETHODIMP genP10_exp(int keySize, int keyExportable, BSTR* bstrP10DerBase64Pubkey) override;
  STDMETHODIMP writeClientCert_exp(BSTR p7Certs, int* ret) override;
  STDMETHODIMP writeClientCert_noprotect(BSTR p7Certs, int* ret) override;
  STDMETHODIMP genP10_exp_withdn(int keySize, int keyExportable, BSTR bstrCertDN,
                                 BSTR* bstrP10Bse64Pack) override;
  STDMETHODIMP writeClientCert_exp_X509(BSTR p7Certs, int* ret) override;
  STDMETHODIMP leavingMostRecentCert(BSTR UserDN, BSTR IssuerDN, LONG* ret) override;

  // IProvideClassInfo.
  STDMETHODIMP GetClassInfo(ITypeInfo** info) override;

  // IObjectSafety.
  STDMETHODIMP GetInterfaceSafetyOptions(REFIID riid, DWORD* supported, DWORD* enabled) override;
  STDMETHODIMP SetInterfaceSafetyOptions(REFIID riid, DWORD mask, DWORD enabled) override;

  // IOleObject.
  STDMETHODIMP SetClientSite(IOleClientSite* site) override;
  STDMETHODIMP GetClientSite(IOleClientSite** site) override;
  STDMETHODIMP SetHostNames(LPCOLESTR app, LPCOLESTR obj) override;
  STDMETHODIMP Close(DWORD saveOption) override;
  STDMETHODIMP SetMoniker(DWORD which, IMoniker* mk) override;
  STDMETHODIMP GetMoniker(DWORD assign, DWORD which, IMoniker** mk) override;
  STDMETHODIMP InitFromData(IDataObject* data, BOOL creation, DWORD reserved) override;
  STDMETHODIMP GetClipboardData(DWORD reserved, IDataObject** data) override;
  STDMETHODIMP DoVerb(LONG verb, LPMSG msg, IOleClientSite* site, LONG index, HWND parent,
                      LPCRECT rect) override;
  STDMETHODIMP EnumVerbs(IEnumOLEVERB** verbs) override;
  STDMETHODIMP Update() override;
  STDMETHODIMP IsUpToDate() override;
  STDMETHODIMP GetUserClassID(CLSID* clsid) override;
  STDMETHODIMP GetUserType(DWORD form, LPOLESTR* type) override;
  STDMETHODIMP SetExtent(DWORD aspect, SIZEL* size) override;
  STDMETHODIMP GetExtent(DWORD aspect, SIZEL* size) override;
  STDMETHODIMP Advise(IAdviseSink* sink, DWORD* cookie) override;
  STDMETHODIMP Unadvise(DWORD cookie) override;
  STDMETHODIMP EnumAdvise(IEnumSTATDATA** advise) override;
  STDMETHODIMP GetMiscStatus(DWORD aspect, DWORD* status) override;
  STDMETHODIMP SetColorScheme(LOGPALETTE* pal) override;

  // IOleWindow (shared by the in-place object and the active object).
  STDMETHODIMP GetWindow(HWND* hwnd) override;
  STDMETHODIMP ContextSensitiveHelp(BOOL enter) override;
  // IOleInPlaceObject(Windowless).
  STDMETHODIMP InPlaceDeactivate() override;
  STDMETHODIMP UIDeactivate() override;
  STDMETHODIMP SetObjectRects(LPCRECT pos, LPCRECT clip) override;
  STDMETHODIMP ReactivateAndUndo() override;
  STDMETHODIMP OnWindowMessage(UINT msg, WPARAM wp, LPARAM lp, LRESULT* result) override;
  STDMETHODIMP GetDropTarget(IDropTarget** target) override;
  // IOleInPlaceActiveObject.
  STDMETHODIMP TranslateAccelerator(LPMSG msg) override;
  STDMETHODIMP OnFrameWindowActivate(BOOL activate) override;
  STDMETHODIMP OnDocWindowActivate(BOOL activate) override;
  STDMETHODIMP ResizeBorder(LPCRECT border, IOleInPlaceUIWindow* window, BOOL frame) override;
  STDMETHODIMP EnableModeless(BOOL enable) override;

  // IViewObject, IViewObject2, IViewObjectEx.
  STDMETHODIMP Draw(DWORD aspect, LONG index, void* aspectInfo, DVTARGETDEVICE* target,
                    HDC targetDc, HDC drawDc, LPCRECTL bounds, LPCRECTL wBounds,
                    BOOL(STDMETHODCALLTYPE* cont)(ULONG_PTR), ULONG_PTR contArg) override;
  STDMETHODIMP GetColorSet(DWORD aspect, LONG index, void* aspectInfo, DVTARGETDEVICE* target,
                           HDC targetDc, LOGPALETTE** colors) override;
  STDMETHODIMP Freeze(DWORD aspect, LONG index, void* aspectInfo, DWORD* freeze) override;
  STDMETHODIMP Unfreeze(DWORD freeze) override;
  STDMETHODIMP SetAdvise(DWORD aspects, DWORD advf, IAdviseSink* sink) override;
  STDMETHODIMP GetAdvise(DWORD* aspects, DWORD* advf, IAdviseSink** sink) override;
  STDMETHODIMP GetExtent(DWORD aspect, LONG index, DVTARGETDEVICE* target, LPSIZEL size) override;
  STDMETHODIMP GetRect(DWORD aspect, LPRECTL rect) override;
  STDMETHODIMP GetViewStatus(DWORD* status) override;
  STDMETHODIMP QueryHitPoint(DWORD aspect, LPCRECT bounds, POINT loc, LONG closeHint,
                             DWORD* hit) override;
  STDMETHODIMP QueryHitRect(DWORD aspect, LPCRECT bounds, LPCRECT loc, LONG closeHint,
                            DWORD* hit) override;
  STDMETHODIMP GetNaturalExtent(DWORD aspect, LONG index, DVTARGETDEVICE* target, HDC targetDc,
                                DVEXTENTINFO* info, LPSIZEL size) override;

  // IDataObject.
  STDMETHODIMP GetData(FORMATETC* format, STGMEDIUM* medium) override;
  STDMETHODIMP GetDataHere(FORMATETC* format, STGMEDIUM* medium) override;
  STDMETHODIMP QueryGetData(FORMATETC* format) override;
  STDMETHODIMP GetCanonicalFormatEtc(FORMATETC* in, FORMATETC* out) override;
  STDMETHODIMP SetData(FORMATETC* format, STGMEDIUM* medium, BOOL release) override;
  STDMETHODIMP EnumFormatEtc(DWORD direction, IEnumFORMATETC** formats) override;
  STDMETHODIMP DAdvise(FORMATETC* format, DWORD advf, IAdviseSink* sink, DWORD* cookie) override;
  STDMETHODIMP DUnadvise(DWORD cookie) override;
  STDMETHODIMP EnumDAdvise(IEnumSTATDATA** advise) override;

  // IPersist, IPersistStreamInit, IPersistStorage.
  STDMETHODIMP GetClassID(CLSID* clsid) override;
  STDMETHODIMP IsDirty() override;
  STDMETHODIMP Load(IStream* stream) override;
  STDMETHODIMP Save(IStream* stream, BOOL clearDirty) override;
  STDMETHODIMP GetSizeMax(ULARGE_INTEGER* size) override;
  STDMETHODIMP InitNew() override;
  STDMETHODIMP InitNew(IStorage* storage) override;
  STDMETHODIMP Load(IStorage* storage) override;
  STDMETHODIMP Save(IStorage* storage, BOOL sameAsLoad) override;
  STDMETHODIMP SaveCompleted(IStorage* storage) override;
  STDMETHODIMP HandsOffStorage() override;

  // IQuickActivate.
  STDMETHODIMP QuickActivate(QACONTAINER* container, QACONTROL* control) override;
  STDMETHODIMP SetContentExtent(LPSIZEL size) override;
  STDMETHODIMP GetContentExtent(LPSIZEL size) override;

  // ISpecifyPropertyPages.
  STDMETHODIMP GetPages(CAUUID* pages) override;

  // IOleControl.
  STDMETHODIMP GetControlInfo(CONTROLINFO* info) override;
  STDMETHODIMP OnMnemonic(MSG* msg) override;
  STDMETHODIMP OnAmbientPropertyChange(DISPID id) override;
  STDMETHODIMP FreezeEvents(BOOL freeze) override;

 private:
  // The non-delegating unknown that owns the object's life.
  class Inner : public IUnknown {
   public:
    explicit Inner(KorvantaObject* self) : self_(self) {}
    STDMETHODIMP QueryInterface(REFIID riid, void** out) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;

   private:
    KorvantaObject* self_;
  };

  explicit KorvantaObject(IUnknown* outer);
  ~KorvantaObject();
  KorvantaObject(const KorvantaObject&) = delete;
  KorvantaObject& operator=(const KorvantaObject&) = delete;

  HRESULT InnerQueryInterface(REFIID riid, void** out);
  HRESULT ActivateInPlace(IOleClientSite* site, HWND parent, LPCRECT rect, bool uiActivate);
  void DestroyControlWindow();

  Inner inner_;
  IUnknown* outer_;  // not held: the aggregate owns us
  LONG refs_ = 1;

  Win32Platform platform_;
  CBrendalKorvanta control_;

  // Control state.
  IOleClientSite* site_ = nullptr;
  IOleInPlaceSite* inPlaceSite_ = nullptr;
  IOleInPlaceSiteWindowless* windowlessSite_ = nullptr;
  IOleAdviseHolder* oleAdvise_ = nullptr;
  IDataAdviseHolder* dataAdvise_ = nullptr;
  IAdviseSink* viewSink_ = nullptr;
  DWORD viewAspects_ = 0;
  DWORD viewAdvf_ = 0;
  HWND hwnd_ = nullptr;
  bool inPlaceActive_ = false;
  bool uiActive_ = false;
  RECT pos_{0, 0, 0, 0};
  SIZEL extent_{2540, 635};  // HIMETRIC: 1 by 0.25 inch
  DWORD safety_ = 0;
};

}  // namespace kv::control::com
