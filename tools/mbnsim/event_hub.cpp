#include "tools/mbnsim/event_hub.h"

#include <objbase.h>

#include <algorithm>

#include "tools/mbnsim/sim_interface.h"
#include "tools/mbnsim/tracker.h"
#include "util/mbnapi.h"
#include "util/scoped_handle.h"

namespace mbnsim {

using dorvane::ComPtr;

namespace {

// The sink this thread is calling right now, so that an Unadvise from inside
// the call does not wait for itself.
thread_local DWORD t_calling_cookie = 0;

struct DeliveryStart {
  EventHub* hub;
  DWORD index;
};

}  // namespace

EventHub& EventHub::Get() {
  static EventHub* hub = new EventHub();  // lives until the process ends
  return *hub;
}

void EventHub::Start() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (started_) return;
  started_ = true;
  last_seq_ = EventSeq();
  // The thread runs until the process ends; its handle is not needed.
  HANDLE thread = ::CreateThread(nullptr, 0, WatchMain, this, 0, nullptr);
  if (thread) ::CloseHandle(thread);
}

DWORD EventHub::Advise(IUnknown* sink, REFIID iid, const void* owner) {
  std::lock_guard<std::mutex> lock(mutex_);
  DWORD cookie = next_cookie_++;
  sinks_[cookie] = Entry{sink, iid, owner};
  Tracker::SinkAdvised();
  return cookie;
}

bool EventHub::Unadvise(DWORD cookie, const void* owner) {
  // Read before the lock: the scenario has a lock of its own.
  const bool waits = ReadOption("UnadviseWaits", kDefaultUnadviseWaits) != 0;
  IUnknown* sink = nullptr;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    auto it = sinks_.find(cookie);
    if (it == sinks_.end() || it->second.owner != owner) return false;
    sink = it->second.sink;
    sinks_.erase(it);
    Calls& calls = calls_[cookie];
    if (waits) {
      const int own = t_calling_cookie == cookie ? 1 : 0;
      calls_done_.wait(lock, [&calls, own] { return calls.running == own; });
    } else {
      // Only a call picked but not yet made is waited for: a sink cannot keep
      // itself alive before its method runs. The delivering thread makes the
      // call without taking our lock again (see ForEachSink).
      while (calls.picked.load() != 0) ::SwitchToThread();
    }
    // Calls still running drop the entry when the last of them ends.
    if (calls.running == 0) {
      calls_.erase(cookie);
    } else {
      calls.left = true;
    }
  }
  Tracker::SinkUnadvised();
  sink->Release();
  return true;
}

void EventHub::ForEachSink(REFIID iid, const std::function<void(IUnknown*)>& call) {
  std::vector<DWORD> cookies;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& entry : sinks_) {
      if (IsEqualGUID(entry.second.iid, iid)) cookies.push_back(entry.first);
    }
  }
  for (DWORD cookie : cookies) {
    IUnknown* sink = nullptr;
    Calls* calls = nullptr;  // stays while this call runs
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = sinks_.find(cookie);
      if (it == sinks_.end()) continue;  // unadvised meanwhile
      sink = it->second.sink;
      calls = &calls_[cookie];
      ++calls->running;
      ++calls->picked;
    }
    // The advise entry holds its reference until Unadvise, which by default
    // waits for this call. With UnadviseWaits 0 it waits only until the call is
    // made, and the sink may lose its last reference while the call is inside
    // it: the call goes on through the pointer taken above, as a real stack's
    // may. Between the count below and the sink's method nothing may block or
    // wake a thread, so that this thread is not held up in the gap.
    const DWORD outer = t_calling_cookie;
    t_calling_cookie = cookie;
    --calls->picked;
    call(sink);
    t_calling_cookie = outer;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (--calls->running == 0 && calls->left) calls_.erase(cookie);
    }
    calls_done_.notify_all();
  }
}

void EventHub::Post(std::function<void()> job, DWORD delay_ms) {
  Start();
  const DWORD wanted = std::clamp<DWORD>(ReadOption("DeliveryThreads", kDefaultDeliveryThreads), 1,
                                         kMaxDeliveryThreads);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    GrowPool(wanted);
    jobs_.emplace(Clock::now() + std::chrono::milliseconds(delay_ms), std::move(job));
  }
  jobs_changed_.notify_all();
}

void EventHub::GrowPool(DWORD wanted) {
  wanted_ = wanted;
  while (threads_ < wanted) {
    // Each thread runs until the process ends; its start block is never freed.
    auto* start = new DeliveryStart{this, threads_};
    HANDLE thread = ::CreateThread(nullptr, 0, DeliveryMain, start, 0, nullptr);
    if (thread == nullptr) {
      delete start;
      break;
    }
    ::CloseHandle(thread);
    ++threads_;
  }
}

DWORD WINAPI EventHub::DeliveryMain(LPVOID param) {
  const DeliveryStart start = *static_cast<DeliveryStart*>(param);
  delete static_cast<DeliveryStart*>(param);
  ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  start.hub->Deliver(start.index);
  return 0;
}

void EventHub::Deliver(DWORD index) {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (index >= wanted_ || jobs_.empty()) {
      jobs_changed_.wait(lock);
      continue;
    }
    auto first = jobs_.begin();
    if (first->first > Clock::now()) {
      jobs_changed_.wait_until(lock, first->first);
      continue;
    }
    std::function<void()> job = std::move(first->second);
    jobs_.erase(first);
    lock.unlock();
    job();
    lock.lock();
  }
}

DWORD WINAPI EventHub::WatchMain(LPVOID self) {
  ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  static_cast<EventHub*>(self)->Watch();
  return 0;
}

void EventHub::Watch() {
  dorvane::UniqueRegKey key;
  ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Dorvane\\MbnSim\\Events", 0, nullptr, 0,
                    KEY_READ | KEY_NOTIFY, nullptr, key.put(), nullptr);
  dorvane::UniqueHandle changed(::CreateEventA(nullptr, FALSE, FALSE, nullptr));
  for (;;) {
    // Armed before reading, so that no write between the two is missed; the
    // time-out covers a notification that cannot be armed.
    ::RegNotifyChangeKeyValue(key.get(), FALSE, REG_NOTIFY_CHANGE_LAST_SET, changed.get(), TRUE);
    const DWORD seq = EventSeq();
    while (last_seq_ < seq) {
      Event event;
      if (ReadEvent(++last_seq_, &event)) PostInterfaceEvent(event);
    }
    ::WaitForSingleObject(changed.get(), 250);
  }
}

void EventHub::PostInterfaceEvent(const Event& event) {
  ComPtr<SimInterface> iface;
  iface.attach(new SimInterface(event.interface_id));
  Tracker::JobQueued();
  Post([this, iface, kind = event.kind]() mutable {
    // Counted after the call, which is to start the moment the sink is picked.
    ForEachSink(dorvane::IID_IMbnInterfaceManagerEvents, [&](IUnknown* target) {
      auto* sink = static_cast<dorvane::IMbnInterfaceManagerEvents*>(target);
      if (kind == Event::kArrival) {
        sink->OnInterfaceArrival(iface.get());
        Tracker::ArrivalDelivered();
      } else {
        sink->OnInterfaceRemoval(iface.get());
        Tracker::RemovalDelivered();
      }
    });
    iface.reset();  // before the job counts as done, so that nothing seems left
    Tracker::JobDone();
  });
}

}  // namespace mbnsim
