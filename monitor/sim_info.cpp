// The SIM query of the worker: ICCID and home provider of the modem's SIM.
#include "log/logger.h"
#include "monitor/state_work.h"
#include "util/com_ptr.h"
#include "util/mbnapi.h"

namespace dorvane {

namespace {

// Reads element `index` of an array of interface pointers into `out`. On a
// failed read `out` keeps what it held. An array of another element type, or an
// element that is not a mobile-broadband interface, counts as a failed read
// rather than being used through a wrong type.
HRESULT GetInterfaceElement(SAFEARRAY* array, LONG index, ComPtr<IMbnInterface>& out) {
  VARTYPE type = VT_EMPTY;
  if (FAILED(::SafeArrayGetVartype(array, &type)) || (type != VT_UNKNOWN && type != VT_DISPATCH)) {
    return E_INVALIDARG;
  }
  ComPtr<IUnknown> element;
  HRESULT hr = ::SafeArrayGetElement(array, &index, element.put());
  if (FAILED(hr)) return hr;
  ComPtr<IMbnInterface> iface;
  if (element) {
    hr = element->QueryInterface(IID_IMbnInterface, iface.put_void());
    if (FAILED(hr)) return hr;
  }
  out = std::move(iface);
  return S_OK;
}

}  // namespace

DWORD CStateWork::GetSimInfo() {
  Logger* out = log();
  ComPtr<IMbnInterfaceManager> manager;
  HRESULT hr = ::CoCreateInstance(CLSID_MbnInterfaceManager, nullptr, CLSCTX_ALL,
                                  IID_IMbnInterfaceManager, manager.put_void());
  if (FAILED(hr)) {
    // The text names the wrong call; log scanners in the field match it as it is.
    out->Write(kLogError, "[Fail][CStateWork::GetSimInfo] CoInitializeEx Fail.");
    return 0;
  }
  if (!manager) {
    out->Write(kLogError, "InterfaceManager is null");
    return 0;
  }
  ScopedSafeArray array;
  hr = manager->GetInterfaces(array.put());
  if (FAILED(hr)) {
    out->Write(kLogError, "[error][CStateWork::GetSimInfo] Get All Interface Fail.");
    return 0;
  }

  ComPtr<IMbnInterface> iface;
  LONG lower = 0;
  LONG upper = -1;
  if (array.get() != nullptr) {
    ::SafeArrayGetLBound(array.get(), 1, &lower);
    ::SafeArrayGetUBound(array.get(), 1, &upper);
  }
  // Every element replaces the previous one, so the SIM read is the last
  // interface's; a failed read keeps what was held so far.
  for (LONG i = lower; i <= upper; ++i) {
    if (FAILED(GetInterfaceElement(array.get(), i, iface))) {
      out->Write(kLogError, "[error][CStateWork::GetSimInfo] SafeArrayGetElement Fail.");
      break;
    }
    if (!iface) {
      out->Write(kLogError, "mInterface is null");
      return 0;
    }
    MBN_READY_STATE state = MBN_READY_STATE_OFF;
    if (FAILED(iface->GetReadyState(&state))) {
      // Only proves that the interface answers; its value is not examined.
      out->Write(kLogError, "[error][CStateWork::GetSimInfo] GetReadyState Fail.");
      break;
    }
  }
  if (!iface) {
    out->Write(kLogError, "[error][CStateWork::GetSimInfo] Get mbim interface fail.");
    return 0;
  }

  ComPtr<IMbnSubscriberInformation> subscriber;
  if (iface->GetSubscriberInformation(subscriber.put()) == S_OK && subscriber) {
    ScopedBstr id;
    if (subscriber->get_SimIccID(id.put()) == S_OK) SetIccid(WideToAnsi(id.get()));
  }

  DWORD status = 1;
  MBN_PROVIDER provider = {};
  if (iface->GetHomeProvider(&provider) != S_OK) {
    out->Write(kLogError, "[error][CStateWork::GetSimInfo] GetHomeProvider Fail.");
    status = 0;
  } else {
    ScopedBstr id;
    ScopedBstr name;
    id.attach(provider.providerID);
    name.attach(provider.providerName);
    const std::string provider_id = WideToAnsi(id.get());
    SetMccmnc(provider_id);
    // At the error level although it is not an error: field scripts look for it there.
    out->Write(kLogError, "[CStateWork::GetSimInfo] GetHomeProvider str_mccmnc is " + provider_id);
  }
  array.reset();
  subscriber.reset();
  iface.reset();
  manager.reset();
  return status;
}

}  // namespace dorvane
