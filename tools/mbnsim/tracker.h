// Book-keeping of the simulator's objects in this process, published to the
// registry (Counters\<pid>) at every change so that a test in another process
// can read what the client left behind or did wrong.
#pragma once

#include <windows.h>
#include <unknwn.h>

#include <atomic>

#include "tools/mbnsim/scenario.h"

namespace mbnsim {

class Tracker {
 public:
  static void ObjectCreated();
  static void ObjectDestroyed();
  static void BadRelease();
  static void SinkAdvised();
  static void SinkUnadvised();
  static void BadUnadvise();
  // Completions queued and not yet delivered.
  static void JobQueued();
  static void JobDone();
  // An interface event handed to one sink.
  static void ArrivalDelivered();
  static void RemovalDelivered();
  static Counters Snapshot();
};

// Reference counting that catches over-release: an object whose count reaches 0
// is marked dead but its memory is kept, so that a later Release (or AddRef) by a
// confused client is counted as a bad release instead of touching freed memory.
// The simulator is a test tool; the few hundred bytes per object are the price.
class RefCount {
 public:
  RefCount() { Tracker::ObjectCreated(); }
  RefCount(const RefCount&) = delete;
  RefCount& operator=(const RefCount&) = delete;

  ULONG AddRef();
  ULONG Release();

 private:
  std::atomic<LONG> refs_{1};  // the creator's reference
};

// QueryInterface of an object that offers one interface besides IUnknown.
template <typename I>
HRESULT QueryOne(I* self, REFIID iid, REFIID riid, void** ppv) {
  if (ppv == nullptr) return E_POINTER;
  *ppv = nullptr;
  if (!IsEqualGUID(riid, IID_IUnknown) && !IsEqualGUID(riid, iid)) return E_NOINTERFACE;
  *ppv = self;
  self->AddRef();
  return S_OK;
}

}  // namespace mbnsim
