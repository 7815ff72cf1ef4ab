// The part of the Windows Mobile Broadband API that the service and its
// simulator use. MinGW-w64 ships no mbnapi.h, so the interfaces are declared
// here with the published class ids, interface ids, vtable slot order and
// struct layouts of the system's own header. Every interface derives directly
// from IUnknown and every method returns HRESULT with the stdcall convention.
#pragma once

#include <windows.h>
#include <oaidl.h>
#include <ocidl.h>
#include <unknwn.h>

namespace dorvane {

inline constexpr GUID CLSID_MbnInterfaceManager = {
    0xBDFEE05B, 0x4418, 0x11DD, {0x90, 0xED, 0x00, 0x1C, 0x25, 0x7C, 0xCF, 0xF1}};
inline constexpr GUID CLSID_MbnDeviceServicesManager = {
    0x2269DAA3, 0x2A9F, 0x4165, {0xA5, 0x01, 0xCE, 0x00, 0xA6, 0xF7, 0xA7, 0x5B}};

inline constexpr GUID IID_IMbnInterfaceManager = {
    0xDCBBBAB6, 0x201B, 0x4BBB, {0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A, 0xF6, 0xFA}};
inline constexpr GUID IID_IMbnInterfaceManagerEvents = {
    0xDCBBBAB6, 0x201C, 0x4BBB, {0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A, 0xF6, 0xFA}};
inline constexpr GUID IID_IMbnInterface = {
    0xDCBBBAB6, 0x2001, 0x4BBB, {0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A, 0xF6, 0xFA}};
inline constexpr GUID IID_IMbnRegistration = {
    0xDCBBBAB6, 0x2009, 0x4BBB, {0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A, 0xF6, 0xFA}};
inline constexpr GUID IID_IMbnConnection = {
    0xDCBBBAB6, 0x200D, 0x4BBB, {0xAA, 0xEE, 0x33, 0x8E, 0x36, 0x8A, 0xF6, 0xFA}};
inline constexpr GUID IID_IMbnSubscriberInformation = {
    0x459ECC43, 0xBCF5, 0x11DC, {0xA8, 0xA8, 0x00, 0x13, 0x21, 0xF1, 0x40, 0x5F}};
inline constexpr GUID IID_IMbnDeviceServicesManager = {
    0x20A26258, 0x6811, 0x4478, {0xAC, 0x1D, 0x13, 0x32, 0x4E, 0x45, 0xE4, 0x1C}};
inline constexpr GUID IID_IMbnDeviceServicesContext = {
    0xFC5AC347, 0x1592, 0x4068, {0x80, 0xBB, 0x6A, 0x57, 0x58, 0x01, 0x50, 0xD8}};
inline constexpr GUID IID_IMbnDeviceService = {
    0xB3BB9A71, 0xDC70, 0x4BE9, {0xA4, 0xDA, 0x78, 0x86, 0xAE, 0x8B, 0x19, 0x1B}};
inline constexpr GUID IID_IMbnDeviceServicesEvents = {
    0x0A900C19, 0x6824, 0x4E97, {0xB7, 0x6E, 0xCF, 0x23, 0x9D, 0x0C, 0xA6, 0x42}};

enum MBN_READY_STATE : int {
  MBN_READY_STATE_OFF = 0,
  MBN_READY_STATE_INITIALIZED = 1,
  MBN_READY_STATE_SIM_NOT_INSERTED = 2,
  MBN_READY_STATE_BAD_SIM = 3,
  MBN_READY_STATE_FAILURE = 4,
  MBN_READY_STATE_NOT_ACTIVATED = 5,
  MBN_READY_STATE_DEVICE_LOCKED = 6,
  MBN_READY_STATE_DEVICE_BLOCKED = 7,
  MBN_READY_STATE_NO_ESIM_PROFILE = 8,
};

enum MBN_REGISTER_STATE : int {
  MBN_REGISTER_STATE_NONE = 0,
  MBN_REGISTER_STATE_DEREGISTERED = 1,
  MBN_REGISTER_STATE_SEARCHING = 2,
  MBN_REGISTER_STATE_HOME = 3,
  MBN_REGISTER_STATE_ROAMING = 4,
  MBN_REGISTER_STATE_PARTNER = 5,
  MBN_REGISTER_STATE_DENIED = 6,
};

enum MBN_REGISTER_MODE : int {
  MBN_REGISTER_MODE_NONE = 0,
  MBN_REGISTER_MODE_AUTOMATIC = 1,
  MBN_REGISTER_MODE_MANUAL = 2,
};

enum MBN_DEVICE_SERVICES_INTERFACE_STATE : int {
  MBN_DEVICE_SERVICES_CAPABLE_INTERFACE_ARRIVAL = 0,
  MBN_DEVICE_SERVICES_CAPABLE_INTERFACE_REMOVAL = 1,
};

struct MBN_PROVIDER {
  BSTR providerID;
  ULONG providerState;
  BSTR providerName;
  ULONG dataClass;
};
static_assert(sizeof(MBN_PROVIDER) == 32, "MBN_PROVIDER layout");

struct MBN_INTERFACE_CAPS {
  int cellularClass;
  int voiceClass;
  ULONG dataClass;
  BSTR customDataClass;
  ULONG gsmBandClass;
  ULONG cdmaBandClass;
  BSTR customBandClass;
  ULONG smsCaps;
  ULONG controlCaps;
  BSTR deviceID;
  BSTR manufacturer;
  BSTR model;
  BSTR firmwareInfo;
};
static_assert(sizeof(MBN_INTERFACE_CAPS) == 80, "MBN_INTERFACE_CAPS layout");

struct MBN_DEVICE_SERVICE {
  BSTR deviceServiceID;
  VARIANT_BOOL dataWriteSupported;
  VARIANT_BOOL dataReadSupported;
};
static_assert(sizeof(MBN_DEVICE_SERVICE) == 16, "MBN_DEVICE_SERVICE layout");

struct IMbnConnection;  // only passed by pointer
struct IMbnSubscriberInformation;

struct IMbnInterface : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE get_InterfaceID(BSTR* interfaceID) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetInterfaceCapability(MBN_INTERFACE_CAPS* caps) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetSubscriberInformation(
      IMbnSubscriberInformation** subscriberInformation) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetReadyState(MBN_READY_STATE* readyState) = 0;
  virtual HRESULT STDMETHODCALLTYPE InEmergencyMode(VARIANT_BOOL* emergencyMode) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetHomeProvider(MBN_PROVIDER* homeProvider) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetPreferredProviders(SAFEARRAY** preferredProviders) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetPreferredProviders(SAFEARRAY* preferredProviders,
                                                          ULONG* requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetVisibleProviders(ULONG* age,
                                                        SAFEARRAY** visibleProviders) = 0;
  virtual HRESULT STDMETHODCALLTYPE ScanNetwork(ULONG* requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetConnection(IMbnConnection** mbnConnection) = 0;
};

struct IMbnSubscriberInformation : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE get_SubscriberID(BSTR* subscriberID) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_SimIccID(BSTR* simIccID) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_TelephoneNumbers(SAFEARRAY** telephoneNumbers) = 0;
};

struct IMbnRegistration : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetRegisterState(MBN_REGISTER_STATE* registerState) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetRegisterMode(MBN_REGISTER_MODE* registerMode) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetProviderID(BSTR* providerID) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetProviderName(BSTR* providerName) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetRoamingText(BSTR* roamingText) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetAvailableDataClasses(ULONG* availableDataClasses) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetCurrentDataClass(ULONG* currentDataClass) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetRegistrationNetworkError(ULONG* error) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetPacketAttachNetworkError(ULONG* error) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetRegisterMode(MBN_REGISTER_MODE registerMode,
                                                    LPCWSTR providerID, ULONG dataClass,
                                                    ULONG* requestID) = 0;
};

struct IMbnInterfaceManager : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetInterface(LPCWSTR interfaceID,
                                                 IMbnInterface** mbnInterface) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetInterfaces(SAFEARRAY** mbnInterfaces) = 0;
};

struct IMbnInterfaceManagerEvents : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE OnInterfaceArrival(IMbnInterface* newInterface) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnInterfaceRemoval(IMbnInterface* oldInterface) = 0;
};

struct IMbnDeviceService : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE QuerySupportedCommands(ULONG* requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE OpenCommandSession(ULONG* requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE CloseCommandSession(ULONG* requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetCommand(ULONG commandID, SAFEARRAY* deviceServiceData,
                                               ULONG* requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE QueryCommand(ULONG commandID, SAFEARRAY* deviceServiceData,
                                                 ULONG* requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE OpenDataSession(ULONG* requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE CloseDataSession(ULONG* requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE WriteData(SAFEARRAY* deviceServiceData, ULONG* requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_InterfaceID(BSTR* interfaceID) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_DeviceServiceID(BSTR* deviceServiceID) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_IsCommandSessionOpen(BOOL* value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_IsDataSessionOpen(BOOL* value) = 0;
};

struct IMbnDeviceServicesContext : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE EnumerateDeviceServices(SAFEARRAY** deviceServices) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetDeviceService(BSTR deviceServiceID,
                                                     IMbnDeviceService** mbnDeviceService) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_MaxCommandSize(ULONG* maxCommandSize) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_MaxDataSize(ULONG* maxDataSize) = 0;
};

struct IMbnDeviceServicesManager : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetDeviceServicesContext(
      BSTR networkInterfaceID, IMbnDeviceServicesContext** mbnDevicesContext) = 0;
};

// Status comes before the request id in this interface, unlike the other
// event interfaces of the API.
struct IMbnDeviceServicesEvents : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE OnQuerySupportedCommandsComplete(
      IMbnDeviceService* deviceService, SAFEARRAY* commandIDList, HRESULT status,
      ULONG requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnOpenCommandSessionComplete(IMbnDeviceService* deviceService,
                                                                 HRESULT status,
                                                                 ULONG requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnCloseCommandSessionComplete(
      IMbnDeviceService* deviceService, HRESULT status, ULONG requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnSetCommandComplete(IMbnDeviceService* deviceService,
                                                         ULONG responseID,
                                                         SAFEARRAY* deviceServiceData,
                                                         HRESULT status, ULONG requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnQueryCommandComplete(IMbnDeviceService* deviceService,
                                                           ULONG responseID,
                                                           SAFEARRAY* deviceServiceData,
                                                           HRESULT status, ULONG requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnEventNotification(IMbnDeviceService* deviceService,
                                                        ULONG eventID,
                                                        SAFEARRAY* deviceServiceData) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnOpenDataSessionComplete(IMbnDeviceService* deviceService,
                                                              HRESULT status,
                                                              ULONG requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnCloseDataSessionComplete(IMbnDeviceService* deviceService,
                                                               HRESULT status,
                                                               ULONG requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnWriteDataComplete(IMbnDeviceService* deviceService,
                                                        HRESULT status, ULONG requestID) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnReadData(IMbnDeviceService* deviceService,
                                               SAFEARRAY* deviceServiceData) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnInterfaceStateChange(
      BSTR interfaceID, MBN_DEVICE_SERVICES_INTERFACE_STATE stateChange) = 0;
};

}  // namespace dorvane
