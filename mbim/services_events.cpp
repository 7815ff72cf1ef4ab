#include "mbim/services_events.h"

#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "log/logger.h"
#include "util/com_ptr.h"

namespace dorvane {

namespace {

HANDLE NewEvent() { return ::CreateEventA(nullptr, FALSE, FALSE, nullptr); }

DWORD WaitResult(HANDLE event, DWORD wait_ms) {
  return ::WaitForSingleObject(event, wait_ms) == WAIT_OBJECT_0 ? 0 : 1;
}

class ExclusiveLock {
 public:
  explicit ExclusiveLock(SRWLOCK* lock) : lock_(lock) { ::AcquireSRWLockExclusive(lock_); }
  ~ExclusiveLock() { ::ReleaseSRWLockExclusive(lock_); }
  ExclusiveLock(const ExclusiveLock&) = delete;
  ExclusiveLock& operator=(const ExclusiveLock&) = delete;

 private:
  SRWLOCK* lock_;
};

}  // namespace

void AppendAnswerHex(const unsigned char* bytes, size_t count, std::string& hex) {
  char cell[16];
  for (size_t i = 0; i < count; ++i) {
    std::snprintf(cell, sizeof cell, "%02X", static_cast<int>(static_cast<signed char>(bytes[i])));
    hex += cell;
    hex += " ";
  }
}

// -- PendingList ------------------------------------------------------------------

bool PendingList::Append(const std::string& command) {
  PendingCommand entry;
  entry.command_length = static_cast<int>(command.size());
  entry.command_bytes.reset(new (std::nothrow) unsigned char[command.size() + 1]());
  if (!entry.command_bytes) return false;
  std::memcpy(entry.command_bytes.get(), command.data(), command.size());
  ExclusiveLock lock(&lock_);
  try {
    entries_.push_back(std::move(entry));
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

void PendingList::StampLast(ULONG request_id) {
  ExclusiveLock lock(&lock_);
  if (!entries_.empty()) entries_.back().request_id = request_id;
}

PendingList::Fill PendingList::FillAnswer(ULONG request_id, SAFEARRAY* data) {
  ExclusiveLock lock(&lock_);
  PendingCommand* entry = nullptr;
  for (PendingCommand& candidate : entries_) {
    if (candidate.request_id == request_id) {
      entry = &candidate;
      break;
    }
  }
  if (entry == nullptr) return Fill::kNoMatch;
  void* bytes = nullptr;
  Fill result = Fill::kNoData;
  if (SUCCEEDED(::SafeArrayAccessData(data, &bytes)) && bytes != nullptr) {
    LONG lower = 0;
    LONG upper = 0;
    ::SafeArrayGetLBound(data, 1, &lower);
    ::SafeArrayGetUBound(data, 1, &upper);
    // Each completion for the request replaces what an earlier one left, so a
    // second indication or a further fragment overwrites the first.
    entry->answer_length = static_cast<int>(upper - lower + 1);
    entry->answer_bytes.reset();
    if (entry->answer_length >= 1) {
      entry->answer_bytes.reset(
          new (std::nothrow) unsigned char[static_cast<size_t>(entry->answer_length)]);
      if (entry->answer_bytes) {
        std::memcpy(entry->answer_bytes.get(), bytes, static_cast<size_t>(entry->answer_length));
      } else {
        entry->answer_length = 0;  // no memory for the answer: it reads as empty
      }
    }
    result = Fill::kFilled;
  }
  ::SafeArrayUnaccessData(data);
  return result;
}

bool PendingList::Collect(ULONG request_id, std::string& text, std::string& hex) {
  ExclusiveLock lock(&lock_);
  bool found = false;
  // The index advances past an erased entry, so the entry that moved into its
  // place is not examined in this pass; deployed channels behave so.
  for (size_t i = 0; i < entries_.size(); ++i) {
    PendingCommand& entry = entries_[i];
    if (entry.request_id != request_id) continue;
    const size_t count = entry.answer_length > 0 ? static_cast<size_t>(entry.answer_length) : 0;
    AppendAnswerHex(entry.answer_bytes.get(), count, hex);
    if (count == 0) {
      text.clear();
    } else {
      text.assign(reinterpret_cast<const char*>(entry.answer_bytes.get()), count);
    }
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(i));
    found = true;
  }
  return found;
}

size_t PendingList::size() const {
  ExclusiveLock lock(&lock_);
  return entries_.size();
}

void PendingList::Clear() {
  std::vector<PendingCommand> gone;
  {
    ExclusiveLock lock(&lock_);
    gone.swap(entries_);
  }
}

// -- CrMbimServicesEvents ------------------------------------------------------------

CrMbimServicesEvents::CrMbimServicesEvents(std::shared_ptr<PendingList> pending, DWORD wait_ms)
    : open_event_(NewEvent()),
      close_event_(NewEvent()),
      set_event_(NewEvent()),
      pending_(std::move(pending)),
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

// The stack's Unadvise need not wait for a completion under way, so the channel's
// teardown may release what it believes is the last reference while one runs
// here; each completion that touches the sink therefore holds a reference of its
// own until it returns, and the last one out destroys the sink.
HRESULT STDMETHODCALLTYPE CrMbimServicesEvents::OnOpenCommandSessionComplete(IMbnDeviceService*,
                                                                             HRESULT status,
                                                                             ULONG request_id) {
  const ComPtr<CrMbimServicesEvents> in_call(this);
  // Any open completion releases the waiter, whatever its status or id.
  Logger::GetInstance()->Write(kLogDetail, "OnOpenCommandSessionComplete, requestID = %d",
                               static_cast<int>(request_id));
  open_status_ = status;
  ::SetEvent(open_event_.get());
  return status;
}

HRESULT STDMETHODCALLTYPE CrMbimServicesEvents::OnCloseCommandSessionComplete(IMbnDeviceService*,
                                                                              HRESULT status,
                                                                              ULONG request_id) {
  const ComPtr<CrMbimServicesEvents> in_call(this);
  Logger::GetInstance()->Write(kLogDetail, "OnCloseCommandSessionComplete, requestID = %d",
                               static_cast<int>(request_id));
  close_status_ = status;
  ::SetEvent(close_event_.get());
  return status;
}

HRESULT STDMETHODCALLTYPE CrMbimServicesEvents::OnSetCommandComplete(IMbnDeviceService*, ULONG,
                                                                     SAFEARRAY* data, HRESULT status,
                                                                     ULONG request_id) {
  const ComPtr<CrMbimServicesEvents> in_call(this);
  Logger* log = Logger::GetInstance();
  log->Write(kLogDetail, "OnSetCommandComplete, requestID = %d", static_cast<int>(request_id));
  set_status_ = status;
  set_unmatched_ = false;
  // S_FALSE and every other non-zero code count as not OK; the waiter then runs
  // into its time-out.
  if (status != S_OK) {
    log->Write(kLogError, "OnSetCommandComplete-status-not-ok");
    return status;
  }
  // A completion that comes before SetCommand has returned finds its entry not
  // yet stamped with the request id, and so no match: the waiter times out.
  const PendingList::Fill fill = pending_->FillAnswer(request_id, data);
  if (fill == PendingList::Fill::kNoMatch) {
    set_unmatched_ = true;
    log->Write(kLogError, "OnSetCommandComplete-no-match-command");
    return S_OK;
  }
  // Unreadable data still releases the waiter, with an empty answer.
  if (fill == PendingList::Fill::kNoData) log->Write(kLogError, "SafeArrayAccessData");
  log->Write(kLogDetail, "Set event");
  ::SetEvent(set_event_.get());
  return S_OK;
}

void CrMbimServicesEvents::ResetEvents() {
  ::ResetEvent(open_event_.get());
  ::ResetEvent(open_event_.get());
  ::ResetEvent(open_event_.get());
}

void CrMbimServicesEvents::ClearStatuses() {
  open_status_ = kNoCompletion;
  set_status_ = kNoCompletion;
  close_status_ = kNoCompletion;
  set_unmatched_ = false;
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
