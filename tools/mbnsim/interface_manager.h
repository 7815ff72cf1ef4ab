// The simulated interface manager (IMbnInterfaceManager with its connection
// point container) and the connection point that both managers hand out.
#pragma once

#include <olectl.h>

#include "tools/mbnsim/event_hub.h"
#include "tools/mbnsim/sim_interface.h"

namespace mbnsim {

// A connection point for one event interface; its sinks are kept by the EventHub.
class SimConnectionPoint : public IConnectionPoint {
 public:
  // Failures are injected under the manager's advise and unadvise calls.
  SimConnectionPoint(IConnectionPointContainer* container, REFIID iid, const ManagerCalls& calls);

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override { return refs_.AddRef(); }
  ULONG STDMETHODCALLTYPE Release() override;

  HRESULT STDMETHODCALLTYPE GetConnectionInterface(IID* iid) override;
  HRESULT STDMETHODCALLTYPE GetConnectionPointContainer(IConnectionPointContainer** out) override;
  HRESULT STDMETHODCALLTYPE Advise(IUnknown* sink, DWORD* cookie) override;
  HRESULT STDMETHODCALLTYPE Unadvise(DWORD cookie) override;
  HRESULT STDMETHODCALLTYPE EnumConnections(IEnumConnections**) override { return E_NOTIMPL; }

 private:
  IConnectionPointContainer* container_;  // one reference, dropped with the last one of ours
  IID iid_;
  ManagerCalls calls_;
  RefCount refs_;
};

// A manager: its own interface and a connection point container for one event
// interface. Failures are injected under its `calls` (the query for the
// container, FindConnectionPoint, and CreateInstance for the factory).
template <typename IManager>
class SimManager : public IManager, public IConnectionPointContainer {
 public:
  SimManager(REFIID manager_iid, REFIID events_iid, const ManagerCalls& calls)
      : manager_iid_(manager_iid), events_iid_(events_iid), calls_(calls) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (ppv == nullptr) return E_POINTER;
    *ppv = nullptr;
    if (IsEqualGUID(riid, IID_IUnknown) || IsEqualGUID(riid, manager_iid_)) {
      *ppv = static_cast<IManager*>(this);
    } else if (IsEqualGUID(riid, IID_IConnectionPointContainer)) {
      bool null_out = false;
      HRESULT hr = Injected(calls_.query_container, -1, &null_out);
      if (FAILED(hr)) return hr;
      if (null_out) return S_OK;
      *ppv = static_cast<IConnectionPointContainer*>(this);
    } else {
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return refs_.AddRef(); }
  ULONG STDMETHODCALLTYPE Release() override { return refs_.Release(); }

  HRESULT STDMETHODCALLTYPE EnumConnectionPoints(IEnumConnectionPoints**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE FindConnectionPoint(REFIID riid, IConnectionPoint** out) override {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    bool null_out = false;
    HRESULT hr = Injected(calls_.find_point, -1, &null_out);
    if (FAILED(hr) || null_out) return hr;
    if (!IsEqualGUID(riid, events_iid_)) return CONNECT_E_NOCONNECTION;
    *out = new SimConnectionPoint(this, events_iid_, calls_);
    return S_OK;
  }

 private:
  IID manager_iid_;
  IID events_iid_;
  ManagerCalls calls_;
  RefCount refs_;
};

// The class factory's work: a new manager of type T, or the failure injected
// under `calls`.create_instance.
template <typename T>
HRESULT CreateManager(const ManagerCalls& calls, REFIID riid, void** ppv) {
  if (ppv == nullptr) return E_POINTER;
  *ppv = nullptr;
  bool null_out = false;
  HRESULT hr = Injected(calls.create_instance, -1, &null_out);
  if (FAILED(hr) || null_out) return hr;
  EventHub::Get().Start();
  dorvane::ComPtr<T> manager;
  manager.attach(new T());
  return manager->QueryInterface(riid, ppv);
}

class SimInterfaceManager : public SimManager<IMbnInterfaceManager> {
 public:
  SimInterfaceManager()
      : SimManager(IID_IMbnInterfaceManager, IID_IMbnInterfaceManagerEvents, kInterfaceManagerCalls) {}

  HRESULT STDMETHODCALLTYPE GetInterface(LPCWSTR interface_id, IMbnInterface** out) override;
  HRESULT STDMETHODCALLTYPE GetInterfaces(SAFEARRAY** out) override;
};

// The class factory's work: a new manager, or the injected failure.
HRESULT CreateInterfaceManager(REFIID riid, void** ppv);

}  // namespace mbnsim
