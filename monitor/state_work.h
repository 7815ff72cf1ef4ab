// CStateWork: the service's worker.
//
// It owns five auto-reset events (REG_CHANGE, SIM_CHANGE, STOP_EVENT,
// SUSPEND_EVENT, RESUME_EVENT, also the order of the wait array and so the
// priority), watches the service's registry key, receives suspend and resume,
// and runs one thread whose loop logs each happening until STOP_EVENT is taken.
// Other parts reach it only by signalling its events.
//
// Threads: InitWork, Start and Stop run on the service main thread, the loop on
// the worker thread, the power callback on the system's notification thread.
// mccmnc and iccid are written from the worker and from COM threads, each under
// a critical section of its own; nothing in the service reads them back.
//
//   CStateWork* w = CStateWork::GetInstance();
//   if (w->InitWork()) w->Start();
//   ...
//   w->Stop();   // signals STOP_EVENT and waits for the thread
#pragma once

#include <windows.h>

#include <string>

#include "mbim/mbim_channel.h"
#include "monitor/power_notify.h"

namespace dorvane {

class Logger;
class CMbimChannel;

inline constexpr char kServiceRegKey[] = "SYSTEM\\CurrentControlSet\\Services\\WWAN\\Dorvane";

// What a test may replace; the service uses the defaults.
struct WorkerOptions {
  Logger* log = nullptr;                   // null: the process-wide logger
  std::string log_path;                    // empty: the service's log path
  DWORD wake_period_ms = 10000;
  // Waits on the five events; WaitForMultipleObjects unless replaced.
  DWORD (*wait)(DWORD count, const HANDLE* handles, DWORD timeout_ms) = nullptr;
  // Creates event `index` (0..4); CreateEventA auto-reset unless replaced.
  HANDLE (*create_event)(int index) = nullptr;
  // How long the AT channel waits for each completion.
  DWORD mbim_wait_ms = 5000;
};

class CStateWork {
 public:
  enum EventIndex { REG_CHANGE = 0, SIM_CHANGE, STOP_EVENT, SUSPEND_EVENT, RESUME_EVENT, kEventCount };

  // The process-wide worker, created on first use and never destroyed.
  static CStateWork* GetInstance();

  explicit CStateWork(WorkerOptions options = WorkerOptions());
  ~CStateWork();
  CStateWork(const CStateWork&) = delete;
  CStateWork& operator=(const CStateWork&) = delete;

  // Creates the events and arms the registry watch. 1 on success, 0 when an
  // event other than SIM_CHANGE could not be created.
  DWORD InitWork();
  // Registers for suspend/resume and creates the worker thread.
  void Start();
  // Signals STOP_EVENT and waits, without time-out, for the thread to end.
  void Stop();

  // Power callback: suspend sets SUSPEND_EVENT, resume from suspend sets
  // RESUME_EVENT; every other type is ignored. Always 0.
  static ULONG CALLBACK PowerCallback(PVOID context, ULONG type, PVOID setting);
  // Thread routine: logs its entry and runs Work. Returns 1.
  static DWORD WINAPI TheadWork(LPVOID context);

  // Start-up housekeeping (recovery policy, COM, legacy removal, SIM query),
  // then the loop until STOP_EVENT.
  void Work();
  // The wait loop alone; returns when STOP_EVENT is taken.
  void Loop();

  // Reads ICCID and home provider of the modem's SIM into iccid / mccmnc. The
  // status is informational only.
  DWORD GetSimInfo();
  // Removes the legacy service "Lumarix". 1 when deleted.
  DWORD ServiceCheckThead();

  // Opens the AT command channel. False when there is no channel or no usable
  // interface; the channel is kept all the same, so every CheckMBIM is paired
  // with a FreeMBIM on the same thread. A channel already held is not freed
  // first, only overwritten (deployed callers never call it twice).
  bool CheckMBIM();
  // Destroys the channel: 1 when there was one, 0 (nothing logged) otherwise.
  DWORD FreeMBIM();
  // Sends one AT command (without CR LF) and judges the answer: true when it is
  // non-empty and holds no "error" in any case; then `result` gets the answer
  // with its blanks removed. Otherwise `result` is left as it was.
  bool ExecuteCmd(std::string command, std::string& result);

  // Everything one AT command brought back.
  struct CmdAnswer {
    // ExchangeCommand's result: 0 when the exchange went through, 1 when no
    // completion came in time, otherwise the failing step's HRESULT (E_POINTER
    // without a channel).
    DWORD exchange = 0;
    // The answer with its blanks removed; empty when the exchange failed.
    std::string text;
    // What ExecuteCmd accepts: the exchange went through and the text is
    // non-empty and holds no "error" in any case.
    bool good = false;
    // The answer as the channel collected it, blanks kept, also when the
    // exchange's result says it failed (empty when nothing came).
    std::string raw;
    // How the exchange went, step by step (see ExchangeReport); empty without
    // a channel.
    ExchangeReport report;
  };
  // ExecuteCmd's work, with the same pause and the same log lines in the same
  // order, that also hands back what ExecuteCmd keeps to itself: an answer
  // judged bad and the exchange's result.
  CmdAnswer SendCmd(std::string command);
  CMbimChannel* channel() const { return channel_; }

  HANDLE event(int index) const { return events_[index]; }
  // Copies, taken under the texts' critical sections.
  std::string mccmnc() const;
  std::string iccid() const;

 private:
  friend void SetSimChangeEvent(CStateWork& worker, std::string source, std::string detail);

  Logger* log() const;
  HANDLE CreateWorkerEvent(int index);

  WorkerOptions options_;
  DEVICE_NOTIFY_SUBSCRIBE_PARAMETERS power_params_ = {};
  HPOWERNOTIFY power_handle_ = nullptr;
  DWORD power_result_ = 1;
  HANDLE thread_ = nullptr;
  // The events, the registry key and the thread handle stay open until the
  // process ends: the worker is never destroyed in the service, and the key's
  // pending change notification must outlive every wait on REG_CHANGE.
  HANDLE events_[kEventCount] = {};
  // Stores a text under its critical section.
  void SetMccmnc(const std::string& text);
  void SetIccid(const std::string& text);

  // Written by SetSimChangeEvent on COM's threads and by GetSimInfo on the
  // worker at the same time: each is guarded by its own critical section.
  // Both sections are made by the constructor (not by InitWork, which could
  // come after an event thread's first use), and deleted by the destructor.
  std::string mccmnc_;  // guarded by cs_mccmnc_
  std::string iccid_;   // guarded by cs_iccid_
  mutable CRITICAL_SECTION cs_mccmnc_;
  mutable CRITICAL_SECTION cs_iccid_;
  HKEY service_key_ = nullptr;
  CMbimChannel* channel_ = nullptr;  // owned; see FreeMBIM
};

// Records where a SIM change came from and wakes the worker. A source other
// than "StartService" overwrites mccmnc with the source and iccid with the
// detail, so an arrival replaces what the SIM query read with the literal
// "OnInterfaceArrival" and an empty ICCID; this is how the deployed service
// behaves and it is kept. Both strings are released before return.
void SetSimChangeEvent(CStateWork& worker, std::string source, std::string detail);

}  // namespace dorvane
