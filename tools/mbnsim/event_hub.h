// The advised sinks of this process and the simulator's own thread, which
// delivers interface arrival and removal events (announced through the
// scenario) and device-service completions to them, as the real stack does
// from its own threads.
#pragma once

#include <windows.h>
#include <unknwn.h>

#include <condition_variable>
#include <deque>
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

  // Starts the thread once per process. Events announced before the first call
  // are not delivered.
  void Start();

  // `sink` already answers for `iid`; the hub keeps that reference while advised.
  DWORD Advise(IUnknown* sink, REFIID iid, const void* owner);
  // False when `cookie` was not given out by `owner` (or is already unadvised).
  // Once it returns, no call to the sink is running or will start (unless it is
  // called from such a call), so the client may tear its sink down.
  bool Unadvise(DWORD cookie, const void* owner);
  // Calls `call` for each sink advised for `iid`, one after the other; a sink is
  // only called while it is advised.
  void ForEachSink(REFIID iid, const std::function<void(IUnknown*)>& call);

  // Runs `job` on the simulator's thread, after the jobs posted before it.
  void Post(std::function<void()> job);

 private:
  struct Entry {
    IUnknown* sink;
    IID iid;
    const void* owner;
  };

  static DWORD WINAPI ThreadMain(LPVOID self);
  void Run();
  void DeliverInterfaceEvent(const Event& event);
  void RunJobs();

  std::mutex mutex_;
  std::condition_variable calls_done_;
  std::map<DWORD, Entry> sinks_;
  std::map<DWORD, int> calls_;  // calls running, by cookie
  DWORD thread_id_ = 0;
  DWORD next_cookie_ = 1;
  DWORD last_seq_ = 0;
  bool started_ = false;
  std::deque<std::function<void()>> jobs_;
  // Signals queued jobs. Never closed: the thread that waits on it runs until the
  // process ends.
  HANDLE jobs_ready_ = nullptr;
};

}  // namespace mbnsim
