#include "service/housekeeping.h"

#include <cstdio>

#include "log/logger.h"
#include "util/scoped_handle.h"

namespace dorvane {

void SetRecoveryPolicy() {
  UINT code = ::WinExec(
      "sc failure \"WWAN Dorvane\" reset= 86400 actions= "
      "restart/30000/restart/30000/restart/30000",
      SW_HIDE);
  Logger::GetInstance()->Write(kLogDetail, "service Properties->recovery ,Code=%d(should >31)",
                               static_cast<int>(code));
}

namespace {

// These lines are formatted first and then logged as ready-made texts.
void LogFormatted(const char* format, DWORD value) {
  char line[260];
  std::snprintf(line, sizeof line, format, static_cast<int>(value));
  Logger::GetInstance()->Write(kLogDetail, std::string(line));
}

void LogText(const char* text) { Logger::GetInstance()->Write(kLogDetail, std::string(text)); }

}  // namespace

DWORD RemoveLegacyService(const char* name) {
  Logger* log = Logger::GetInstance();
  log->Write(kLogDetail, "[Infomation][CStateWork::ServiceCheckThead] Enter ServiceCheckThead.");

  UniqueServiceHandle manager(::OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
  if (!manager) {
    LogFormatted("OpenSCManager failed (%d)", ::GetLastError());
    return 0;
  }
  UniqueServiceHandle service(
      ::OpenServiceA(manager.get(), name, DELETE | SERVICE_STOP | SERVICE_QUERY_STATUS));
  if (!service) {
    LogFormatted("OpenService failed (%d)", ::GetLastError());
    return 0;
  }
  SERVICE_STATUS status = {};
  if (!::ControlService(service.get(), SERVICE_CONTROL_STOP, &status)) {
    LogText("Service stop Failed.");
    return 0;
  }
  ::Sleep(1000);
  while (::QueryServiceStatus(service.get(), &status) &&
         status.dwCurrentState == SERVICE_STOP_PENDING) {
    ::Sleep(1000);
  }
  if (status.dwCurrentState == SERVICE_STOPPED) {
    LogText("Service dwCurrentState == SERVICE_STOPPED");
  }
  if (!::DeleteService(service.get())) {
    LogText("Service removed Failed");
    return 0;
  }
  LogText("Service removed successfully");
  service.reset();
  manager.reset();
  log->Write(kLogDetail, "[Infomation][CStateWork::ServiceCheckThead] ServiceCheckThead done.");
  return 1;
}

}  // namespace dorvane
