// The worker's side of the AT command channel: open, send one command, free.
#include <algorithm>
#include <new>
#include <utility>

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
  CmdAnswer answer = SendCmd(std::move(command));
  if (answer.good) result = std::move(answer.text);
  return answer.good;
}

CStateWork::CmdAnswer CStateWork::SendCmd(std::string command) {
  CmdAnswer answer;
  std::string answer_hex;
  command += "\r\n";
  ::Sleep(100);
  if (channel_ == nullptr) {
    answer.exchange = static_cast<DWORD>(E_POINTER);
  } else {
    answer.exchange = channel_->ExchangeCommand(command, answer.text, answer_hex);
    answer.report = channel_->last_report();
  }
  answer.raw = answer.text;
  if (answer.exchange != 0) {
    answer.text.clear();
    log()->Write(kLogError, "ExecuteCmd");
    return answer;
  }
  answer.text.erase(std::remove(answer.text.begin(), answer.text.end(), ' '), answer.text.end());
  std::string lower = answer.text;
  if (!lower.empty()) ::CharLowerBuffA(&lower[0], static_cast<DWORD>(lower.size()));
  answer.good = !lower.empty() && lower.find("error") == std::string::npos;
  if (!answer.good) log()->Write(kLogError, "Send Error result:");
  return answer;
}

}  // namespace dorvane
