#include "tools/mbnsim/event_hub.h"

#include <objbase.h>

#include "tools/mbnsim/sim_interface.h"
#include "tools/mbnsim/tracker.h"
#include "util/mbnapi.h"
#include "util/scoped_handle.h"

namespace mbnsim {

using dorvane::ComPtr;

EventHub& EventHub::Get() {
  static EventHub* hub = new EventHub();  // lives until the process ends
  return *hub;
}

void EventHub::Start() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (started_) return;
  started_ = true;
  last_seq_ = EventSeq();
  jobs_ready_ = ::CreateEventA(nullptr, FALSE, FALSE, nullptr);
  // The thread runs until the process ends; its handle is not needed.
  HANDLE thread = ::CreateThread(nullptr, 0, ThreadMain, this, 0, nullptr);
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
  IUnknown* sink = nullptr;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    auto it = sinks_.find(cookie);
    if (it == sinks_.end() || it->second.owner != owner) return false;
    sink = it->second.sink;
    sinks_.erase(it);
    if (::GetCurrentThreadId() != thread_id_) {
      calls_done_.wait(lock, [this, cookie] { return calls_[cookie] == 0; });
    }
    calls_.erase(cookie);
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
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = sinks_.find(cookie);
      if (it == sinks_.end()) continue;  // unadvised meanwhile
      sink = it->second.sink;
      ++calls_[cookie];
    }
    // The advise entry holds its reference until Unadvise, which waits for this
    // call: the sink cannot go away under it.
    call(sink);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      --calls_[cookie];
    }
    calls_done_.notify_all();
  }
}

void EventHub::Post(std::function<void()> job) {
  Start();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    jobs_.push_back(std::move(job));
  }
  ::SetEvent(jobs_ready_);
}

DWORD WINAPI EventHub::ThreadMain(LPVOID self) {
  static_cast<EventHub*>(self)->thread_id_ = ::GetCurrentThreadId();
  ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  static_cast<EventHub*>(self)->Run();
  return 0;
}

void EventHub::Run() {
  dorvane::UniqueRegKey key;
  ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Dorvane\\MbnSim\\Events", 0, nullptr, 0,
                    KEY_READ | KEY_NOTIFY, nullptr, key.put(), nullptr);
  dorvane::UniqueHandle changed(::CreateEventA(nullptr, FALSE, FALSE, nullptr));
  HANDLE waits[2] = {jobs_ready_, changed.get()};
  for (;;) {
    RunJobs();
    // Armed before reading, so that no write between the two is missed; the
    // time-out covers a notification that cannot be armed.
    ::RegNotifyChangeKeyValue(key.get(), FALSE, REG_NOTIFY_CHANGE_LAST_SET, changed.get(), TRUE);
    const DWORD seq = EventSeq();
    while (last_seq_ < seq) {
      Event event;
      if (ReadEvent(++last_seq_, &event)) DeliverInterfaceEvent(event);
    }
    ::WaitForMultipleObjects(2, waits, FALSE, 250);
  }
}

void EventHub::RunJobs() {
  for (;;) {
    std::function<void()> job;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (jobs_.empty()) return;
      job = std::move(jobs_.front());
      jobs_.pop_front();
    }
    job();
  }
}

void EventHub::DeliverInterfaceEvent(const Event& event) {
  ComPtr<SimInterface> iface;
  iface.attach(new SimInterface(event.interface_id));
  ForEachSink(dorvane::IID_IMbnInterfaceManagerEvents, [&](IUnknown* target) {
    auto* sink = static_cast<dorvane::IMbnInterfaceManagerEvents*>(target);
    if (event.kind == Event::kArrival) {
      sink->OnInterfaceArrival(iface.get());
    } else {
      sink->OnInterfaceRemoval(iface.get());
    }
  });
}

}  // namespace mbnsim
