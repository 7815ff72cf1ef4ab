// The simulated interface manager (IMbnInterfaceManager with its connection
// point container), its connection point for IMbnInterfaceManagerEvents, and the
// hub that delivers arrival and removal events to every advised sink from a
// thread of the simulator, as the real stack does from its own threads.
#pragma once

#include <map>
#include <mutex>

#include "tools/mbnsim/sim_interface.h"

namespace mbnsim {

// The advised sinks of this process, and the thread that delivers events to them.
class EventHub {
 public:
  static EventHub& Get();

  // Starts the delivery thread once per process. Events posted before the first
  // call are not delivered.
  void Start();
  DWORD Advise(IMbnInterfaceManagerEvents* sink, const void* owner);
  // False when `cookie` was not given out by `owner` (or is already unadvised).
  bool Unadvise(DWORD cookie, const void* owner);

 private:
  struct Entry {
    IMbnInterfaceManagerEvents* sink;  // one reference, held while advised
    const void* owner;
  };

  static DWORD WINAPI ThreadMain(LPVOID self);
  void Run();
  void Deliver(const Event& event);

  std::mutex mutex_;
  std::map<DWORD, Entry> sinks_;
  DWORD next_cookie_ = 1;
  DWORD last_seq_ = 0;
  bool started_ = false;
};

class SimConnectionPoint : public IConnectionPoint {
 public:
  explicit SimConnectionPoint(IConnectionPointContainer* container);

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
