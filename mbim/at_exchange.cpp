// The AT command exchange of the channel: one command session per command.
#include <cstdio>
#include <cstring>

#include "log/logger.h"
#include "mbim/mbim_channel.h"

namespace dorvane {

void AppendAnswerHex(const unsigned char* bytes, size_t count, std::string& hex) {
  char cell[16];
  for (size_t i = 0; i < count; ++i) {
    std::snprintf(cell, sizeof cell, "%02X", static_cast<int>(static_cast<signed char>(bytes[i])));
    hex += cell;
    hex += " ";
  }
}

SAFEARRAY* CMbimChannel::StrToSafeArray(const std::string& command) {
  SAFEARRAYBOUND bound = {static_cast<ULONG>(command.size()), 0};
  SAFEARRAY* array = ::SafeArrayCreate(VT_UI1, 1, &bound);
  if (array == nullptr) return nullptr;
  PendingCommand entry;
  entry.command_length = static_cast<int>(command.size());
  entry.command_bytes.reset(new unsigned char[command.size() + 1]());
  std::memcpy(entry.command_bytes.get(), command.data(), command.size());
  for (LONG i = 0; i < static_cast<LONG>(command.size()); ++i) {
    ::SafeArrayPutElement(array, &i, &entry.command_bytes[static_cast<size_t>(i)]);
  }
  pending_.push_back(std::move(entry));
  return array;
}

void CMbimChannel::CollectAnswer(ULONG request_id, std::string& answer_text,
                                 std::string& answer_hex) {
  // The index advances past an erased entry, so the entry that moved into its
  // place is not examined in this pass; kept as deployed.
  for (size_t i = 0; i < pending_.size(); ++i) {
    PendingCommand& entry = pending_[i];
    if (entry.request_id != request_id) continue;
    std::string text;
    for (int b = 0; b < entry.answer_length; ++b) {
      AppendAnswerHex(&entry.answer_bytes[static_cast<size_t>(b)], 1, answer_hex);
      text.push_back(static_cast<char>(entry.answer_bytes[static_cast<size_t>(b)]));
    }
    answer_text = text;
    pending_.erase(pending_.begin() + static_cast<std::ptrdiff_t>(i));
  }
}

HRESULT CMbimChannel::SendInSession(const std::string& command, std::string& answer_text,
                                    std::string& answer_hex) {
  Logger* log = Logger::GetInstance();
  HRESULT hr = sink_ ? GetService() : E_POINTER;
  if (FAILED(hr)) {
    log->Write(kLogError, "GetService");
    return hr;
  }
  BOOL open = FALSE;
  hr = device_service_->get_IsCommandSessionOpen(&open);
  if (FAILED(hr)) {
    log->Write(kLogError, "get_IsCommandSessionOpen");
    return hr;
  }
  log->Write(kLogDetail, "get_IsCommandSessionOpen: Open = %d", static_cast<int>(open));
  // A session someone else opened is used as it is, and left open.
  if (!open) {
    ULONG open_id = 0;
    hr = device_service_->OpenCommandSession(&open_id);
    if (FAILED(hr)) {
      log->Write(kLogError, "OpenCommandSession");
      return hr;
    }
    log->Write(kLogDetail, "OpenCommandSession: requestID = %d", static_cast<int>(open_id));
    // A late open completion reads as 1 here and the exchange goes on.
    hr = static_cast<HRESULT>(sink_->WaitForOpenEventFinish());
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
    return hr;
  }
  ULONG request_id = 0;
  hr = device_service_->SetCommand(command_id_, payload.get(), &request_id);
  // Stored whatever SetCommand returned; after a failure the entry stays pending.
  pending_.back().request_id = request_id;
  if (FAILED(hr)) {
    log->Write(kLogDetail, "SetCommand");
    return hr;
  }
  log->Write(kLogDetail, "SetCommand: requestID = %d", static_cast<int>(request_id));
  hr = static_cast<HRESULT>(sink_->WaitForSetEventFinish());
  if (FAILED(hr)) {
    log->Write(kLogDetail, "SetCommandTimeout");
    return hr;
  }
  log->Write(kLogDetail, "WaitForSetEventFinish done");
  // Collected after a time-out too: the entry is consumed with whatever it got.
  if (!pending_.empty()) CollectAnswer(request_id, answer_text, answer_hex);
  return hr;
}

HRESULT CMbimChannel::CloseSession(HRESULT hr) {
  if (session_open_ && device_service_) {
    Logger* log = Logger::GetInstance();
    ULONG close_id = 0;
    device_service_->CloseCommandSession(&close_id);  // its own result is not looked at
    if (FAILED(hr)) {
      log->Write(kLogDetail, "CloseCommandSession");
      hr = static_cast<HRESULT>(sink_->WaitForCloseEventFinish());
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
  if (sink_) sink_->ResetEvents();
  HRESULT hr = CloseSession(SendInSession(command, answer_text, answer_hex));
  ReleaseService();
  return static_cast<DWORD>(hr);
}

}  // namespace dorvane
