#include "mbim/mbim_channel.h"

#include <objbase.h>

#include <cstdio>
#include <new>

#include "log/logger.h"

namespace dorvane {

namespace {

Logger* Log() { return Logger::GetInstance(); }

}  // namespace

CMbimChannel::CMbimChannel(DWORD wait_ms)
    : pending_(std::make_shared<PendingList>()), wait_ms_(wait_ms) {
  InitMbn();
}

CMbimChannel::~CMbimChannel() { UninitMbn(); }

HRESULT CMbimChannel::InitMbn() {
  if (FAILED(::CoInitializeEx(nullptr, COINIT_MULTITHREADED))) {
    Log()->Write(kLogError, "CoInitializeEx error");
  } else {
    Log()->Write(kLogDetail, "CoInitializeEx done");
  }
  HRESULT hr = ::CoCreateInstance(CLSID_MbnInterfaceManager, nullptr, CLSCTX_ALL,
                                  IID_IMbnInterfaceManager, interface_manager_.put_void());
  if (FAILED(hr) || !interface_manager_) {
    Log()->Write(kLogError, "CoCreateInstance-CLSID_MbnInterfaceManager");
    return hr;
  }
  Log()->Write(kLogDetail, "CoCreateInstance-CLSID_MbnInterfaceManager done");
  hr = ::CoCreateInstance(CLSID_MbnDeviceServicesManager, nullptr, CLSCTX_ALL,
                          IID_IMbnDeviceServicesManager, services_manager_.put_void());
  if (FAILED(hr) || !services_manager_) {
    Log()->Write(kLogError, "CoCreateInstance-CLSID_MbnDeviceServicesManager");
    return hr;
  }
  Log()->Write(kLogDetail, "CoCreateInstance-CLSID_MbnDeviceServicesManager done");
  sink_.attach(new (std::nothrow) CrMbimServicesEvents(pending_, wait_ms_));
  if (!sink_) {
    Log()->Write(kLogError, "New ServiceEvent");
    return hr;
  }
  Log()->Write(kLogDetail, "CreateServicesEvents done");
  return AdviseEvent(&cookie_, sink_.get(), IID_IMbnDeviceServicesEvents);
}

HRESULT CMbimChannel::AdviseEvent(DWORD* cookie, IUnknown* sink, REFIID iid) {
  // A step that succeeds without handing out its pointer fails like one that
  // failed outright: its name alone, no "done" line before it.
  HRESULT hr = services_manager_->QueryInterface(IID_IConnectionPointContainer, container_.put_void());
  if (FAILED(hr) || !container_) {
    Log()->Write(kLogError, "QueryInterface");
    return hr;
  }
  Log()->Write(kLogDetail, "QueryInterface: IMbnConnectionPointContainer done");
  hr = container_->FindConnectionPoint(iid, connection_point_.put());
  if (FAILED(hr) || !connection_point_) {
    Log()->Write(kLogError, "FindConnectionPoint");
    return hr;
  }
  Log()->Write(kLogDetail, "FindConnectionPoint:IMbnConnectionPoint done");
  hr = connection_point_->Advise(sink, cookie);
  if (FAILED(hr)) {
    Log()->Write(kLogError, "Advise");
    return hr;
  }
  Log()->Write(kLogDetail, "Advise:Event done, cookie = %d", static_cast<int>(*cookie));
  return hr;
}

HRESULT CMbimChannel::UnadviseEvent(DWORD cookie) {
  HRESULT hr = S_OK;
  // Also after a failed Advise, with the cookie 0 it left: the stack refuses it
  // (CONNECT_E_NOCONNECTION) and the refusal is logged like any other.
  if (connection_point_) {
    hr = connection_point_->Unadvise(cookie);
    if (FAILED(hr)) {
      // The same word as the advise failure: log scanners look for it.
      Log()->Write(kLogError, "Advise");
    } else {
      Log()->Write(kLogDetail, "Unadvise:Event done, cookie = %d", static_cast<int>(cookie));
    }
  }
  connection_point_.reset();
  container_.reset();
  return hr;
}

void CMbimChannel::UninitMbn() {
  UnadviseEvent(cookie_);
  cookie_ = 0;
  // When the stack refused the Unadvise, the sink stays advised and lives on
  // with its share of the pending list; that list is emptied here all the same,
  // so later completions find nothing to fill. An Unadvise that did not wait
  // for a completion still inside the sink leaves the sink to that completion,
  // which holds a reference until it returns: this release need not be the last.
  sink_.reset();
  services_manager_.reset();
  interface_manager_.reset();
  ReleaseService();
  ::CoUninitialize();
  Log()->Write(kLogDetail, "CoUninitialize");
  pending_->Clear();
}

HRESULT CMbimChannel::GetInterface() {
  if (!interface_manager_) {
    Log()->Write(kLogError, "InterfaceMgr is null");
    return -1;
  }
  ScopedSafeArray array;
  HRESULT hr = interface_manager_->GetInterfaces(array.put());
  if (FAILED(hr)) {
    Log()->Write(kLogError, "GetInterfaces");
    return hr;
  }
  Log()->Write(kLogDetail, "GetInterfaces");
  LONG lower = 0;
  LONG upper = -1;
  hr = ::SafeArrayGetLBound(array.get(), 1, &lower);
  if (FAILED(hr)) {
    Log()->Write(kLogError, "SafeArrayGetLBound");
    return hr;
  }
  Log()->Write(kLogDetail, "SafeArrayGetLBound: lowBound = %ld", static_cast<long>(lower));
  hr = ::SafeArrayGetUBound(array.get(), 1, &upper);
  if (FAILED(hr)) {
    Log()->Write(kLogError, "SafeArrayGetUBound");
    return hr;
  }
  Log()->Write(kLogDetail, "SafeArrayGetUBound: upBound = %ld", static_cast<long>(upper));

  ComPtr<IMbnInterface> first;
  if (lower <= upper) {
    // Only the first interface is ever looked at.
    VARTYPE type = VT_EMPTY;
    ::SafeArrayGetVartype(array.get(), &type);
    ComPtr<IUnknown> element;
    hr = type == VT_UNKNOWN || type == VT_DISPATCH
             ? ::SafeArrayGetElement(array.get(), &lower, element.put())
             : DISP_E_TYPEMISMATCH;
    if (SUCCEEDED(hr) && element) hr = element->QueryInterface(IID_IMbnInterface, first.put_void());
    if (FAILED(hr)) {
      Log()->Write(kLogError, "SafeArrayGetElement");
      array.release();  // left undestroyed on this path, as deployed
      return hr;
    }
    Log()->Write(kLogDetail, "SafeArrayGetElement: lIndex = %ld", static_cast<long>(lower));
    MBN_READY_STATE state = MBN_READY_STATE_OFF;
    hr = first ? first->GetReadyState(&state) : E_POINTER;
    if (FAILED(hr)) {
      Log()->Write(kLogError, "GetReadyState");
      array.release();  // left undestroyed on this path, as deployed
      return hr;
    }
    // Logged only: a module in any ready state counts as present.
    Log()->Write(kLogDetail, "GetReadyState: eReadyState = %d", static_cast<int>(state));
  }
  hr = array.reset();
  if (FAILED(hr)) {
    Log()->Write(kLogError, "SafeArrayDestroy");
    return hr;
  }
  Log()->Write(kLogDetail, "SafeArrayDestroy: interface psa");
  if (!first) return -1;
  interface_ = std::move(first);
  return hr;
}

bool CMbimChannel::IsInterfaceReady() {
  const bool ready = GetInterface() >= 0 && interface_;
  ReleaseService();
  return ready;
}

HRESULT CMbimChannel::GetService() {
  HRESULT hr = GetInterface();
  if (FAILED(hr)) {
    Log()->Write(kLogError, "GetInterface");
    return hr;
  }
  BSTR id = nullptr;
  hr = interface_ ? interface_->get_InterfaceID(&id) : E_POINTER;
  if (FAILED(hr)) {
    Log()->Write(kLogError, "get_InterfaceID");
    return hr;
  }
  // The interface id string is deliberately not freed: the deployed channel
  // never did, and the few bytes per exchange are kept as they were.
  hr = services_manager_ ? services_manager_->GetDeviceServicesContext(id, services_context_.put())
                         : E_POINTER;
  if (FAILED(hr)) {
    Log()->Write(kLogError, "GetDeviceServicesContext");
    return hr;
  }
  ScopedBstr service_id(AnsiToWide(device_service_id_).c_str());
  hr = services_context_ ? services_context_->GetDeviceService(service_id.get(), device_service_.put())
                         : E_POINTER;
  if (FAILED(hr)) {
    Log()->Write(kLogError, "GetDeviceService");
    return hr;
  }
  if (!device_service_) {
    Log()->Write(kLogError, "GetDeviceService");
    return -1;
  }
  return hr;
}

void CMbimChannel::ReleaseService() {
  services_context_.reset();
  device_service_.reset();
  interface_.reset();
}

}  // namespace dorvane
