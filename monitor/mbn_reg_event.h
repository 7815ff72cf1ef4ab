// CMbnRegEvent: the sink for the interface manager's arrival and removal events.
//
// The handlers run on COM's threads; they only log and, for an arrival, wake the
// worker through SetSimChangeEvent. The reference count is atomic. Only
// IID_IMbnInterfaceManagerEvents is accepted by QueryInterface (not even
// IID_IUnknown): that narrow acceptance is how the deployed sink behaves and the
// mobile-broadband stack asks only for the event interface.
#pragma once

#include <windows.h>

#include "util/mbnapi.h"

namespace dorvane {

class CMbnRegEvent : public IMbnInterfaceManagerEvents {
 public:
  CMbnRegEvent() = default;  // reference count 0
  virtual ~CMbnRegEvent() = default;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;
  HRESULT STDMETHODCALLTYPE OnInterfaceArrival(IMbnInterface* newInterface) override;
  HRESULT STDMETHODCALLTYPE OnInterfaceRemoval(IMbnInterface* oldInterface) override;

  // Reads the registered provider id of every interface and discards it; kept
  // for callers that want the calls made. Always 1.
  DWORD GetMccInfo();

 private:
  volatile LONG ref_count_ = 0;
};

}  // namespace dorvane
