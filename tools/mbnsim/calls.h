// Every call of the simulated stack whose failure or delay a scenario can set,
// by the name it is set under (Inject\<name>, Delay\<name>), with what else
// than an HRESULT its injection may be.
//
// The simulator reads injections and delays only through a `Call` of this list
// (ReadInjection, ReadDelay), so no call can honour a name that is not listed,
// and mbnsimctl accepts exactly the listed names.
//
// The two managers share their connection point code; their calls are told
// apart by a prefix: none for the interface manager, "DeviceServices." for the
// device services manager. A completion of a device service request is a call
// of its own, "<request>.Complete".
#pragma once

#include <cstddef>
#include <string>

namespace mbnsim {

enum class Call {
  // The interface manager (CLSID_MbnInterfaceManager) and its connection point.
  kCreateInstance,
  kQueryConnectionPointContainer,
  kFindConnectionPoint,
  kAdvise,
  kUnadvise,
  kGetInterface,
  kGetInterfaces,
  // An interface (IMbnInterface, IMbnRegistration) and its subscriber information.
  kQueryRegistration,
  kGetInterfaceId,
  kGetSubscriberInformation,
  kGetReadyState,
  kGetHomeProvider,
  kGetRegisterState,
  kGetProviderId,
  kGetSubscriberId,
  kGetSimIccId,
  // The device services manager (CLSID_MbnDeviceServicesManager) and its connection point.
  kServicesCreateInstance,
  kServicesQueryConnectionPointContainer,
  kServicesFindConnectionPoint,
  kServicesAdvise,
  kServicesUnadvise,
  kGetDeviceServicesContext,
  // An interface's device services context and its AT command device service.
  kGetDeviceService,
  kGetIsCommandSessionOpen,
  kOpenCommandSession,
  kOpenCommandSessionComplete,
  kCloseCommandSession,
  kCloseCommandSessionComplete,
  kSetCommand,
  kSetCommandComplete,
  kCount
};

// What a call honours besides an HRESULT (and its delay).
enum CallTrait : unsigned {
  kTakesNull = 1u << 0,         // "null": succeeds and hands out a null pointer
  kTakesArrayShapes = 1u << 1,  // "wrongtype", "nullelement": a malformed array
  kCompletion = 1u << 2,        // a completion: "none", "wrongid", "empty", "early",
                                // "twice", "split"; an HRESULT is its status
  kPerInterface = 1u << 3,      // may be set for one interface only (Interfaces\N\Inject)
};

struct CallInfo {
  Call call;
  const char* name;
  unsigned traits;  // CallTrait bits
};

inline constexpr CallInfo kCalls[] = {
    {Call::kCreateInstance, "CreateInstance", kTakesNull},
    {Call::kQueryConnectionPointContainer, "QueryInterface.IConnectionPointContainer", kTakesNull},
    {Call::kFindConnectionPoint, "FindConnectionPoint", kTakesNull},
    {Call::kAdvise, "Advise", 0},
    {Call::kUnadvise, "Unadvise", 0},
    {Call::kGetInterface, "GetInterface", kTakesNull},
    {Call::kGetInterfaces, "GetInterfaces", kTakesNull | kTakesArrayShapes},
    {Call::kQueryRegistration, "QueryInterface.IMbnRegistration", kTakesNull | kPerInterface},
    {Call::kGetInterfaceId, "get_InterfaceID", kPerInterface},
    {Call::kGetSubscriberInformation, "GetSubscriberInformation", kTakesNull | kPerInterface},
    {Call::kGetReadyState, "GetReadyState", kPerInterface},
    {Call::kGetHomeProvider, "GetHomeProvider", kPerInterface},
    {Call::kGetRegisterState, "GetRegisterState", kPerInterface},
    {Call::kGetProviderId, "GetProviderID", kPerInterface},
    {Call::kGetSubscriberId, "get_SubscriberID", kPerInterface},
    {Call::kGetSimIccId, "get_SimIccID", kPerInterface},
    {Call::kServicesCreateInstance, "DeviceServices.CreateInstance", kTakesNull},
    {Call::kServicesQueryConnectionPointContainer,
     "DeviceServices.QueryInterface.IConnectionPointContainer", kTakesNull},
    {Call::kServicesFindConnectionPoint, "DeviceServices.FindConnectionPoint", kTakesNull},
    {Call::kServicesAdvise, "DeviceServices.Advise", 0},
    {Call::kServicesUnadvise, "DeviceServices.Unadvise", 0},
    {Call::kGetDeviceServicesContext, "GetDeviceServicesContext", kTakesNull},
    {Call::kGetDeviceService, "GetDeviceService", kTakesNull | kPerInterface},
    {Call::kGetIsCommandSessionOpen, "get_IsCommandSessionOpen", kPerInterface},
    {Call::kOpenCommandSession, "OpenCommandSession", kPerInterface},
    {Call::kOpenCommandSessionComplete, "OpenCommandSession.Complete", kCompletion | kPerInterface},
    {Call::kCloseCommandSession, "CloseCommandSession", kPerInterface},
    {Call::kCloseCommandSessionComplete, "CloseCommandSession.Complete", kCompletion | kPerInterface},
    {Call::kSetCommand, "SetCommand", kPerInterface},
    {Call::kSetCommandComplete, "SetCommand.Complete", kCompletion | kPerInterface},
};

constexpr bool CallsInOrder() {
  size_t i = 0;
  for (const CallInfo& info : kCalls) {
    if (static_cast<size_t>(info.call) != i++) return false;
  }
  return i == static_cast<size_t>(Call::kCount);
}
static_assert(CallsInOrder(), "kCalls has one entry per Call, in the enum's order");

inline const CallInfo& Info(Call call) { return kCalls[static_cast<size_t>(call)]; }
inline const char* CallName(Call call) { return Info(call).name; }

// The listed call of this name (exact, case included), or nullptr.
inline const CallInfo* FindCall(const std::string& name) {
  for (const CallInfo& info : kCalls) {
    if (name == info.name) return &info;
  }
  return nullptr;
}

// The calls of one manager and the connection point it hands out.
struct ManagerCalls {
  Call create_instance;
  Call query_container;
  Call find_point;
  Call advise;
  Call unadvise;
};

inline constexpr ManagerCalls kInterfaceManagerCalls = {
    Call::kCreateInstance, Call::kQueryConnectionPointContainer, Call::kFindConnectionPoint,
    Call::kAdvise, Call::kUnadvise};
inline constexpr ManagerCalls kDeviceServicesCalls = {
    Call::kServicesCreateInstance, Call::kServicesQueryConnectionPointContainer,
    Call::kServicesFindConnectionPoint, Call::kServicesAdvise, Call::kServicesUnadvise};

}  // namespace mbnsim
