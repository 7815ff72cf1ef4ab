// A bare IMbnDeviceServicesEvents sink for the simulator tests: records every
// completion it is given, with the thread, the time and whether the test's call
// that started it had returned by then.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "util/mbnapi.h"

namespace dorvane::testing {

class RecordingSink : public IMbnDeviceServicesEvents {
 public:
  struct Call {
    char kind;  // 'o' open, 'c' close, 's' set
    ULONG request_id;
    HRESULT status;
    bool has_data;
    std::string bytes;
    DWORD thread;
    DWORD tick;
    bool caller_returned;
  };

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!IsEqualGUID(riid, IID_IUnknown) && !IsEqualGUID(riid, IID_IMbnDeviceServicesEvents)) {
      return E_NOINTERFACE;
    }
    AddRef();
    *ppv = static_cast<IMbnDeviceServicesEvents*>(this);
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override { return --refs_; }  // lives on the test's stack

  HRESULT STDMETHODCALLTYPE OnQuerySupportedCommandsComplete(IMbnDeviceService*, SAFEARRAY*,
                                                             HRESULT, ULONG) override {
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OnOpenCommandSessionComplete(IMbnDeviceService*, HRESULT status,
                                                         ULONG id) override {
    Record('o', id, status, nullptr);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OnCloseCommandSessionComplete(IMbnDeviceService*, HRESULT status,
                                                          ULONG id) override {
    Record('c', id, status, nullptr);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OnSetCommandComplete(IMbnDeviceService*, ULONG, SAFEARRAY* data,
                                                 HRESULT status, ULONG id) override {
    Record('s', id, status, data);
    // Holds the delivery thread until a second set completion is being
    // delivered at the same time, or 600 ms have passed.
    if (hold_) {
      ++inside_;
      const DWORD start = ::GetTickCount();
      while (inside_.load() < 2 && ::GetTickCount() - start < 600) ::Sleep(1);
      if (inside_.load() >= 2) overlapped_ = true;
      --inside_;
    }
    return S_OK;
  }
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

  // Waits until `n` completions have come (or 5 s); returns them.
  std::vector<Call> WaitFor(size_t n, DWORD timeout_ms = 5000) {
    const DWORD start = ::GetTickCount();
    for (;;) {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (calls_.size() >= n || ::GetTickCount() - start > timeout_ms) return calls_;
      }
      ::Sleep(2);
    }
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.clear();
  }

  std::atomic<bool> caller_returned{true};
  std::atomic<bool> hold_{false};
  std::atomic<int> inside_{0};
  std::atomic<bool> overlapped_{false};

 private:
  void Record(char kind, ULONG id, HRESULT status, SAFEARRAY* data) {
    Call call{kind, id, status, data != nullptr, std::string(), ::GetCurrentThreadId(),
              ::GetTickCount(), caller_returned.load()};
    void* raw = nullptr;
    if (data != nullptr && SUCCEEDED(::SafeArrayAccessData(data, &raw))) {
      call.bytes.assign(static_cast<const char*>(raw), data->rgsabound[0].cElements);
      ::SafeArrayUnaccessData(data);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(call);
  }

  std::atomic<ULONG> refs_{1};
  std::mutex mutex_;
  std::vector<Call> calls_;
};

}  // namespace dorvane::testing
