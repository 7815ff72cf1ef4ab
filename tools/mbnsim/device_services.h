// The simulated device services: the manager (with its connection point for
// IMbnDeviceServicesEvents), the per-interface context, and the AT command
// device service "{ffffffff-abca-4b11-a4e2-f2fc87f94488}".
//
// Every request is answered on one of the simulator's delivery threads, by
// default after the call that started it has returned, with the request id that
// call handed out; the scenario can make a completion come early, late, never,
// twice, in fragments, with another id or another status. The AT commands are
// answered by the responder. Session state is kept in the scenario, so a
// session opened by one client is open for the next; SetCommand needs an open
// session and a payload smaller than the maximum command size.
#pragma once

#include <atomic>
#include <memory>

#include "tools/mbnsim/interface_manager.h"

namespace mbnsim {

inline constexpr char kAtDeviceServiceId[] = "{ffffffff-abca-4b11-a4e2-f2fc87f94488}";
// What SetCommand and CloseCommandSession answer when no command session is open.
inline constexpr HRESULT kNoSession = HRESULT_FROM_WIN32(ERROR_INVALID_STATE);

// Set when the simulator method that started a request has returned.
class CallGuard {
 public:
  CallGuard() : returned_(std::make_shared<std::atomic<bool>>(false)) {}
  ~CallGuard() { returned_->store(true); }
  CallGuard(const CallGuard&) = delete;
  CallGuard& operator=(const CallGuard&) = delete;
  std::shared_ptr<std::atomic<bool>> token() const { return returned_; }

 private:
  std::shared_ptr<std::atomic<bool>> returned_;
};

class SimDeviceService : public IMbnDeviceService {
 public:
  explicit SimDeviceService(std::string interface_id) : id_(std::move(interface_id)) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override { return refs_.AddRef(); }
  ULONG STDMETHODCALLTYPE Release() override { return refs_.Release(); }

  HRESULT STDMETHODCALLTYPE QuerySupportedCommands(ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE OpenCommandSession(ULONG* request_id) override;
  HRESULT STDMETHODCALLTYPE CloseCommandSession(ULONG* request_id) override;
  HRESULT STDMETHODCALLTYPE SetCommand(ULONG command_id, SAFEARRAY* data, ULONG* request_id) override;
  HRESULT STDMETHODCALLTYPE QueryCommand(ULONG, SAFEARRAY*, ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE OpenDataSession(ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE CloseDataSession(ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE WriteData(SAFEARRAY*, ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE get_InterfaceID(BSTR* id) override;
  HRESULT STDMETHODCALLTYPE get_DeviceServiceID(BSTR* id) override;
  HRESULT STDMETHODCALLTYPE get_IsCommandSessionOpen(BOOL* open) override;
  HRESULT STDMETHODCALLTYPE get_IsDataSessionOpen(BOOL* open) override;

 private:
  enum class Kind { kOpen, kClose, kSet };
  // Opens or closes the command session and queues its completion.
  HRESULT ChangeSession(const CallGuard& guard, bool open, ULONG* request_id);
  // Queues the completion of request `request_id` as the completion `call` says. By
  // default it is delivered once the method guarded by `guard` has returned and
  // the client has had a moment to store the request id, as a module's USB round
  // trip would give it; "early" delivers it before this returns instead.
  void Complete(const CallGuard& guard, Kind kind, Call call, ULONG request_id,
                ULONG response_id, HRESULT status, std::string answer);
  // Calls every advised sink with one completion. A set completion gets a data
  // array of its own per sink, filled with a pattern and destroyed as soon as
  // the sink returns, as the stack frees it.
  void Deliver(Kind kind, ULONG request_id, ULONG response_id, HRESULT status,
               const std::string& answer);

  std::string id_;
  RefCount refs_;
};

class SimDeviceServicesContext : public IMbnDeviceServicesContext {
 public:
  explicit SimDeviceServicesContext(std::string interface_id) : id_(std::move(interface_id)) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override { return refs_.AddRef(); }
  ULONG STDMETHODCALLTYPE Release() override { return refs_.Release(); }

  HRESULT STDMETHODCALLTYPE EnumerateDeviceServices(SAFEARRAY**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetDeviceService(BSTR service_id, IMbnDeviceService** out) override;
  HRESULT STDMETHODCALLTYPE get_MaxCommandSize(ULONG* size) override;
  HRESULT STDMETHODCALLTYPE get_MaxDataSize(ULONG* size) override;

 private:
  std::string id_;
  RefCount refs_;
};

class SimDeviceServicesManager : public SimManager<IMbnDeviceServicesManager> {
 public:
  SimDeviceServicesManager()
      : SimManager(IID_IMbnDeviceServicesManager, IID_IMbnDeviceServicesEvents,
                   kDeviceServicesCalls) {}

  HRESULT STDMETHODCALLTYPE GetDeviceServicesContext(BSTR interface_id,
                                                     IMbnDeviceServicesContext** out) override;
};

// The class factory's work: a new device services manager, or the injected failure.
HRESULT CreateDeviceServicesManager(REFIID riid, void** ppv);

}  // namespace mbnsim
