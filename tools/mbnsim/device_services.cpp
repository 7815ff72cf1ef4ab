#include "tools/mbnsim/device_services.h"

#include <objbase.h>
#include <olectl.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <vector>

#include "tools/mbnsim/at_responder.h"
#include "util/com_ptr.h"
#include "util/scoped_handle.h"

namespace mbnsim {

namespace {

std::atomic<ULONG> g_next_request{1};

bool SameText(const std::string& a, const std::string& b) {
  return a.size() == b.size() && ::CompareStringA(LOCALE_INVARIANT, NORM_IGNORECASE, a.c_str(),
                                                  static_cast<int>(a.size()), b.c_str(),
                                                  static_cast<int>(b.size())) == CSTR_EQUAL;
}

// The payload bytes of a one-dimensional byte array; false when it is not one.
bool PayloadBytes(SAFEARRAY* data, VARTYPE* type, std::string* bytes) {
  *type = VT_EMPTY;
  if (data == nullptr || FAILED(::SafeArrayGetVartype(data, type)) || *type != VT_UI1 ||
      ::SafeArrayGetDim(data) != 1) {
    return false;
  }
  LONG lower = 0;
  LONG upper = -1;
  ::SafeArrayGetLBound(data, 1, &lower);
  ::SafeArrayGetUBound(data, 1, &upper);
  void* raw = nullptr;
  if (FAILED(::SafeArrayAccessData(data, &raw))) return false;
  bytes->assign(static_cast<const char*>(raw), upper >= lower ? upper - lower + 1 : 0);
  ::SafeArrayUnaccessData(data);
  return true;
}

SAFEARRAY* ByteArray(const std::string& bytes) {
  SAFEARRAY* array = ::SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(bytes.size()));
  if (array == nullptr || bytes.empty()) return array;
  void* raw = nullptr;
  if (SUCCEEDED(::SafeArrayAccessData(array, &raw))) {
    std::memcpy(raw, bytes.data(), bytes.size());
    ::SafeArrayUnaccessData(array);
  }
  return array;
}

// Three fragments of nearly equal size (fewer when the answer is shorter), as a
// module that splits a long response over several indications sends them.
std::vector<std::string> SplitAnswer(const std::string& answer) {
  const size_t count = std::min<size_t>(3, std::max<size_t>(1, answer.size()));
  std::vector<std::string> pieces;
  size_t at = 0;
  for (size_t i = 0; i < count; ++i) {
    const size_t size = (answer.size() - at) / (count - i);
    pieces.push_back(answer.substr(at, size));
    at += size;
  }
  return pieces;
}

// Fills the array's bytes with 0xDD before destroying it, so that a sink that
// kept the pointer reads garbage, not a plausible answer.
void FreeDeliveredArray(SAFEARRAY* array) {
  if (array == nullptr) return;
  void* raw = nullptr;
  if (SUCCEEDED(::SafeArrayAccessData(array, &raw))) {
    std::memset(raw, 0xDD, array->rgsabound[0].cElements);
    ::SafeArrayUnaccessData(array);
  }
  ::SafeArrayDestroy(array);
}

// Waits until the starting call has returned, then about 50 microseconds more.
void WaitForCaller(const std::atomic<bool>& returned) {
  while (!returned.load()) ::SwitchToThread();
  LARGE_INTEGER freq;
  LARGE_INTEGER start;
  LARGE_INTEGER now;
  ::QueryPerformanceFrequency(&freq);
  ::QueryPerformanceCounter(&start);
  do {
    ::SwitchToThread();
    ::QueryPerformanceCounter(&now);
  } while ((now.QuadPart - start.QuadPart) * 20000 < freq.QuadPart);
}

}  // namespace

// -- SimDeviceService ---------------------------------------------------------------

HRESULT STDMETHODCALLTYPE SimDeviceService::QueryInterface(REFIID riid, void** ppv) {
  return QueryOne<IMbnDeviceService>(this, IID_IMbnDeviceService, riid, ppv);
}

void SimDeviceService::Deliver(Kind kind, ULONG request_id, ULONG response_id, HRESULT status,
                               const std::string& answer) {
  // The data is only valid with S_OK; otherwise the sink gets none. Each sink's
  // array is made before the hub picks that sink, so that the sink is called the
  // moment it is picked: an Unadvise that does not wait may let it go at once.
  auto next_data = [&]() -> SAFEARRAY* {
    return kind == Kind::kSet && status == S_OK ? ByteArray(answer) : nullptr;
  };
  SAFEARRAY* data = next_data();
  EventHub::Get().ForEachSink(IID_IMbnDeviceServicesEvents, [&](IUnknown* target) {
    auto* sink = static_cast<IMbnDeviceServicesEvents*>(target);
    switch (kind) {
      case Kind::kOpen:
        sink->OnOpenCommandSessionComplete(this, status, request_id);
        break;
      case Kind::kClose:
        sink->OnCloseCommandSessionComplete(this, status, request_id);
        break;
      case Kind::kSet:
        sink->OnSetCommandComplete(this, response_id, data, status, request_id);
        FreeDeliveredArray(data);
        data = next_data();
        break;
    }
  });
  FreeDeliveredArray(data);  // made for a sink that was not there
}

void SimDeviceService::Complete(const CallGuard& guard, Kind kind, Call call, ULONG request_id,
                                ULONG response_id, HRESULT status, std::string answer) {
  const Injection inj = ReadInjection(call, FindInterface(id_, nullptr));
  if (inj.kind == Injection::kNoCompletion) return;
  if (inj.kind == Injection::kFail) status = inj.hr;
  if (inj.kind == Injection::kWrongId) request_id = request_id > 1 ? request_id - 1 : request_id + 1;
  if (inj.kind == Injection::kEmpty) answer.clear();
  const std::vector<std::string> pieces =
      inj.kind == Injection::kSplit ? SplitAnswer(answer) : std::vector<std::string>{answer};
  const int times = inj.kind == Injection::kTwice ? 2 : 1;
  const bool early = inj.kind == Injection::kEarly;
  // Set once an early completion has been delivered; the call returns after it.
  auto delivered = early ? std::make_shared<dorvane::UniqueHandle>(
                               ::CreateEventA(nullptr, TRUE, FALSE, nullptr))
                         : nullptr;
  ComPtr<SimDeviceService> self(this);
  Tracker::JobQueued();
  EventHub::Get().Post(
      [self, kind, request_id, response_id, status, pieces, times, delivered,
       returned = guard.token()]() mutable {
        if (!delivered) WaitForCaller(*returned);
        for (int t = 0; t < times; ++t) {
          for (const std::string& piece : pieces) {
            self->Deliver(kind, request_id, response_id, status, piece);
          }
        }
        self.reset();  // before the job counts as done, so that nothing seems left
        Tracker::JobDone();
        if (delivered) ::SetEvent(delivered->get());
      },
      ReadDelay(call));
  if (delivered) ::WaitForSingleObject(delivered->get(), INFINITE);
}

HRESULT SimDeviceService::ChangeSession(const CallGuard& guard, bool open, ULONG* request_id) {
  if (request_id == nullptr) return E_POINTER;
  const int index = FindInterface(id_, nullptr);
  if (index < 0) return kInterfaceGone;
  const Call call = open ? Call::kOpenCommandSession : Call::kCloseCommandSession;
  const Call completion = open ? Call::kOpenCommandSessionComplete : Call::kCloseCommandSessionComplete;
  HRESULT hr = Injected(call, index, nullptr);
  if (hr != S_OK) return hr;
  if (!open && !SessionOpen(index)) return kNoSession;
  *request_id = g_next_request++;
  // A completion that reports a failure tells of a session that did not change.
  const Injection done = ReadInjection(completion, index);
  if (done.kind != Injection::kFail || done.hr == S_OK) SetSessionOpen(index, open);
  Complete(guard, open ? Kind::kOpen : Kind::kClose, completion, *request_id, 0, S_OK, std::string());
  return S_OK;
}

HRESULT STDMETHODCALLTYPE SimDeviceService::OpenCommandSession(ULONG* request_id) {
  CallGuard guard;
  return ChangeSession(guard, true, request_id);
}

HRESULT STDMETHODCALLTYPE SimDeviceService::CloseCommandSession(ULONG* request_id) {
  CallGuard guard;
  return ChangeSession(guard, false, request_id);
}

HRESULT STDMETHODCALLTYPE SimDeviceService::SetCommand(ULONG command_id, SAFEARRAY* data,
                                                       ULONG* request_id) {
  CallGuard guard;
  if (request_id == nullptr) return E_POINTER;
  InterfaceInfo info;
  const int index = FindInterface(id_, &info);
  if (index < 0) return kInterfaceGone;
  HRESULT hr = Injected(Call::kSetCommand, index, nullptr);
  if (hr != S_OK) return hr;
  SentCommand sent;
  sent.command_id = command_id;
  const bool bytes_ok = PayloadBytes(data, &sent.type, &sent.bytes);
  RecordCommand(sent);
  if (!bytes_ok) return E_INVALIDARG;
  if (!SessionOpen(index)) return kNoSession;
  // The data must be smaller than the maximum command size.
  if (sent.bytes.size() >= ReadOption("MaxCommandSize", kDefaultMaxCommandSize)) return E_INVALIDARG;
  *request_id = g_next_request++;
  // Command 1 of this service is the AT tunnel; the module knows no other.
  const bool at = command_id == 1;
  Complete(guard, Kind::kSet, Call::kSetCommandComplete, *request_id, command_id,
           at ? S_OK : E_INVALIDARG, at ? Respond(sent.bytes, info) : std::string());
  return S_OK;
}

HRESULT STDMETHODCALLTYPE SimDeviceService::get_InterfaceID(BSTR* id) {
  if (id == nullptr) return E_POINTER;
  *id = NewBstr(id_);
  return S_OK;
}

HRESULT STDMETHODCALLTYPE SimDeviceService::get_DeviceServiceID(BSTR* id) {
  if (id == nullptr) return E_POINTER;
  *id = NewBstr(kAtDeviceServiceId);
  return S_OK;
}

HRESULT STDMETHODCALLTYPE SimDeviceService::get_IsCommandSessionOpen(BOOL* open) {
  if (open == nullptr) return E_POINTER;
  const int index = FindInterface(id_, nullptr);
  if (index < 0) return kInterfaceGone;
  HRESULT hr = Injected(Call::kGetIsCommandSessionOpen, index, nullptr);
  if (hr != S_OK) return hr;
  *open = SessionOpen(index) ? TRUE : FALSE;
  return S_OK;
}

HRESULT STDMETHODCALLTYPE SimDeviceService::get_IsDataSessionOpen(BOOL* open) {
  if (open == nullptr) return E_POINTER;
  *open = FALSE;
  return S_OK;
}

// -- SimDeviceServicesContext ---------------------------------------------------------

HRESULT STDMETHODCALLTYPE SimDeviceServicesContext::QueryInterface(REFIID riid, void** ppv) {
  return QueryOne<IMbnDeviceServicesContext>(this, IID_IMbnDeviceServicesContext, riid, ppv);
}

HRESULT STDMETHODCALLTYPE SimDeviceServicesContext::GetDeviceService(BSTR service_id,
                                                                     IMbnDeviceService** out) {
  if (out == nullptr) return E_POINTER;
  *out = nullptr;
  const int index = FindInterface(id_, nullptr);
  if (index < 0) return kInterfaceGone;
  bool null_out = false;
  HRESULT hr = Injected(Call::kGetDeviceService, index, &null_out);
  if (hr != S_OK || null_out) return hr;
  if (service_id == nullptr || !SameText(WideToAnsi(service_id), kAtDeviceServiceId)) {
    return E_INVALIDARG;
  }
  *out = new SimDeviceService(id_);
  return S_OK;
}

HRESULT STDMETHODCALLTYPE SimDeviceServicesContext::get_MaxCommandSize(ULONG* size) {
  if (size == nullptr) return E_POINTER;
  *size = ReadOption("MaxCommandSize", kDefaultMaxCommandSize);
  return S_OK;
}

HRESULT STDMETHODCALLTYPE SimDeviceServicesContext::get_MaxDataSize(ULONG* size) {
  if (size == nullptr) return E_POINTER;
  *size = 4096;
  return S_OK;
}

// -- SimDeviceServicesManager ---------------------------------------------------------

HRESULT STDMETHODCALLTYPE SimDeviceServicesManager::GetDeviceServicesContext(
    BSTR interface_id, IMbnDeviceServicesContext** out) {
  if (out == nullptr) return E_POINTER;
  *out = nullptr;
  bool null_out = false;
  HRESULT hr = Injected(Call::kGetDeviceServicesContext, -1, &null_out);
  if (hr != S_OK || null_out) return hr;
  const std::string id = WideToAnsi(interface_id);
  if (FindInterface(id, nullptr) < 0) return E_INVALIDARG;
  *out = new SimDeviceServicesContext(id);
  return S_OK;
}

HRESULT CreateDeviceServicesManager(REFIID riid, void** ppv) {
  return CreateManager<SimDeviceServicesManager>(kDeviceServicesCalls, riid, ppv);
}

}  // namespace mbnsim
