#include "tools/mbnsim/tracker.h"

#include <mutex>

namespace mbnsim {

namespace {

std::mutex g_mutex;
Counters g_counters;

// Called under the tracker's lock, so the cached key in PublishCounters is safe.
template <typename Change>
void Update(Change change) {
  std::lock_guard<std::mutex> lock(g_mutex);
  change(g_counters);
  PublishCounters(::GetCurrentProcessId(), g_counters);
}

}  // namespace

void Tracker::ObjectCreated() { Update([](Counters& c) { ++c.live_objects; }); }
void Tracker::ObjectDestroyed() { Update([](Counters& c) { --c.live_objects; }); }
void Tracker::BadRelease() { Update([](Counters& c) { ++c.bad_releases; }); }
void Tracker::SinkAdvised() { Update([](Counters& c) { ++c.advised_sinks; }); }
void Tracker::SinkUnadvised() { Update([](Counters& c) { --c.advised_sinks; }); }
void Tracker::BadUnadvise() { Update([](Counters& c) { ++c.bad_unadvises; }); }
void Tracker::JobQueued() { Update([](Counters& c) { ++c.pending_completions; }); }
void Tracker::JobDone() { Update([](Counters& c) { --c.pending_completions; }); }
void Tracker::ArrivalDelivered() { Update([](Counters& c) { ++c.arrivals_delivered; }); }
void Tracker::RemovalDelivered() { Update([](Counters& c) { ++c.removals_delivered; }); }

Counters Tracker::Snapshot() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_counters;
}

ULONG RefCount::AddRef() {
  LONG before = refs_.load();
  do {
    if (before <= 0) {
      Tracker::BadRelease();
      return 0;
    }
  } while (!refs_.compare_exchange_weak(before, before + 1));
  return static_cast<ULONG>(before + 1);
}

ULONG RefCount::Release() {
  LONG before = refs_.load();
  do {
    if (before <= 0) {
      Tracker::BadRelease();
      return 0;
    }
  } while (!refs_.compare_exchange_weak(before, before - 1));
  if (before == 1) Tracker::ObjectDestroyed();
  return static_cast<ULONG>(before - 1);
}

}  // namespace mbnsim
