// A simulated mobile-broadband interface (IMbnInterface, and IMbnRegistration on
// the same object) and its subscriber information. Both read the scenario
// afresh at every call, finding their interface by its id; once the interface
// has been removed from the scenario they answer ERROR_DEVICE_NOT_AVAILABLE.
#pragma once

#include <string>

#include "tools/mbnsim/tracker.h"
#include "util/mbnapi.h"

namespace mbnsim {

using namespace dorvane;

// Waits out the call's delay; then the call's injection for interface `index`
// (-1: an object of no interface).
Injection Consult(Call call, int index);
// Consult, as most calls use it: the result for an injection that makes the
// call fail, S_OK otherwise. `null_out` is set when the injection asks for a
// null result.
HRESULT Injected(Call call, int index, bool* null_out);

BSTR NewBstr(const std::string& text);

inline constexpr HRESULT kInterfaceGone = HRESULT_FROM_WIN32(ERROR_DEVICE_NOT_AVAILABLE);

class SimInterface : public IMbnInterface, public IMbnRegistration {
 public:
  explicit SimInterface(std::string interface_id) : id_(std::move(interface_id)) {}

  // IUnknown
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override { return refs_.AddRef(); }
  ULONG STDMETHODCALLTYPE Release() override { return refs_.Release(); }

  // IMbnInterface
  HRESULT STDMETHODCALLTYPE get_InterfaceID(BSTR* id) override;
  HRESULT STDMETHODCALLTYPE GetInterfaceCapability(MBN_INTERFACE_CAPS*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetSubscriberInformation(IMbnSubscriberInformation** out) override;
  HRESULT STDMETHODCALLTYPE GetReadyState(MBN_READY_STATE* state) override;
  HRESULT STDMETHODCALLTYPE InEmergencyMode(VARIANT_BOOL*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetHomeProvider(MBN_PROVIDER* provider) override;
  HRESULT STDMETHODCALLTYPE GetPreferredProviders(SAFEARRAY**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetPreferredProviders(SAFEARRAY*, ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetVisibleProviders(ULONG*, SAFEARRAY**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE ScanNetwork(ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetConnection(IMbnConnection**) override { return E_NOTIMPL; }

  // IMbnRegistration
  HRESULT STDMETHODCALLTYPE GetRegisterState(MBN_REGISTER_STATE* state) override;
  HRESULT STDMETHODCALLTYPE GetRegisterMode(MBN_REGISTER_MODE*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetProviderID(BSTR* id) override;
  HRESULT STDMETHODCALLTYPE GetProviderName(BSTR*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetRoamingText(BSTR*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetAvailableDataClasses(ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetCurrentDataClass(ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetRegistrationNetworkError(ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetPacketAttachNetworkError(ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetRegisterMode(MBN_REGISTER_MODE, LPCWSTR, ULONG, ULONG*) override {
    return E_NOTIMPL;
  }

  const std::string& id() const { return id_; }

 private:
  // Looks the interface up and applies the call's injection. S_OK with
  // `index` >= 0 when the call may go on.
  HRESULT Begin(Call call, void* out, InterfaceInfo* info, bool* null_out);

  std::string id_;
  RefCount refs_;
};

class SimSubscriber : public IMbnSubscriberInformation {
 public:
  explicit SimSubscriber(std::string interface_id) : id_(std::move(interface_id)) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override { return refs_.AddRef(); }
  ULONG STDMETHODCALLTYPE Release() override { return refs_.Release(); }

  HRESULT STDMETHODCALLTYPE get_SubscriberID(BSTR* id) override;
  HRESULT STDMETHODCALLTYPE get_SimIccID(BSTR* iccid) override;
  HRESULT STDMETHODCALLTYPE get_TelephoneNumbers(SAFEARRAY**) override { return E_NOTIMPL; }

 private:
  HRESULT Read(Call call, BSTR* out, std::string InterfaceInfo::*field);

  std::string id_;
  RefCount refs_;
};

}  // namespace mbnsim
