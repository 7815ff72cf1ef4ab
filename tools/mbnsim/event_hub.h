// The advised sinks of this process and the threads that call them.
//
// A watcher thread reads the interface arrivals and removals announced through
// the scenario; a pool of delivery threads (Options\DeliveryThreads, default 2)
// runs every delivery: those events and the device-service completions. As in a
// real multithreaded apartment, deliveries that are due together may run at the
// same time on different threads and in any order, and a completion may be
// delivered while the call that started it is still running.
//
// Unadvise waits for the calls into the sink that are running, unless
// Options\UnadviseWaits is 0: then it returns at once and a call already made
// goes on inside the sink, which the hub no longer holds a reference on, as a
// real stack may let it. Only a call that the hub has picked the sink for and
// not yet made is waited for, a matter of instructions: before its method runs
// a sink has no way to keep itself alive. Either way no call to the sink
// starts once Unadvise has returned.
#pragma once

#include <windows.h>
#include <unknwn.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <vector>

#include "tools/mbnsim/scenario.h"
#include "util/com_ptr.h"

namespace mbnsim {

class EventHub {
 public:
  static EventHub& Get();

  // Starts the watcher thread once per process. Events announced before the
  // first call are not delivered.
  void Start();

  // `sink` already answers for `iid`; the hub keeps that reference while advised.
  DWORD Advise(IUnknown* sink, REFIID iid, const void* owner);
  // False when `cookie` was not given out by `owner` (or is already unadvised).
  // Once it returns, no call to the sink will start. By default no call is
  // running either (unless Unadvise is called from such a call), so the client
  // may tear its sink down; with Options\UnadviseWaits 0 a call already made
  // may still be running, and the hub's reference is gone all the same.
  bool Unadvise(DWORD cookie, const void* owner);
  // Calls `call` for each sink advised for `iid`, one after the other; a sink is
  // only called while it is advised. `call` is to call the sink straight away
  // and make what the call needs (a data array) before ForEachSink or after the
  // call: an Unadvise that does not wait lets the sink go at once, and only a
  // call that has entered the sink can keep it alive.
  void ForEachSink(REFIID iid, const std::function<void(IUnknown*)>& call);

  // Runs `job` on a delivery thread, `delay_ms` from now at the earliest. Jobs
  // due at the same time start in posting order but may overlap.
  void Post(std::function<void()> job, DWORD delay_ms = 0);

 private:
  using Clock = std::chrono::steady_clock;
  struct Entry {
    IUnknown* sink;
    IID iid;
    const void* owner;
  };

  static DWORD WINAPI WatchMain(LPVOID self);
  static DWORD WINAPI DeliveryMain(LPVOID self);
  void Watch();
  void Deliver(DWORD index);
  // Starts delivery threads up to the scenario's count; called under the lock.
  void GrowPool(DWORD wanted);
  void PostInterfaceEvent(const Event& event);

  std::mutex mutex_;
  std::condition_variable calls_done_;
  std::condition_variable jobs_changed_;
  std::map<DWORD, Entry> sinks_;
  // The calls of one sink.
  struct Calls {
    int running = 0;     // guarded by mutex_
    bool left = false;   // guarded by mutex_: unadvised while calls ran
    // Raised under mutex_, dropped without it just before the call is made,
    // so that Unadvise may wait for it holding mutex_.
    std::atomic<int> picked{0};
  };
  // By cookie; Unadvise drops an entry, or the last call of a sink unadvised
  // while it ran.
  std::map<DWORD, Calls> calls_;
  DWORD next_cookie_ = 1;
  DWORD last_seq_ = 0;
  bool started_ = false;
  // Due jobs by due time; equal times keep their posting order.
  std::multimap<Clock::time_point, std::function<void()>> jobs_;
  DWORD threads_ = 0;  // delivery threads started (they run until the process ends)
  DWORD wanted_ = 0;   // threads allowed to deliver; the others idle
};

}  // namespace mbnsim
