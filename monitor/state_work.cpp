#include "monitor/state_work.h"

#include <objbase.h>

#include <new>

#include "log/logger.h"
#include "service/housekeeping.h"

namespace dorvane {

namespace {

DWORD RealWait(DWORD count, const HANDLE* handles, DWORD timeout_ms) {
  return ::WaitForMultipleObjects(count, handles, FALSE, timeout_ms);
}

HANDLE RealCreateEvent(int) { return ::CreateEventA(nullptr, FALSE, FALSE, nullptr); }

// Three hours of ten-second periods: the log's size is checked every 1080 wakes.
constexpr unsigned kLogCheckSeconds = 10800;
constexpr unsigned kWakeSeconds = 10;

}  // namespace

CStateWork* CStateWork::GetInstance() {
  static CStateWork* instance = new (std::nothrow) CStateWork();
  return instance;
}

CStateWork::CStateWork(WorkerOptions options) : options_(std::move(options)) {
  ::InitializeCriticalSection(&cs_mccmnc_);
  ::InitializeCriticalSection(&cs_iccid_);
  if (options_.log_path.empty()) options_.log_path = kServiceLogPath;
  if (options_.wait == nullptr) options_.wait = RealWait;
  if (options_.create_event == nullptr) options_.create_event = RealCreateEvent;
}

CStateWork::~CStateWork() {
  FreeMBIM();
  ::DeleteCriticalSection(&cs_mccmnc_);
  ::DeleteCriticalSection(&cs_iccid_);
}

namespace {

class Section {
 public:
  explicit Section(CRITICAL_SECTION* cs) : cs_(cs) { ::EnterCriticalSection(cs_); }
  ~Section() { ::LeaveCriticalSection(cs_); }
  Section(const Section&) = delete;
  Section& operator=(const Section&) = delete;

 private:
  CRITICAL_SECTION* cs_;
};

}  // namespace

std::string CStateWork::mccmnc() const {
  Section lock(&cs_mccmnc_);
  return mccmnc_;
}

std::string CStateWork::iccid() const {
  Section lock(&cs_iccid_);
  return iccid_;
}

void CStateWork::SetMccmnc(const std::string& text) {
  Section lock(&cs_mccmnc_);
  mccmnc_ = text;
}

void CStateWork::SetIccid(const std::string& text) {
  Section lock(&cs_iccid_);
  iccid_ = text;
}

Logger* CStateWork::log() const {
  return options_.log != nullptr ? options_.log : Logger::GetInstance();
}

HANDLE CStateWork::CreateWorkerEvent(int index) {
  events_[index] = options_.create_event(index);
  return events_[index];
}

DWORD CStateWork::InitWork() {
  // The two critical sections exist since construction: an interface event
  // may store its texts before this runs, or without it ever having run.
  thread_ = nullptr;
  // Not checked: without the key REG_CHANGE simply never fires.
  ::RegOpenKeyExA(HKEY_LOCAL_MACHINE, kServiceRegKey, 0, KEY_ALL_ACCESS, &service_key_);

  if (CreateWorkerEvent(REG_CHANGE) == nullptr) {
    log()->Write(kLogError, "[Fail][CStateWork::InitWork] Create REG_CHANGE Event Fail.");
    return 0;
  }
  // One notification per run: the watch is never armed again.
  ::RegNotifyChangeKeyValue(service_key_, TRUE, REG_NOTIFY_CHANGE_LAST_SET, events_[REG_CHANGE],
                            TRUE);
  if (CreateWorkerEvent(SIM_CHANGE) == nullptr) {
    // Unlike the other events this one does not fail the start.
    log()->Write(kLogError, "[Fail][CStateWork::InitWork] Create SIM_CHANGE Event Fail.");
  }
  if (CreateWorkerEvent(STOP_EVENT) == nullptr) {
    log()->Write(kLogError, "[Fail][CStateWork::InitWork] Create STOP_EVENT Event Fail.");
    return 0;
  }
  if (CreateWorkerEvent(SUSPEND_EVENT) == nullptr) {
    log()->Write(kLogError, "CreateEvent SUSPEND_EVENT Faild");
    return 0;
  }
  if (CreateWorkerEvent(RESUME_EVENT) == nullptr) {
    log()->Write(kLogError, "CreateEvent RESUME_EVENT Faild");
    return 0;
  }
  return 1;
}

void CStateWork::Start() {
  power_params_.Callback = PowerCallback;
  power_params_.Context = this;
  power_result_ = PowerRegisterSuspendResumeNotification(kDeviceNotifyCallback, &power_params_,
                                                         &power_handle_);
  thread_ = ::CreateThread(nullptr, 0, TheadWork, this, 0, nullptr);
}

void CStateWork::Stop() {
  ::SetEvent(events_[STOP_EVENT]);
  // With no thread (InitWork failed) the wait on a null handle returns at once.
  ::WaitForSingleObject(thread_, INFINITE);
}

ULONG CALLBACK CStateWork::PowerCallback(PVOID context, ULONG type, PVOID) {
  auto* worker = static_cast<CStateWork*>(context);
  if (type == PBT_APMSUSPEND) {
    ::SetEvent(worker->events_[SUSPEND_EVENT]);
  } else if (type == PBT_APMRESUMESUSPEND) {
    ::SetEvent(worker->events_[RESUME_EVENT]);
  }
  return 0;
}

DWORD WINAPI CStateWork::TheadWork(LPVOID context) {
  auto* worker = static_cast<CStateWork*>(context);
  worker->log()->Write(kLogDetail, "[Infomation][CStateWork::TheadWork] Enter TheadWork.");
  worker->Work();
  return 1;
}

DWORD CStateWork::ServiceCheckThead() { return RemoveLegacyService(kLegacyServiceName); }

void CStateWork::Work() {
  SetRecoveryPolicy();
  if (SUCCEEDED(::CoInitializeEx(nullptr, COINIT_MULTITHREADED))) {
    log()->Write(kLogDetail, "CoInitializeEx done");
  } else {
    log()->Write(kLogError, "CoInitializeEx error");
  }
  ServiceCheckThead();
  GetSimInfo();
  Loop();
  // COM is left initialised and the events stay open until the process ends.
}

void CStateWork::Loop() {
  unsigned wakes = 0;
  for (;;) {
    DWORD result = options_.wait(kEventCount, events_, options_.wake_period_ms);
    ++wakes;
    if (wakes * kWakeSeconds >= kLogCheckSeconds) {
      log()->Write(kLogDetail, "Set SetLogPath-----");
      wakes = 0;
      if (Logger* logger = log()) {
        logger->Close();
        logger->SetLogPath(options_.log_path);  // renames a log that reached 50 MiB
      }
    }
    switch (result) {
      case WAIT_OBJECT_0 + REG_CHANGE:
        log()->Write(kLogDetail,
                     "\n\n------------------------[CStateWork::Work] register "
                     "event-------------------\n");
        break;
      case WAIT_OBJECT_0 + SIM_CHANGE:
        log()->Write(kLogDetail,
                     "\n\n------------------------[[CStateWork::Work] OnInterfaceArrival "
                     "event--------------------\n");
        break;
      case WAIT_OBJECT_0 + STOP_EVENT:
        log()->Write(kLogDetail, "[Infomation][CStateWork::Work] Triger Service Stop Event.\n");
        if (power_result_ == 0) PowerUnregisterSuspendResumeNotification(power_handle_);
        return;
      case WAIT_OBJECT_0 + SUSPEND_EVENT:
        log()->Write(kLogDetail, "[Infomation][CStateWork::Work] Into S4 Event.\n");
        break;
      case WAIT_OBJECT_0 + RESUME_EVENT:
        log()->Write(kLogDetail, "[Infomation][CStateWork::Work] Resume from S4 Event.\n");
        break;
      default:
        // Time-out, and also WAIT_FAILED: a missing SIM_CHANGE makes every wait
        // fail at once, and the loop then just turns. Deployed behaviour, kept.
        break;
    }
  }
}

void SetSimChangeEvent(CStateWork& worker, std::string source, std::string detail) {
  if (source != "StartService") {
    worker.SetMccmnc(source);
    worker.SetIccid(detail);
  }
  Logger* log = worker.log();
  log->Write(kLogDetail, "SetSimChangeEvent mccmnc:");
  log->Write(kLogDetail, source);
  ::SetEvent(worker.events_[CStateWork::SIM_CHANGE]);
  std::string().swap(source);
  std::string().swap(detail);
}

}  // namespace dorvane
