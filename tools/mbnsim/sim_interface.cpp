#include "tools/mbnsim/sim_interface.h"

#include <new>

#include "util/com_ptr.h"

namespace mbnsim {

Injection Consult(Call call, int index) {
  if (DWORD ms = ReadDelay(call)) ::Sleep(ms);
  return ReadInjection(call, index);
}

HRESULT Injected(Call call, int index, bool* null_out) {
  const Injection inj = Consult(call, index);
  if (null_out) *null_out = inj.kind == Injection::kNull;
  return inj.kind == Injection::kFail ? inj.hr : S_OK;
}

BSTR NewBstr(const std::string& text) { return ::SysAllocString(AnsiToWide(text).c_str()); }

HRESULT STDMETHODCALLTYPE SimInterface::QueryInterface(REFIID riid, void** ppv) {
  if (ppv == nullptr) return E_POINTER;
  *ppv = nullptr;
  if (IsEqualGUID(riid, IID_IUnknown) || IsEqualGUID(riid, IID_IMbnInterface)) {
    *ppv = static_cast<IMbnInterface*>(this);
  } else if (IsEqualGUID(riid, IID_IMbnRegistration)) {
    bool null_out = false;
    HRESULT hr = Injected(Call::kQueryRegistration, FindInterface(id_, nullptr), &null_out);
    if (FAILED(hr)) return hr;
    if (null_out) return S_OK;
    *ppv = static_cast<IMbnRegistration*>(this);
  } else {
    return E_NOINTERFACE;
  }
  AddRef();
  return S_OK;
}

HRESULT SimInterface::Begin(Call call, void* out, InterfaceInfo* info, bool* null_out) {
  if (out == nullptr) return E_POINTER;
  int index = FindInterface(id_, info);
  if (index < 0) return kInterfaceGone;
  return Injected(call, index, null_out);
}

HRESULT STDMETHODCALLTYPE SimInterface::get_InterfaceID(BSTR* id) {
  InterfaceInfo info;
  HRESULT hr = Begin(Call::kGetInterfaceId, id, &info, nullptr);
  if (hr != S_OK) return hr;
  *id = NewBstr(id_);
  return S_OK;
}

HRESULT STDMETHODCALLTYPE SimInterface::GetSubscriberInformation(IMbnSubscriberInformation** out) {
  InterfaceInfo info;
  bool null_out = false;
  HRESULT hr = Begin(Call::kGetSubscriberInformation, out, &info, &null_out);
  if (hr != S_OK) return hr;
  *out = null_out ? nullptr : new SimSubscriber(id_);
  return S_OK;
}

HRESULT STDMETHODCALLTYPE SimInterface::GetReadyState(MBN_READY_STATE* state) {
  InterfaceInfo info;
  HRESULT hr = Begin(Call::kGetReadyState, state, &info, nullptr);
  if (hr != S_OK) return hr;
  *state = static_cast<MBN_READY_STATE>(info.ready_state);
  return S_OK;
}

HRESULT STDMETHODCALLTYPE SimInterface::GetHomeProvider(MBN_PROVIDER* provider) {
  InterfaceInfo info;
  HRESULT hr = Begin(Call::kGetHomeProvider, provider, &info, nullptr);
  if (hr != S_OK) return hr;
  // The caller frees both strings.
  provider->providerID = NewBstr(info.home_provider_id);
  provider->providerState = 0x1 | 0x8 | 0x10;  // home, visible, registered
  provider->providerName = NewBstr(info.home_provider_name);
  provider->dataClass = 0x20;  // LTE; callers are told to ignore it here
  return S_OK;
}

HRESULT STDMETHODCALLTYPE SimInterface::GetRegisterState(MBN_REGISTER_STATE* state) {
  InterfaceInfo info;
  HRESULT hr = Begin(Call::kGetRegisterState, state, &info, nullptr);
  if (hr != S_OK) return hr;
  *state = info.registered_provider_id.empty() ? MBN_REGISTER_STATE_SEARCHING
           : info.registered_provider_id == info.home_provider_id ? MBN_REGISTER_STATE_HOME
                                                                   : MBN_REGISTER_STATE_ROAMING;
  return S_OK;
}

HRESULT STDMETHODCALLTYPE SimInterface::GetProviderID(BSTR* id) {
  InterfaceInfo info;
  HRESULT hr = Begin(Call::kGetProviderId, id, &info, nullptr);
  if (hr != S_OK) return hr;
  *id = NewBstr(info.registered_provider_id);
  return S_OK;
}

HRESULT STDMETHODCALLTYPE SimSubscriber::QueryInterface(REFIID riid, void** ppv) {
  return QueryOne<IMbnSubscriberInformation>(this, IID_IMbnSubscriberInformation, riid, ppv);
}

HRESULT SimSubscriber::Read(Call call, BSTR* out, std::string InterfaceInfo::*field) {
  if (out == nullptr) return E_POINTER;
  InterfaceInfo info;
  int index = FindInterface(id_, &info);
  if (index < 0) return kInterfaceGone;
  HRESULT hr = Injected(call, index, nullptr);
  if (hr != S_OK) return hr;
  *out = NewBstr(info.*field);
  return S_OK;
}

HRESULT STDMETHODCALLTYPE SimSubscriber::get_SubscriberID(BSTR* id) {
  return Read(Call::kGetSubscriberId, id, &InterfaceInfo::subscriber_id);
}

HRESULT STDMETHODCALLTYPE SimSubscriber::get_SimIccID(BSTR* iccid) {
  return Read(Call::kGetSimIccId, iccid, &InterfaceInfo::iccid);
}

}  // namespace mbnsim
