// The AT command exchange of the channel: one command session per command.
#include <new>

#include "log/logger.h"
#include "mbim/mbim_channel.h"

namespace dorvane {

SAFEARRAY* CMbimChannel::StrToSafeArray(const std::string& command) {
  SAFEARRAYBOUND bound = {static_cast<ULONG>(command.size()), 0};
  SAFEARRAY* array = ::SafeArrayCreate(VT_UI1, 1, &bound);
  if (array == nullptr) return nullptr;
  for (LONG i = 0; i < static_cast<LONG>(command.size()); ++i) {
    unsigned char byte = static_cast<unsigned char>(command[static_cast<size_t>(i)]);
    ::SafeArrayPutElement(array, &i, &byte);
  }
  // Without memory for the entry the command is not sent: no array either.
  if (!pending_->Append(command)) {
    ::SafeArrayDestroy(array);
    return nullptr;
  }
  return array;
}

DWORD CMbimChannel::WaitForOpen() { return sink_ ? sink_->WaitForOpenEventFinish() : 1; }
DWORD CMbimChannel::WaitForSet() { return sink_ ? sink_->WaitForSetEventFinish() : 1; }
DWORD CMbimChannel::WaitForClose() { return sink_ ? sink_->WaitForCloseEventFinish() : 1; }

HRESULT CMbimChannel::Failed(const char* step, HRESULT hr) {
  if (report_.step == nullptr) {
    report_.step = step;
    report_.hr = hr;
  }
  return hr;
}

HRESULT CMbimChannel::SendInSession(const std::string& command, std::string& answer_text,
                                    std::string& answer_hex) {
  Logger* log = Logger::GetInstance();
  // Also without a stack (no managers, no sink): GetService then logs its own
  // steps' failures before this one.
  HRESULT hr = GetService();
  if (FAILED(hr)) {
    log->Write(kLogError, "GetService");
    return Failed("GetService", hr);
  }
  BOOL open = FALSE;
  hr = device_service_->get_IsCommandSessionOpen(&open);
  if (FAILED(hr)) {
    log->Write(kLogError, "get_IsCommandSessionOpen");
    return Failed("get_IsCommandSessionOpen", hr);
  }
  log->Write(kLogDetail, "get_IsCommandSessionOpen: Open = %d", static_cast<int>(open));
  // A session someone else opened is used as it is, and left open.
  if (!open) {
    ULONG open_id = 0;
    hr = device_service_->OpenCommandSession(&open_id);
    if (FAILED(hr)) {
      log->Write(kLogError, "OpenCommandSession");
      return Failed("OpenCommandSession", hr);
    }
    report_.opened = true;
    log->Write(kLogDetail, "OpenCommandSession: requestID = %d", static_cast<int>(open_id));
    // A late open completion reads as 1 here and the exchange goes on.
    hr = static_cast<HRESULT>(WaitForOpen());
    report_.open_wait_ran_out = hr != 0;
    if (FAILED(hr)) {
      log->Write(kLogError, "OpenSessionTimeout");
      return hr;
    }
    log->Write(kLogDetail, "WaitForOpenEventFinish done");
    session_open_ = 1;
  }
  ScopedSafeArray payload(StrToSafeArray(command));
  if (!payload.get()) {
    log->Write(kLogDetail, "StrToSafeArray");
    Failed("StrToSafeArray", E_OUTOFMEMORY);
    return hr;
  }
  ULONG request_id = 0;
  hr = device_service_->SetCommand(command_id_, payload.get(), &request_id);
  // Stored whatever SetCommand returned; after a failure the entry stays pending.
  // A completion that came before this line found no entry with its id.
  pending_->StampLast(request_id);
  if (FAILED(hr)) {
    log->Write(kLogDetail, "SetCommand");
    return Failed("SetCommand", hr);
  }
  log->Write(kLogDetail, "SetCommand: requestID = %d", static_cast<int>(request_id));
  hr = static_cast<HRESULT>(WaitForSet());
  if (hr != 0) Failed("SetCommandTimeout", hr);
  if (FAILED(hr)) {
    log->Write(kLogDetail, "SetCommandTimeout");
    return hr;
  }
  log->Write(kLogDetail, "WaitForSetEventFinish done");
  // Collected after a time-out too: the entry is consumed with whatever it got,
  // and a completion that comes later finds no entry.
  pending_->Collect(request_id, answer_text, answer_hex);
  return hr;
}

HRESULT CMbimChannel::CloseSession(HRESULT hr) {
  if (session_open_ && device_service_) {
    Logger* log = Logger::GetInstance();
    ULONG close_id = 0;
    device_service_->CloseCommandSession(&close_id);  // its own result is not looked at
    if (FAILED(hr)) {
      log->Write(kLogDetail, "CloseCommandSession");
      hr = static_cast<HRESULT>(WaitForClose());
      report_.close_wait_ran_out = hr != 0;
      if (FAILED(hr)) log->Write(kLogDetail, "CloseSessionTimeout");
    } else {
      log->Write(kLogDetail, "CloseCommandSession: requestID = %d", static_cast<int>(close_id));
    }
  }
  session_open_ = 0;
  return hr;
}

DWORD CMbimChannel::ExchangeCommand(const std::string& command, std::string& answer_text,
                                    std::string& answer_hex) {
  session_open_ = 0;
  report_ = ExchangeReport();
  if (sink_) {
    sink_->ClearStatuses();
    sink_->ResetEvents();
  }
  HRESULT hr = E_OUTOFMEMORY;
  try {
    hr = CloseSession(SendInSession(command, answer_text, answer_hex));
  } catch (const std::bad_alloc&) {
    // Only the answer texts allocate; without memory the exchange just fails.
    session_open_ = 0;
  }
  ReleaseService();
  if (sink_) {
    report_.open_status = sink_->open_status();
    report_.set_status = sink_->set_status();
    report_.close_status = sink_->close_status();
    report_.set_unmatched = sink_->set_unmatched();
  }
  return static_cast<DWORD>(hr);
}

}  // namespace dorvane
