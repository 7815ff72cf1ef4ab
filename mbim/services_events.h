// CrMbimServicesEvents: the device-service event sink of the AT command channel,
// and PendingCommand, one command on its way to the module and back.
//
// The sink turns the completions of a command session (open, set command,
// close) into three auto-reset events that the exchange waits on, and copies the
// answer bytes of a set-command completion into the pending entry with the same
// request id. Completions arrive on COM's threads; the sink only logs, copies and
// signals.
#pragma once

#include <windows.h>

#include <memory>
#include <string>
#include <vector>

#include "util/mbnapi.h"
#include "util/scoped_handle.h"

namespace dorvane {

// One SetCommand issued on the channel. Owns its two buffers.
struct PendingCommand {
  int command_length = 0;
  int answer_length = 0;
  std::unique_ptr<unsigned char[]> command_bytes;  // command_length + 1 bytes, NUL-terminated
  std::unique_ptr<unsigned char[]> answer_bytes;   // null until a completion with data
  ULONG request_id = 0;
};

class CrMbimServicesEvents : public IMbnDeviceServicesEvents {
 public:
  // `text` is kept and never used; `pending` is the channel's list. `wait_ms`
  // bounds each of the three waits (5000 in the service).
  CrMbimServicesEvents(std::string* text, std::vector<PendingCommand>* pending,
                       DWORD wait_ms = 5000);
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

 private:
  volatile LONG ref_count_ = 1;
  UniqueHandle open_event_;
  UniqueHandle close_event_;
  UniqueHandle set_event_;
  std::string* text_;
  std::vector<PendingCommand>* pending_;
  DWORD wait_ms_;
};

}  // namespace dorvane
