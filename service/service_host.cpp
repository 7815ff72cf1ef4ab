#include "service/service_host.h"

#include <new>

#include "service/service_start.h"

namespace dorvane {

namespace {

SERVICE_STATUS_HANDLE RegisterHandler(const char* name, LPHANDLER_FUNCTION handler) {
  return ::RegisterServiceCtrlHandlerA(name, handler);
}

BOOL SetStatus(SERVICE_STATUS_HANDLE handle, SERVICE_STATUS* status) {
  return ::SetServiceStatus(handle, status);
}

HANDLE CreateStopEvent() { return ::CreateEventA(nullptr, TRUE, FALSE, nullptr); }

DWORD StartWork() { return CServiceStart::StartWork(); }

void StopWork() { CServiceStart::StopWork(); }

ServiceHost* ProcessHost() {
  // Built before the dispatcher is entered and never freed: the manager may call
  // the handler until the process ends.
  static ServiceHost* host = new (std::nothrow) ServiceHost(DefaultServiceHooks());
  return host;
}

}  // namespace

ServiceHooks DefaultServiceHooks() {
  return ServiceHooks{RegisterHandler, SetStatus, CreateStopEvent, StartWork, StopWork,
                      ServiceHandler};
}

ServiceHost::ServiceHost(const ServiceHooks& hooks) : hooks_(hooks) {}

void ServiceHost::Report(DWORD state, DWORD wait_hint) {
  std::lock_guard<std::mutex> lock(report_lock_);
  ReportLocked(state, wait_hint);
}

void ServiceHost::ReportCurrentState(DWORD wait_hint) {
  // The state is read under the same lock that the main routine's reports take:
  // a stop-pending report must never reach the manager after the final stopped
  // one, or the manager shows the service stop-pending for ever.
  std::lock_guard<std::mutex> lock(report_lock_);
  ReportLocked(status_.dwCurrentState, wait_hint);
}

void ServiceHost::ReportLocked(DWORD state, DWORD wait_hint) {
  status_.dwCurrentState = state;
  status_.dwControlsAccepted = state == SERVICE_START_PENDING ? 0 : SERVICE_ACCEPT_STOP;
  status_.dwWin32ExitCode = NO_ERROR;
  status_.dwServiceSpecificExitCode = 0;
  status_.dwWaitHint = wait_hint;
  if (state == SERVICE_RUNNING || state == SERVICE_STOPPED) {
    status_.dwCheckPoint = 0;
  } else {
    status_.dwCheckPoint = check_point_++;
  }
  hooks_.set_status(status_handle_, &status_);
}

void ServiceHost::Main() {
  status_handle_ = hooks_.register_handler(kServiceName, hooks_.handler);
  if (status_handle_ == nullptr) return;

  status_.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  Report(SERVICE_START_PENDING, 3000);

  stop_event_ = hooks_.create_stop_event();
  if (stop_event_ != nullptr) {
    // Running is reported before any start work on purpose: the 3000 ms hint
    // covers only the registration, and a slow start (legacy removal, COM) must
    // not make the manager give up on the service.
    Report(SERVICE_RUNNING, 0);
    hooks_.start_work();  // failures are in the log only
    ::WaitForSingleObject(stop_event_, INFINITE);
    hooks_.stop_work();
  }
  Report(SERVICE_STOPPED, 0);
}

void ServiceHost::Control(DWORD control) {
  if (control != SERVICE_CONTROL_STOP) return;
  Report(SERVICE_STOP_PENDING, 0);
  ::SetEvent(stop_event_);
  // Said again with whatever state the record holds now: still stop-pending
  // unless the main routine has already reported stopped.
  ReportCurrentState(0);
}

void WINAPI ServiceMain(DWORD, LPSTR*) {
  if (ServiceHost* host = ProcessHost()) host->Main();
}

void WINAPI ServiceHandler(DWORD control) {
  if (ServiceHost* host = ProcessHost()) host->Control(control);
}

int RunServiceProcess() {
  // The name is the one string of both the table and the handler registration.
  static char name[] = "WWAN Dorvane";
  SERVICE_TABLE_ENTRYA table[] = {{name, ServiceMain}, {nullptr, nullptr}};
  ProcessHost();
  ::StartServiceCtrlDispatcherA(table);
  return 0;
}

}  // namespace dorvane
