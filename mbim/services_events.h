// CrMbimServicesEvents: the device-service event sink of the AT command channel,
// and PendingCommand, one command on its way to the module and back.
//
// The sink turns the completions of a command session (open, set command,
// close) into three auto-reset events that the exchange waits on, and copies the
// answer bytes of a set-command completion into the pending entry with the same
// request id. Completions arrive on COM's threads, also before the call that
// started them has returned, late, twice or in fragments; the sink only logs,
// copies and signals.
//
// Lifetime: a completion that touches the sink (open, close, set) holds a
// reference on it from its first statement to its return, so the sink, its
// three events and its share of the pending list outlive the call even when
// the stack's Unadvise returned without waiting for it and the channel has
// released its reference meanwhile. The last Release destroys the sink on
// whichever thread makes it, possibly a completion's own thread after its
// lines, which is then where "Close event" is logged. What the sink cannot
// cover is a call that the stack makes after the last reference is gone.
#pragma once

#include <windows.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "util/mbnapi.h"
#include "util/scoped_handle.h"

namespace dorvane {

// Appends each byte as "%02X" and a blank, the byte widened as a signed char, so
// that 0x80..0xFF come out as FFFFFF80..FFFFFFFF: tools that parse the hex form
// expect those eight digits.
void AppendAnswerHex(const unsigned char* bytes, size_t count, std::string& hex);

// One SetCommand issued on the channel. Owns its two buffers.
struct PendingCommand {
  int command_length = 0;
  int answer_length = 0;
  std::unique_ptr<unsigned char[]> command_bytes;  // command_length + 1 bytes, NUL-terminated
  std::unique_ptr<unsigned char[]> answer_bytes;   // null until a completion with data
  ULONG request_id = 0;
};

// The channel's commands on their way to the module and back, shared by the
// channel (which adds, stamps and collects entries on its caller's thread) and
// its sink (which fills them on COM's threads). Shared ownership, because the
// sink outlives the channel when the stack refuses its Unadvise; every access
// takes the list's lock, because a completion may come at any moment: while
// the next command is queued, after its wait ran out, during the teardown.
// No method throws; none calls out (no logging) while holding the lock.
class PendingList {
 public:
  enum class Fill { kFilled, kNoMatch, kNoData };

  PendingList() = default;
  PendingList(const PendingList&) = delete;
  PendingList& operator=(const PendingList&) = delete;

  // Appends an entry holding a copy of `command`; false when memory ran out.
  bool Append(const std::string& command);
  // Stamps the last entry with the request id SetCommand handed out.
  void StampLast(ULONG request_id);
  // Copies the completion's bytes into the first entry with `request_id`.
  // kNoData when the array cannot be read (the entry is then left as it was).
  Fill FillAnswer(ULONG request_id, SAFEARRAY* data);
  // Takes the answers of the entries with `request_id` out of the list: the
  // text of the last one into `text`, every byte into `hex`. True when an
  // entry was found.
  bool Collect(ULONG request_id, std::string& text, std::string& hex);
  size_t size() const;
  // Frees every entry.
  void Clear();

  // The channel's second text member: the sink keeps a reference to it and
  // never reads it.
  std::string note;

 private:
  mutable SRWLOCK lock_ = SRWLOCK_INIT;
  std::vector<PendingCommand> entries_;  // guarded by lock_
};

class CrMbimServicesEvents : public IMbnDeviceServicesEvents {
 public:
  // `pending` is the channel's list, kept alive by the sink as long as it
  // lives. `wait_ms` bounds each of the three waits (5000 in the service).
  explicit CrMbimServicesEvents(std::shared_ptr<PendingList> pending, DWORD wait_ms = 5000);
  virtual ~CrMbimServicesEvents();
  CrMbimServicesEvents(const CrMbimServicesEvents&) = delete;
  CrMbimServicesEvents& operator=(const CrMbimServicesEvents&) = delete;

  // Only IID_IMbnDeviceServicesEvents is accepted, not even IID_IUnknown, as the
  // deployed sink does; the stack asks for nothing else.
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  HRESULT STDMETHODCALLTYPE OnQuerySupportedCommandsComplete(IMbnDeviceService*, SAFEARRAY*,
                                                             HRESULT, ULONG) override {
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OnOpenCommandSessionComplete(IMbnDeviceService* service,
                                                         HRESULT status, ULONG request_id) override;
  HRESULT STDMETHODCALLTYPE OnCloseCommandSessionComplete(IMbnDeviceService* service,
                                                          HRESULT status, ULONG request_id) override;
  HRESULT STDMETHODCALLTYPE OnSetCommandComplete(IMbnDeviceService* service, ULONG response_id,
                                                 SAFEARRAY* data, HRESULT status,
                                                 ULONG request_id) override;
  HRESULT STDMETHODCALLTYPE OnQueryCommandComplete(IMbnDeviceService*, ULONG, SAFEARRAY*, HRESULT,
                                                   ULONG) override {
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OnEventNotification(IMbnDeviceService*, ULONG, SAFEARRAY*) override {
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OnOpenDataSessionComplete(IMbnDeviceService*, HRESULT, ULONG) override {
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OnCloseDataSessionComplete(IMbnDeviceService*, HRESULT, ULONG) override {
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OnWriteDataComplete(IMbnDeviceService*, HRESULT, ULONG) override {
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OnReadData(IMbnDeviceService*, SAFEARRAY*) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE OnInterfaceStateChange(BSTR, MBN_DEVICE_SERVICES_INTERFACE_STATE) override {
    return S_OK;
  }

  // Resets the open event only. The set and close events keep whatever stale
  // signal they have: deployed channels behave so and it is kept.
  void ResetEvents();
  // Each waits for its completion: 0 when it came in time, 1 otherwise.
  DWORD WaitForOpenEventFinish();
  DWORD WaitForSetEventFinish();
  DWORD WaitForCloseEventFinish();

  // What the completions said, for a caller that names why an exchange failed
  // (the events and the log are as without it): the status of the latest open,
  // set-command and close completion, kNoCompletion when none came since
  // ClearStatuses, and whether the latest set-command completion with S_OK
  // found no command of its request id.
  static constexpr HRESULT kNoCompletion = 0x7FFFFFFF;
  HRESULT open_status() const { return open_status_.load(); }
  HRESULT set_status() const { return set_status_.load(); }
  HRESULT close_status() const { return close_status_.load(); }
  bool set_unmatched() const { return set_unmatched_.load(); }
  void ClearStatuses();

 private:
  volatile LONG ref_count_ = 1;
  UniqueHandle open_event_;
  UniqueHandle close_event_;
  UniqueHandle set_event_;
  // The three events belong to the sink and live as long as it does, so as
  // long as any completion is inside it.
  std::shared_ptr<PendingList> pending_;
  DWORD wait_ms_;
  // Written by the completions on COM's threads, read by the exchange.
  std::atomic<HRESULT> open_status_{kNoCompletion};
  std::atomic<HRESULT> set_status_{kNoCompletion};
  std::atomic<HRESULT> close_status_{kNoCompletion};
  std::atomic<bool> set_unmatched_{false};
};

}  // namespace dorvane
