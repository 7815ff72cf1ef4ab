#include "service/service_start.h"

#include "log/logger.h"
#include "monitor/mbn_monitor.h"
#include "monitor/state_work.h"

namespace dorvane {

DWORD CServiceStart::StartWork() {
  Logger* log = Logger::GetInstance();
  log->SetLogPath(kServiceLogPath);
  log->Enable(true);
  log->Write(kLogDetail, "[Information][CServiceStart::StartWork] Service start, StartWork Enter  >> ");

  DWORD result = 0;
  CStateWork* worker = CStateWork::GetInstance();
  if (worker->InitWork() == 0) {
    log->Write(kLogError, "[Error][CServiceStart::StartWork] InitWork Fail.");
  } else {
    // The thread runs from here on even if the sink cannot be attached.
    worker->Start();
    if (CMbnMonitor::GetInstance()->AttachStateMbnRegEvent() == 0) {
      log->Write(kLogError, "[Error][CServiceStart::StartWork] AttachStateMbnRegEvent Fail.");
    } else {
      log->Write(kLogDetail, "----Service start-------------");
      // The worker treats a service start like a fresh SIM.
      SetSimChangeEvent(*worker, "StartService", "");
      result = 1;
    }
  }
  log->Write(kLogDetail, "[Information][CServiceStart::StartWork] StartWork Done.");
  return result;
}

void CServiceStart::StopWork() {
  CMbnMonitor::GetInstance()->Detach();
  CStateWork::GetInstance()->Stop();
  Logger::GetInstance()->Write(kLogDetail,
                               "[Infomation][CServiceStart::StopWork] Stop work success.\r\n\r\n");
}

}  // namespace dorvane
