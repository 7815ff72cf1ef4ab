// The simulated interface manager (IMbnInterfaceManager with its connection
// point container) and the connection point that both managers hand out.
#pragma once

#include "tools/mbnsim/event_hub.h"
#include "tools/mbnsim/sim_interface.h"

namespace mbnsim {

// A connection point for one event interface; its sinks are kept by the EventHub.
class SimConnectionPoint : public IConnectionPoint {
 public:
  // Failures are injected under `prefix` + "Advise" / "Unadvise".
  SimConnectionPoint(IConnectionPointContainer* container, REFIID iid, const char* prefix = "");

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
  std::string prefix_;
  RefCount refs_;
};

class SimInterfaceManager : public IMbnInterfaceManager, public IConnectionPointContainer {
 public:
  SimInterfaceManager() = default;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override { return refs_.AddRef(); }
  ULONG STDMETHODCALLTYPE Release() override { return refs_.Release(); }

  HRESULT STDMETHODCALLTYPE GetInterface(LPCWSTR interface_id, IMbnInterface** out) override;
  HRESULT STDMETHODCALLTYPE GetInterfaces(SAFEARRAY** out) override;

  HRESULT STDMETHODCALLTYPE EnumConnectionPoints(IEnumConnectionPoints**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE FindConnectionPoint(REFIID riid, IConnectionPoint** out) override;

 private:
  RefCount refs_;
};

// The class factory's work: a new manager, or the injected failure.
HRESULT CreateInterfaceManager(REFIID riid, void** ppv);

}  // namespace mbnsim
