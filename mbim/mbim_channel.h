// CMbimChannel: the AT command channel to the module over the MBIM vendor device
// service "{ffffffff-abca-4b11-a4e2-f2fc87f94488}".
//
// Construction creates the interface manager and the device services manager
// and advises the sink (InitMbn); each exchange looks up the first interface,
// its services context and the device service afresh and releases them at the
// end; destruction unadvises and releases everything (UninitMbn).
//
// Threads: construct, exchange and destroy on one thread of the multithreaded
// apartment (the constructor enters it, the destructor leaves it); completions
// arrive on COM's threads.
//
//   CMbimChannel channel;
//   if (channel.IsInterfaceReady()) {
//     std::string text, hex;
//     if (channel.ExchangeCommand("AT\r\n", text, hex) == 0) { ...text... }
//   }
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "mbim/services_events.h"
#include "util/com_ptr.h"
#include "util/mbnapi.h"

namespace dorvane {

inline constexpr char kAtDeviceServiceId[] = "{ffffffff-abca-4b11-a4e2-f2fc87f94488}";

// How an exchange went, for a caller that names why it failed: the exchange's
// result and log lines are the same whether or not anyone looks. The result
// alone cannot tell: after a failed step the close wait's result replaces it.
struct ExchangeReport {
  // The first step that failed ("GetService", "get_IsCommandSessionOpen",
  // "OpenCommandSession", "StrToSafeArray", "SetCommand", or the wait for the
  // answer, "SetCommandTimeout"); null when none did. `hr` is its result (1
  // for the wait).
  const char* step = nullptr;
  HRESULT hr = S_OK;
  bool opened = false;  // the exchange opened the session it used
  // The waits for the open and the close completion ran out (the exchange
  // goes on after the first; the second is waited for only after a failure).
  bool open_wait_ran_out = false;
  bool close_wait_ran_out = false;
  // What the completions said (CrMbimServicesEvents::kNoCompletion: none came).
  HRESULT open_status = CrMbimServicesEvents::kNoCompletion;
  HRESULT set_status = CrMbimServicesEvents::kNoCompletion;
  HRESULT close_status = CrMbimServicesEvents::kNoCompletion;
  bool set_unmatched = false;
};

class CMbimChannel {
 public:
  // Runs InitMbn; a channel whose initialisation failed is still a channel,
  // only IsInterfaceReady tells that it is unusable. `wait_ms` bounds each wait
  // for a completion.
  explicit CMbimChannel(DWORD wait_ms = 5000);
  ~CMbimChannel();
  CMbimChannel(const CMbimChannel&) = delete;
  CMbimChannel& operator=(const CMbimChannel&) = delete;

  HRESULT InitMbn();
  // True when the first interface of the manager can be taken.
  bool IsInterfaceReady();
  // Takes the interface at the array's lower bound into the interface member.
  HRESULT GetInterface();
  // Takes the interface, its services context and the AT device service.
  HRESULT GetService();
  HRESULT AdviseEvent(DWORD* cookie, IUnknown* sink, REFIID iid);
  HRESULT UnadviseEvent(DWORD cookie);
  void UninitMbn();

  // Sends `command` (already framed) in a command session and collects the
  // answer. 0 on success; `answer_text` is assigned, `answer_hex` appended to.
  DWORD ExchangeCommand(const std::string& command, std::string& answer_text,
                        std::string& answer_hex);
  // How the last ExchangeCommand went.
  const ExchangeReport& last_report() const { return report_; }
  // The command as a byte array (no terminator); appends its pending entry.
  SAFEARRAY* StrToSafeArray(const std::string& command);

  // The list of commands on their way; the sink shares it and may outlive the
  // channel. Emptied when the channel is torn down.
  std::shared_ptr<const PendingList> pending() const { return pending_; }

 private:
  void ReleaseService();
  // Looks up the service, opens a session unless one is open, sends and waits;
  // returns the running result of those steps.
  HRESULT SendInSession(const std::string& command, std::string& answer_text,
                        std::string& answer_hex);
  // Closes a session this exchange opened; waits for the close only after a
  // failure. Returns the exchange's result.
  HRESULT CloseSession(HRESULT hr);
  // The sink's waits; without a sink (its allocation failed) each reads as a
  // time-out.
  DWORD WaitForOpen();
  DWORD WaitForSet();
  DWORD WaitForClose();
  // Keeps the first failing step for the report; gives `hr` back.
  HRESULT Failed(const char* step, HRESULT hr);

  ComPtr<IMbnInterfaceManager> interface_manager_;
  ComPtr<IMbnDeviceServicesManager> services_manager_;
  ComPtr<CrMbimServicesEvents> sink_;
  ComPtr<IMbnInterface> interface_;
  ComPtr<IMbnDeviceService> device_service_;
  ComPtr<IMbnDeviceServicesContext> services_context_;
  ComPtr<IConnectionPoint> connection_point_;
  ComPtr<IConnectionPointContainer> container_;
  DWORD cookie_ = 0;
  DWORD session_open_ = 0;
  const DWORD command_id_ = 1;
  const std::string device_service_id_ = kAtDeviceServiceId;
  std::string text_a_;
  // Shared with the sink, which may outlive the channel (its second text
  // member is the list's `note`). Never null.
  std::shared_ptr<PendingList> pending_;
  DWORD wait_ms_;
  ExchangeReport report_;
};

}  // namespace dorvane
