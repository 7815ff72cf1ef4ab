// The simulator's list of calls (tools/mbnsim/calls.h) against what the
// simulator honours. The simulator reads injections only through a listed
// Call, so a site cannot consult a name that is off the list; here every
// listed call is driven through its COM interface to see that its name is
// consulted, by that call and no other, with the traits the list gives it.
#include <gtest/gtest.h>

#include <objbase.h>
#include <olectl.h>

#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>
#include <utility>

#include "mbnsim/recording_sink.h"
#include "support/simulator.h"
#include "tools/mbnsim/calls.h"
#include "tools/mbnsim/scenario.h"
#include "util/com_ptr.h"
#include "util/mbnapi.h"

namespace dorvane {
namespace {

using mbnsim::Call;

const wchar_t kAtServiceId[] = L"{ffffffff-abca-4b11-a4e2-f2fc87f94488}";

// What one call gave back: its result, and whether it succeeded with a null
// pointer. For a completion: the status delivered, or nothing delivered.
struct Outcome {
  HRESULT hr = E_UNEXPECTED;
  bool null_result = false;
};

// `out` is read after the call that filled it: an owner, not its pointer.
template <typename Owner>
Outcome Result(HRESULT hr, const Owner& out) {
  return Outcome{hr, SUCCEEDED(hr) && out.get() == nullptr};
}

std::string Hex(HRESULT hr) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(hr));
  return text;
}

// A sink for the interface manager's connection point; no event comes while
// these tests run.
class ManagerEventsSink : public IMbnInterfaceManagerEvents {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!IsEqualGUID(riid, IID_IUnknown) && !IsEqualGUID(riid, IID_IMbnInterfaceManagerEvents)) {
      *ppv = nullptr;
      return E_NOINTERFACE;
    }
    *ppv = static_cast<IMbnInterfaceManagerEvents*>(this);
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return 2; }  // lives in the fixture
  ULONG STDMETHODCALLTYPE Release() override { return 1; }
  HRESULT STDMETHODCALLTYPE OnInterfaceArrival(IMbnInterface*) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE OnInterfaceRemoval(IMbnInterface*) override { return S_OK; }
};

// Two interfaces; every call is made on interface 0.
class SimulatorCallsTest : public testing::SimFixture {
 protected:
  void SetUp() override {
    SimFixture::SetUp();
    UseInterfaces(2);
  }
  void TearDown() override { ExpectNothingLeft(); }

  // Makes `call` once, with whatever it needs first, and releases everything.
  Outcome Drive(Call call) {
    switch (call) {
      case Call::kCreateInstance:
      case Call::kQueryConnectionPointContainer:
      case Call::kFindConnectionPoint:
      case Call::kAdvise:
      case Call::kUnadvise:
        return DriveManager(call, mbnsim::kInterfaceManagerCalls, CLSID_MbnInterfaceManager,
                            IID_IMbnInterfaceManagerEvents, &manager_sink_);
      case Call::kServicesCreateInstance:
      case Call::kServicesQueryConnectionPointContainer:
      case Call::kServicesFindConnectionPoint:
      case Call::kServicesAdvise:
      case Call::kServicesUnadvise:
        return DriveManager(call, mbnsim::kDeviceServicesCalls, CLSID_MbnDeviceServicesManager,
                            IID_IMbnDeviceServicesEvents, &services_sink_);
      case Call::kGetInterface:
      case Call::kGetInterfaces:
        return DriveInterfaceManager(call);
      case Call::kQueryRegistration:
      case Call::kGetInterfaceId:
      case Call::kGetSubscriberInformation:
      case Call::kGetReadyState:
      case Call::kGetHomeProvider:
      case Call::kGetRegisterState:
      case Call::kGetProviderId:
      case Call::kGetSubscriberId:
      case Call::kGetSimIccId:
        return DriveInterface(call);
      case Call::kGetDeviceServicesContext:
      case Call::kGetDeviceService:
      case Call::kGetIsCommandSessionOpen:
      case Call::kOpenCommandSession:
      case Call::kCloseCommandSession:
      case Call::kSetCommand:
        return DriveService(call);
      case Call::kOpenCommandSessionComplete:
      case Call::kCloseCommandSessionComplete:
      case Call::kSetCommandComplete:
        return DriveCompletion(call);
      case Call::kCount:
        break;
    }
    ADD_FAILURE() << "no way to drive call " << static_cast<int>(call);
    return Outcome{};
  }

 private:
  template <typename T>
  static ComPtr<T> Create(const CLSID& clsid, REFIID iid) {
    ComPtr<T> object;
    EXPECT_EQ(S_OK, ::CoCreateInstance(clsid, nullptr, CLSCTX_ALL, iid, object.put_void()));
    return object;
  }

  static std::wstring Id0() { return AnsiToWide(mbnsim::DefaultInterface(0).interface_id); }

  // The factory, the container, the point, advise and unadvise, up to `call`.
  Outcome DriveManager(Call call, const mbnsim::ManagerCalls& calls, const CLSID& clsid,
                       REFIID events_iid, IUnknown* sink) {
    ComPtr<IUnknown> manager;
    HRESULT hr = ::CoCreateInstance(clsid, nullptr, CLSCTX_ALL, IID_IUnknown, manager.put_void());
    if (call == calls.create_instance || !manager) return Result(hr, manager);
    ComPtr<IConnectionPointContainer> container;
    hr = manager->QueryInterface(IID_IConnectionPointContainer, container.put_void());
    if (call == calls.query_container || !container) return Result(hr, container);
    ComPtr<IConnectionPoint> point;
    hr = container->FindConnectionPoint(events_iid, point.put());
    if (call == calls.find_point || !point) return Result(hr, point);
    DWORD cookie = 0;
    hr = point->Advise(sink, &cookie);
    if (call == calls.advise || FAILED(hr)) {
      if (SUCCEEDED(hr)) {
        EXPECT_EQ(S_OK, point->Unadvise(cookie));
      }
      return Outcome{hr, false};
    }
    hr = point->Unadvise(cookie);
    if (FAILED(hr)) {  // the sink is still advised: take it away for the leak count
      EXPECT_TRUE(mbnsim::Inject(mbnsim::CallName(calls.unadvise), ""));
      EXPECT_EQ(S_OK, point->Unadvise(cookie));
    }
    return Outcome{hr, false};
  }

  Outcome DriveInterfaceManager(Call call) {
    auto manager = Create<IMbnInterfaceManager>(CLSID_MbnInterfaceManager, IID_IMbnInterfaceManager);
    if (!manager) return Outcome{};
    if (call == Call::kGetInterface) {
      ComPtr<IMbnInterface> iface;
      return Result(manager->GetInterface(Id0().c_str(), iface.put()), iface);
    }
    ScopedSafeArray all;
    return Result(manager->GetInterfaces(all.put()), all);
  }

  Outcome DriveInterface(Call call) {
    auto manager = Create<IMbnInterfaceManager>(CLSID_MbnInterfaceManager, IID_IMbnInterfaceManager);
    ComPtr<IMbnInterface> iface;
    if (!manager || manager->GetInterface(Id0().c_str(), iface.put()) != S_OK) return Outcome{};
    ComPtr<IMbnRegistration> registration;
    if (call == Call::kQueryRegistration) {
      return Result(iface->QueryInterface(IID_IMbnRegistration, registration.put_void()), registration);
    }
    ComPtr<IMbnSubscriberInformation> subscriber;
    if (call == Call::kGetSubscriberInformation) {
      return Result(iface->GetSubscriberInformation(subscriber.put()), subscriber);
    }
    ScopedBstr text;
    switch (call) {
      case Call::kGetInterfaceId:
        return Result(iface->get_InterfaceID(text.put()), text);
      case Call::kGetReadyState: {
        MBN_READY_STATE state;
        return Outcome{iface->GetReadyState(&state), false};
      }
      case Call::kGetHomeProvider: {
        MBN_PROVIDER provider = {};
        const HRESULT hr = iface->GetHomeProvider(&provider);
        ScopedBstr id;
        ScopedBstr name;
        id.attach(provider.providerID);
        name.attach(provider.providerName);
        return Outcome{hr, false};
      }
      case Call::kGetRegisterState:
      case Call::kGetProviderId: {
        if (iface->QueryInterface(IID_IMbnRegistration, registration.put_void()) != S_OK) break;
        MBN_REGISTER_STATE state;
        return call == Call::kGetProviderId ? Result(registration->GetProviderID(text.put()), text)
                                            : Outcome{registration->GetRegisterState(&state), false};
      }
      case Call::kGetSubscriberId:
      case Call::kGetSimIccId:
        if (iface->GetSubscriberInformation(subscriber.put()) != S_OK) break;
        return Result(call == Call::kGetSimIccId ? subscriber->get_SimIccID(text.put())
                                                 : subscriber->get_SubscriberID(text.put()),
                      text);
      default:
        break;
    }
    return Outcome{};
  }

  Outcome DriveService(Call call) {
    auto manager = Create<IMbnDeviceServicesManager>(CLSID_MbnDeviceServicesManager,
                                                     IID_IMbnDeviceServicesManager);
    if (!manager) return Outcome{};
    ComPtr<IMbnDeviceServicesContext> context;
    ScopedBstr interface_id(Id0().c_str());
    HRESULT hr = manager->GetDeviceServicesContext(interface_id.get(), context.put());
    if (call == Call::kGetDeviceServicesContext || !context) return Result(hr, context);
    ComPtr<IMbnDeviceService> service;
    ScopedBstr service_id(kAtServiceId);
    hr = context->GetDeviceService(service_id.get(), service.put());
    if (call == Call::kGetDeviceService || !service) return Result(hr, service);
    if (call == Call::kGetIsCommandSessionOpen) {
      BOOL open = FALSE;
      return Outcome{service->get_IsCommandSessionOpen(&open), false};
    }
    hr = Request(service.get(), call);
    WaitIdle();
    return Outcome{hr, false};
  }

  // Opens or closes the command session, or sends "AT", on interface 0.
  static HRESULT Request(IMbnDeviceService* service, Call call) {
    ULONG request_id = 0;
    if (call == Call::kOpenCommandSession) return service->OpenCommandSession(&request_id);
    mbnsim::SetSessionOpen(0, true);
    if (call == Call::kCloseCommandSession) return service->CloseCommandSession(&request_id);
    const char at[] = "AT\r\n";
    ScopedSafeArray data(::SafeArrayCreateVector(VT_UI1, 0, sizeof at - 1));
    void* raw = nullptr;
    if (FAILED(::SafeArrayAccessData(data.get(), &raw))) return E_OUTOFMEMORY;
    std::memcpy(raw, at, sizeof at - 1);
    ::SafeArrayUnaccessData(data.get());
    return service->SetCommand(1, data.get(), &request_id);
  }

  // The request's completion as the advised sink receives it.
  Outcome DriveCompletion(Call call) {
    auto manager = Create<IMbnDeviceServicesManager>(CLSID_MbnDeviceServicesManager,
                                                     IID_IMbnDeviceServicesManager);
    ComPtr<IConnectionPointContainer> container;
    ComPtr<IConnectionPoint> point;
    ComPtr<IMbnDeviceServicesContext> context;
    ComPtr<IMbnDeviceService> service;
    ScopedBstr interface_id(Id0().c_str());
    ScopedBstr service_id(kAtServiceId);
    DWORD cookie = 0;
    if (!manager ||
        manager->QueryInterface(IID_IConnectionPointContainer, container.put_void()) != S_OK ||
        container->FindConnectionPoint(IID_IMbnDeviceServicesEvents, point.put()) != S_OK ||
        manager->GetDeviceServicesContext(interface_id.get(), context.put()) != S_OK ||
        context->GetDeviceService(service_id.get(), service.put()) != S_OK ||
        point->Advise(&services_sink_, &cookie) != S_OK) {
      return Outcome{};
    }
    services_sink_.Clear();
    const Call request = call == Call::kOpenCommandSessionComplete    ? Call::kOpenCommandSession
                         : call == Call::kCloseCommandSessionComplete ? Call::kCloseCommandSession
                                                                      : Call::kSetCommand;
    const HRESULT hr = Request(service.get(), request);
    WaitIdle();
    const auto delivered = services_sink_.WaitFor(1, 0);
    EXPECT_EQ(S_OK, point->Unadvise(cookie));
    if (FAILED(hr)) return Outcome{hr, false};
    return delivered.empty() ? Outcome{S_OK, true} : Outcome{delivered[0].status, false};
  }

  ManagerEventsSink manager_sink_;
  testing::RecordingSink services_sink_;
};

// An injection under a call's name comes back from that call; set for one
// interface, it holds for that interface's objects only, and only for calls of
// an interface's objects; "null" and "none" where the list says so.
TEST_F(SimulatorCallsTest, EveryListedCallHonoursItsInjectionsAsListed) {
  for (size_t i = 0; i < std::size(mbnsim::kCalls); ++i) {
    const mbnsim::CallInfo& info = mbnsim::kCalls[i];
    SCOPED_TRACE(info.name);
    const bool own = (info.traits & mbnsim::kPerInterface) != 0;
    const HRESULT failure = MAKE_HRESULT(SEVERITY_ERROR, FACILITY_ITF, 0xF000 + i);
    const Outcome plain = Drive(info.call);
    EXPECT_EQ(S_OK, plain.hr) << "nothing injected";
    EXPECT_FALSE(plain.null_result);

    ASSERT_TRUE(mbnsim::Inject(info.name, Hex(failure), own ? 0 : -1));
    EXPECT_EQ(failure, Drive(info.call).hr) << (own ? "set for interface 0" : "set for all");
    ASSERT_TRUE(mbnsim::Inject(info.name, "", own ? 0 : -1));

    // Interface 1's own failure: not for interface 0's objects, and not for
    // an object of no interface.
    ASSERT_TRUE(mbnsim::Inject(info.name, Hex(failure), 1));
    EXPECT_EQ(S_OK, Drive(info.call).hr) << "set for interface 1";
    ASSERT_TRUE(mbnsim::Inject(info.name, "", 1));
    if (!own) {
      ASSERT_TRUE(mbnsim::Inject(info.name, Hex(failure), 0));
      EXPECT_EQ(S_OK, Drive(info.call).hr) << "a call of no interface ignores interface 0's list";
      ASSERT_TRUE(mbnsim::Inject(info.name, "", 0));
    }

    ASSERT_TRUE(mbnsim::Inject(info.name, "null"));
    const Outcome null = Drive(info.call);
    EXPECT_EQ(S_OK, null.hr) << "null";
    EXPECT_EQ((info.traits & mbnsim::kTakesNull) != 0, null.null_result) << "null";
    ASSERT_TRUE(mbnsim::Inject(info.name, "none"));
    EXPECT_EQ((info.traits & mbnsim::kCompletion) != 0, Drive(info.call).null_result) << "none";
    ASSERT_TRUE(mbnsim::Inject(info.name, ""));
  }
}

TEST(SimulatorCalls, NamesAreUniqueAndTheManagersDifferByTheirPrefix) {
  for (const mbnsim::CallInfo& info : mbnsim::kCalls) {
    EXPECT_EQ(&info, mbnsim::FindCall(info.name)) << info.name;
    const std::string name = info.name;
    const bool completion = name.size() > 9 && name.compare(name.size() - 9, 9, ".Complete") == 0;
    EXPECT_EQ(completion, (info.traits & mbnsim::kCompletion) != 0) << info.name;
  }
  EXPECT_EQ(nullptr, mbnsim::FindCall("gethomeprovider")) << "names are exact";
  EXPECT_EQ(nullptr, mbnsim::FindCall(""));
  const mbnsim::ManagerCalls& a = mbnsim::kInterfaceManagerCalls;
  const mbnsim::ManagerCalls& b = mbnsim::kDeviceServicesCalls;
  for (const auto& pair : {std::make_pair(a.create_instance, b.create_instance),
                           std::make_pair(a.query_container, b.query_container),
                           std::make_pair(a.find_point, b.find_point),
                           std::make_pair(a.advise, b.advise), std::make_pair(a.unadvise, b.unadvise)}) {
    EXPECT_EQ(std::string("DeviceServices.") + mbnsim::CallName(pair.first),
              mbnsim::CallName(pair.second));
  }
}

}  // namespace
}  // namespace dorvane
