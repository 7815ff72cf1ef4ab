#include "monitor/mbn_reg_event.h"

#include <cstring>
#include <new>

#include "log/logger.h"
#include "monitor/state_work.h"
#include "util/com_ptr.h"

namespace dorvane {

HRESULT STDMETHODCALLTYPE CMbnRegEvent::QueryInterface(REFIID riid, void** ppv) {
  if (std::memcmp(&riid, &IID_IMbnInterfaceManagerEvents, sizeof(GUID)) != 0) {
    return E_NOINTERFACE;
  }
  AddRef();
  *ppv = static_cast<IMbnInterfaceManagerEvents*>(this);
  return S_OK;
}

ULONG STDMETHODCALLTYPE CMbnRegEvent::AddRef() {
  return static_cast<ULONG>(::InterlockedIncrement(&ref_count_));
}

ULONG STDMETHODCALLTYPE CMbnRegEvent::Release() {
  LONG after = ::InterlockedDecrement(&ref_count_);
  if (after != 0) return static_cast<ULONG>(after);
  delete this;
  return 0;
}

HRESULT STDMETHODCALLTYPE CMbnRegEvent::OnInterfaceArrival(IMbnInterface*) {
  Logger::GetInstance()->Write(kLogDetail,
                               "----------------[Info][CMbnChangeEvent::OnInterfaceArrival]");
  if (CStateWork* worker = CStateWork::GetInstance()) {
    try {
      SetSimChangeEvent(*worker, "OnInterfaceArrival", "");
    } catch (const std::bad_alloc&) {
      // Out of memory for the texts: nothing may escape into the stack's thread.
    }
  }
  return S_OK;
}

HRESULT STDMETHODCALLTYPE CMbnRegEvent::OnInterfaceRemoval(IMbnInterface*) {
  Logger::GetInstance()->Write(kLogDetail,
                               "----------------[Info][CMbnChangeEvent::OnInterfaceRemoval]");
  return S_OK;
}

DWORD CMbnRegEvent::GetMccInfo() {
  Logger* log = Logger::GetInstance();
  if (FAILED(::CoInitializeEx(nullptr, COINIT_MULTITHREADED))) {
    log->Write(kLogError, "[Error][CMbnRegEvent::GetMccInfo] CoInitializeEx Fail.");
    return 1;
  }
  IMbnInterfaceManager* manager = nullptr;
  if (FAILED(::CoCreateInstance(CLSID_MbnInterfaceManager, nullptr, CLSCTX_ALL,
                                IID_IMbnInterfaceManager, reinterpret_cast<void**>(&manager)))) {
    log->Write(kLogError, "[Error][CMbnRegEvent::GetMccInfo] CoCreateInstance Fail.");
    return 1;
  }
  // The manager and the interfaces read from the array are deliberately not
  // released here: this routine has always left them to the process's end, and
  // it is only ever called once.
  SAFEARRAY* raw = nullptr;
  if (manager == nullptr || FAILED(manager->GetInterfaces(&raw))) {
    log->Write(kLogError, "[error][CMbnRegEvent::GetMccInfo] Get All Interface Fail.");
    return 1;
  }
  ScopedSafeArray array(raw);
  ComPtr<IMbnRegistration> registration;
  LONG lower = 0;
  LONG upper = -1;
  ::SafeArrayGetLBound(array.get(), 1, &lower);
  ::SafeArrayGetUBound(array.get(), 1, &upper);
  VARTYPE type = VT_EMPTY;
  bool interfaces = SUCCEEDED(::SafeArrayGetVartype(array.get(), &type)) && type == VT_UNKNOWN;
  for (LONG i = lower; i <= upper; ++i) {
    IUnknown* element = nullptr;
    if (!interfaces || FAILED(::SafeArrayGetElement(array.get(), &i, &element))) {
      log->Write(kLogError, "[Error][CMbnRegEvent::GetMccInfo] SafeArrayGetElement Fail");
      break;
    }
    if (element == nullptr ||
        element->QueryInterface(IID_IMbnRegistration, registration.put_void()) != S_OK) {
      log->Write(kLogError, "[Error][CMbnRegEvent::GetMccInfo]QueryInterface 5-1-2");
      break;
    }
    if (!registration) {
      log->Write(kLogError, "[Error][CMbnRegEvent::GetMccInfo]NULL == mRegInterface");
      break;
    }
    ScopedBstr id;
    if (registration->GetProviderID(id.put()) != S_OK) {
      log->Write(kLogError, "[Error][CMbnRegEvent::GetMccInfo] GetProviderID Fail.");
      break;
    }
    std::string provider = WideToAnsi(id.get());  // read, then discarded
    (void)provider;
  }
  // The array goes first, then the registration interface: the order in which
  // this routine has always let go of them.
  array.reset();
  registration.reset();
  return 1;
}

}  // namespace dorvane
