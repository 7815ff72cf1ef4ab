#include "tools/mbnsim/interface_manager.h"

#include <objbase.h>
#include <olectl.h>

#include <vector>

#include "util/com_ptr.h"

namespace mbnsim {

// -- SimConnectionPoint -------------------------------------------------------------

SimConnectionPoint::SimConnectionPoint(IConnectionPointContainer* container, REFIID iid,
                                       const ManagerCalls& calls)
    : container_(container), iid_(iid), calls_(calls) {
  container_->AddRef();
}

HRESULT STDMETHODCALLTYPE SimConnectionPoint::QueryInterface(REFIID riid, void** ppv) {
  return QueryOne<IConnectionPoint>(this, IID_IConnectionPoint, riid, ppv);
}

ULONG STDMETHODCALLTYPE SimConnectionPoint::Release() {
  ULONG left = refs_.Release();
  if (left == 0 && container_ != nullptr) {
    IConnectionPointContainer* container = container_;
    container_ = nullptr;
    container->Release();
  }
  return left;
}

HRESULT STDMETHODCALLTYPE SimConnectionPoint::GetConnectionInterface(IID* iid) {
  if (iid == nullptr) return E_POINTER;
  *iid = iid_;
  return S_OK;
}

HRESULT STDMETHODCALLTYPE SimConnectionPoint::GetConnectionPointContainer(
    IConnectionPointContainer** out) {
  if (out == nullptr) return E_POINTER;
  *out = container_;
  if (container_) container_->AddRef();
  return container_ ? S_OK : E_UNEXPECTED;
}

HRESULT STDMETHODCALLTYPE SimConnectionPoint::Advise(IUnknown* sink, DWORD* cookie) {
  if (sink == nullptr || cookie == nullptr) return E_POINTER;
  HRESULT hr = Injected(calls_.advise, -1, nullptr);
  if (FAILED(hr)) return hr;
  // As the real stack does: the sink must answer for the event interface.
  IUnknown* events = nullptr;
  if (FAILED(sink->QueryInterface(iid_, reinterpret_cast<void**>(&events))) || events == nullptr) {
    return CONNECT_E_CANNOTCONNECT;
  }
  *cookie = EventHub::Get().Advise(events, iid_, this);
  return S_OK;
}

HRESULT STDMETHODCALLTYPE SimConnectionPoint::Unadvise(DWORD cookie) {
  HRESULT hr = Injected(calls_.unadvise, -1, nullptr);
  if (FAILED(hr)) return hr;
  if (!EventHub::Get().Unadvise(cookie, this)) {
    Tracker::BadUnadvise();
    return CONNECT_E_NOCONNECTION;
  }
  return S_OK;
}

// -- SimInterfaceManager ------------------------------------------------------------

HRESULT STDMETHODCALLTYPE SimInterfaceManager::GetInterface(LPCWSTR interface_id,
                                                            IMbnInterface** out) {
  if (interface_id == nullptr || out == nullptr) return E_POINTER;
  *out = nullptr;
  bool null_out = false;
  HRESULT hr = Injected(Call::kGetInterface, -1, &null_out);
  if (FAILED(hr) || null_out) return hr;
  const std::string id = WideToAnsi(interface_id);
  if (FindInterface(id, nullptr) < 0) return E_INVALIDARG;
  *out = new SimInterface(id);
  return S_OK;
}

HRESULT STDMETHODCALLTYPE SimInterfaceManager::GetInterfaces(SAFEARRAY** out) {
  if (out == nullptr) return E_POINTER;
  *out = nullptr;
  const Injection inj = Consult(Call::kGetInterfaces, -1);
  if (inj.kind == Injection::kFail) return inj.hr;
  if (inj.kind == Injection::kNull) return S_OK;
  const std::vector<InterfaceInfo> all = ReadInterfaces();
  const ULONG count = static_cast<ULONG>(all.size());
  if (inj.kind == Injection::kWrongType) {
    // Not an array of interfaces at all: a client must check before reading.
    *out = ::SafeArrayCreateVector(VT_I4, 0, count);
    return *out ? S_OK : E_OUTOFMEMORY;
  }
  SAFEARRAY* array = ::SafeArrayCreateVector(VT_UNKNOWN, 0, count);
  if (array == nullptr) return E_OUTOFMEMORY;
  for (LONG i = 0; i < static_cast<LONG>(count); ++i) {
    if (inj.kind == Injection::kNullElement && i == 0) continue;
    ComPtr<SimInterface> iface;
    iface.attach(new SimInterface(all[static_cast<size_t>(i)].interface_id));
    // The array takes its own reference; ours goes with `iface`.
    ::SafeArrayPutElement(array, &i, static_cast<IMbnInterface*>(iface.get()));
  }
  *out = array;
  return S_OK;
}

HRESULT CreateInterfaceManager(REFIID riid, void** ppv) {
  return CreateManager<SimInterfaceManager>(kInterfaceManagerCalls, riid, ppv);
}

}  // namespace mbnsim
