// The advised sinks of this process and the simulator's own thread, which
// delivers interface arrival and removal events (announced through the
// scenario) and device-service completions to them, as the real stack does
// from its own threads.
#pragma once

#include <windows.h>
#include <unknwn.h>

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
  bool Unadvise(DWORD cookie, const void* owner);
  // The sinks advised for `iid`, each with a reference of the caller's own.
  std::vector<dorvane::ComPtr<IUnknown>> Sinks(REFIID iid);

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
  std::map<DWORD, Entry> sinks_;
  DWORD next_cookie_ = 1;
  DWORD last_seq_ = 0;
  bool started_ = false;
  std::deque<std::function<void()>> jobs_;
  // Signals queued jobs. Never closed: the thread that waits on it runs until the
  // process ends.
  HANDLE jobs_ready_ = nullptr;
};

}  // namespace mbnsim
