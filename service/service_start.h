// Start and stop work of the service, run on the service main thread.
//
// StartWork opens the log, prepares the worker (events, registry watch), starts
// its thread and attaches the mobile-broadband event sink. StopWork detaches the
// sink and stops the worker. Failures are only logged: the service manager always
// sees a clean start and a clean stop.
#pragma once

#include <windows.h>

namespace dorvane {

class CServiceStart {
 public:
  // 1 when the worker runs and the sink is attached, 0 when a step failed.
  static DWORD StartWork();
  // Detaches the sink, then stops the worker and waits for its thread to end.
  static void StopWork();
};

}  // namespace dorvane
