// The service-control side of the process: the status record, the service main
// routine, the control handler and the stop event.
//
// ServiceHost owns every status report (one function, Report, builds and sends
// them all) and the check-point counter. The operating system calls it through
// the plain functions ServiceMain and ServiceHandler, which forward to the
// process-wide host. Tests build their own host with replaced hooks and drive
// Main and Control directly.
//
// Threads: Control runs on the dispatcher thread, Main on the thread the manager
// creates for the service. The stop event is their only hand-over; each status
// report (filling the record and sending it) is made whole under a lock, so the
// manager receives the reports in the order the record went through them.
#pragma once

#include <windows.h>

#include <mutex>

namespace dorvane {

inline constexpr char kServiceName[] = "WWAN Dorvane";

// The operating-system and start/stop calls the host makes; each can be
// replaced by a test. Every member must be set.
struct ServiceHooks {
  SERVICE_STATUS_HANDLE (*register_handler)(const char* name, LPHANDLER_FUNCTION handler);
  BOOL (*set_status)(SERVICE_STATUS_HANDLE handle, SERVICE_STATUS* status);
  HANDLE (*create_stop_event)();
  DWORD (*start_work)();
  void (*stop_work)();
  LPHANDLER_FUNCTION handler;  // what register_handler is given
};

// The hooks of the real service: advapi32, CreateEventA and CServiceStart.
ServiceHooks DefaultServiceHooks();

class ServiceHost {
 public:
  explicit ServiceHost(const ServiceHooks& hooks);
  ServiceHost(const ServiceHost&) = delete;
  ServiceHost& operator=(const ServiceHost&) = delete;

  // The service main routine: reports start-pending and running, runs the start
  // work, sleeps until a stop request, runs the stop work, reports stopped.
  void Main();

  // The control handler: only SERVICE_CONTROL_STOP is acted upon.
  void Control(DWORD control);

  const SERVICE_STATUS& status() const { return status_; }

 private:
  // Fills the record by the common rule and sends it: controls accepted 0 while
  // start-pending, else stop; check-point 0 when running or stopped, else the
  // next counter value.
  void Report(DWORD state, DWORD wait_hint);
  // The same, with the state the record holds at the moment of the report.
  void ReportCurrentState(DWORD wait_hint);
  void ReportLocked(DWORD state, DWORD wait_hint);

  ServiceHooks hooks_;
  SERVICE_STATUS status_ = {};
  SERVICE_STATUS_HANDLE status_handle_ = nullptr;
  // Manual-reset. Deliberately never closed: the control handler may still set it
  // while the process winds down.
  HANDLE stop_event_ = nullptr;
  DWORD check_point_ = 1;
  std::mutex report_lock_;
};

// Entry points handed to the service control manager; they forward to the
// process-wide host built with DefaultServiceHooks.
void WINAPI ServiceMain(DWORD argc, LPSTR* argv);
void WINAPI ServiceHandler(DWORD control);

// Runs the dispatcher for "WWAN Dorvane". Returns 0 whatever the dispatcher did.
int RunServiceProcess();

}  // namespace dorvane
