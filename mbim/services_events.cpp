#include "mbim/services_events.h"

#include <cstring>

#include "log/logger.h"

namespace dorvane {

namespace {

HANDLE NewEvent() { return ::CreateEventA(nullptr, FALSE, FALSE, nullptr); }

DWORD WaitResult(HANDLE event, DWORD wait_ms) {
  return ::WaitForSingleObject(event, wait_ms) == WAIT_OBJECT_0 ? 0 : 1;
}

}  // namespace

CrMbimServicesEvents::CrMbimServicesEvents(std::string* text, std::vector<PendingCommand>* pending,
                                           DWORD wait_ms)
    : open_event_(NewEvent()),
      close_event_(NewEvent()),
      set_event_(NewEvent()),
      text_(text),
      pending_(pending),
      wait_ms_(wait_ms) {
  Logger::GetInstance()->Write(kLogDetail, "Create event");
}

CrMbimServicesEvents::~CrMbimServicesEvents() {
  open_event_.reset();
  set_event_.reset();
  close_event_.reset();
  Logger::GetInstance()->Write(kLogDetail, "Close event");
}

HRESULT STDMETHODCALLTYPE CrMbimServicesEvents::QueryInterface(REFIID riid, void** ppv) {
  if (std::memcmp(&riid, &IID_IMbnDeviceServicesEvents, sizeof(GUID)) != 0) return E_NOINTERFACE;
  AddRef();
  *ppv = static_cast<IMbnDeviceServicesEvents*>(this);
  return S_OK;
}

ULONG STDMETHODCALLTYPE CrMbimServicesEvents::AddRef() {
  return static_cast<ULONG>(::InterlockedIncrement(&ref_count_));
}

ULONG STDMETHODCALLTYPE CrMbimServicesEvents::Release() {
  LONG after = ::InterlockedDecrement(&ref_count_);
  if (after == 0) delete this;
  return static_cast<ULONG>(after);
}

HRESULT STDMETHODCALLTYPE CrMbimServicesEvents::OnOpenCommandSessionComplete(IMbnDeviceService*,
                                                                             HRESULT status,
                                                                             ULONG request_id) {
  // Any open completion releases the waiter, whatever its status or id.
  Logger::GetInstance()->Write(kLogDetail, "OnOpenCommandSessionComplete, requestID = %d",
                               static_cast<int>(request_id));
  ::SetEvent(open_event_.get());
  return status;
}

HRESULT STDMETHODCALLTYPE CrMbimServicesEvents::OnCloseCommandSessionComplete(IMbnDeviceService*,
                                                                              HRESULT status,
                                                                              ULONG request_id) {
  Logger::GetInstance()->Write(kLogDetail, "OnCloseCommandSessionComplete, requestID = %d",
                               static_cast<int>(request_id));
  ::SetEvent(close_event_.get());
  return status;
}

HRESULT STDMETHODCALLTYPE CrMbimServicesEvents::OnSetCommandComplete(IMbnDeviceService*, ULONG,
                                                                     SAFEARRAY* data, HRESULT status,
                                                                     ULONG request_id) {
  Logger* log = Logger::GetInstance();
  log->Write(kLogDetail, "OnSetCommandComplete, requestID = %d", static_cast<int>(request_id));
  // S_FALSE and every other non-zero code count as not OK; the waiter then runs
  // into its time-out.
  if (status != S_OK) {
    log->Write(kLogError, "OnSetCommandComplete-status-not-ok");
    return status;
  }
  PendingCommand* entry = nullptr;
  for (PendingCommand& candidate : *pending_) {
    if (candidate.request_id == request_id) {
      entry = &candidate;
      break;
    }
  }
  if (entry == nullptr) {
    log->Write(kLogError, "OnSetCommandComplete-no-match-command");
    return S_OK;
  }
  void* bytes = nullptr;
  if (FAILED(::SafeArrayAccessData(data, &bytes)) || bytes == nullptr) {
    log->Write(kLogError, "SafeArrayAccessData");
  } else {
    LONG lower = 0;
    LONG upper = 0;
    ::SafeArrayGetLBound(data, 1, &lower);
    ::SafeArrayGetUBound(data, 1, &upper);
    entry->answer_length = static_cast<int>(upper - lower + 1);
    if (entry->answer_length >= 1) {
      entry->answer_bytes.reset(new unsigned char[static_cast<size_t>(entry->answer_length)]);
      std::memcpy(entry->answer_bytes.get(), bytes, static_cast<size_t>(entry->answer_length));
    }
  }
  ::SafeArrayUnaccessData(data);
  log->Write(kLogDetail, "Set event");
  ::SetEvent(set_event_.get());
  return S_OK;
}

void CrMbimServicesEvents::ResetEvents() {
  ::ResetEvent(open_event_.get());
  ::ResetEvent(open_event_.get());
  ::ResetEvent(open_event_.get());
}

DWORD CrMbimServicesEvents::WaitForOpenEventFinish() { return WaitResult(open_event_.get(), wait_ms_); }

DWORD CrMbimServicesEvents::WaitForSetEventFinish() {
  Logger::GetInstance()->Write(kLogDetail, "Wait event");
  return WaitResult(set_event_.get(), wait_ms_);
}

DWORD CrMbimServicesEvents::WaitForCloseEventFinish() {
  return WaitResult(close_event_.get(), wait_ms_);
}

}  // namespace dorvane
