// The worker's side of the AT command channel: open, send one command, free.
#include <algorithm>
#include <new>

#include "log/logger.h"
#include "mbim/mbim_channel.h"
#include "monitor/state_work.h"

namespace dorvane {

bool CStateWork::CheckMBIM() {
  log()->Write(kLogDetail, "Check MBIM enter");
  // A channel already held is overwritten, not freed, as deployed: callers pair
  // each CheckMBIM with a FreeMBIM.
  try {
    channel_ = new (std::nothrow) CMbimChannel(options_.mbim_wait_ms);
  } catch (const std::bad_alloc&) {
    channel_ = nullptr;  // its pending list could not be made: no channel
  }
  if (channel_ == nullptr) return false;
  return channel_->IsInterfaceReady();
}

DWORD CStateWork::FreeMBIM() {
  if (channel_ == nullptr) return 0;
  log()->Write(kLogDetail, "FreeMBIM enter.");
  delete channel_;
  channel_ = nullptr;
  return 1;
}

bool CStateWork::ExecuteCmd(std::string command, std::string& result) {
  std::string answer_text;
  std::string answer_hex;
  command += "\r\n";
  ::Sleep(100);
  if (channel_ == nullptr || channel_->ExchangeCommand(command, answer_text, answer_hex) != 0) {
    log()->Write(kLogError, "ExecuteCmd");
    return false;
  }
  answer_text.erase(std::remove(answer_text.begin(), answer_text.end(), ' '), answer_text.end());
  std::string lower = answer_text;
  if (!lower.empty()) ::CharLowerBuffA(&lower[0], static_cast<DWORD>(lower.size()));
  if (lower.empty() || lower.find("error") != std::string::npos) {
    log()->Write(kLogError, "Send Error result:");
    return false;
  }
  result = answer_text;
  return true;
}

}  // namespace dorvane
