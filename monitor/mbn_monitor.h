// CMbnMonitor: the subscription to the interface manager's arrival and removal
// events. It owns the manager, its connection-point container, the connection
// point, the advise cookie and a reference to the sink, and releases them all in
// Detach.
//
// Threads: attach and detach run on the service main thread; the sink's handlers
// run on COM's threads.
//
//   if (!CMbnMonitor::GetInstance()->AttachStateMbnRegEvent()) { ...no events... }
//   ...
//   CMbnMonitor::GetInstance()->Detach();
#pragma once

#include <windows.h>

#include "monitor/mbn_reg_event.h"
#include "util/com_ptr.h"
#include "util/mbnapi.h"

namespace dorvane {

class CMbnMonitor {
 public:
  // The process-wide monitor, created on first use and never destroyed.
  static CMbnMonitor* GetInstance();

  CMbnMonitor() = default;
  CMbnMonitor(const CMbnMonitor&) = delete;
  CMbnMonitor& operator=(const CMbnMonitor&) = delete;

  // Creates the manager and advises a new sink. 1 when advised; 0 after the first
  // failing step (logged), keeping what was obtained for Detach to release.
  DWORD AttachStateMbnRegEvent();
  // Unadvises and releases everything held; safe to call in any state.
  void Detach();

  bool attached() const { return static_cast<bool>(m_connRegPoint) && cookie_ != 0; }

 private:
  ComPtr<IConnectionPointContainer> m_connRegPointContainer;
  ComPtr<IMbnInterfaceManager> mbnInterfaceRegManager;
  ComPtr<IConnectionPoint> m_connRegPoint;
  DWORD cookie_ = 0;
  // The monitor holds a reference of its own, so that its Release at detach is
  // matched whatever the connection point does with its reference.
  ComPtr<CMbnRegEvent> m_p_RegEvent;
};

}  // namespace dorvane
