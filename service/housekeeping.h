// Start-up housekeeping of the service host, run once by the worker thread
// before its loop: the recovery policy and the removal of the legacy service
// that this service replaces.
#pragma once

#include <windows.h>

namespace dorvane {

// The service that "WWAN Dorvane" replaces; removed at every start.
inline constexpr char kLegacyServiceName[] = "Lumarix";

// Asks the service manager (through "sc failure") to restart the service 30 s
// after each failure and to reset the failure count after a day. The command is
// not awaited; WinExec's result is logged only.
void SetRecoveryPolicy();

// Stops the service `name` (polling once a second while it is stop-pending) and
// deletes it. Returns 1 when it was deleted, 0 when a step failed. A service that
// is installed but already stopped cannot be stopped and so is left in place;
// installed bases depend on this. Runs synchronously, despite the name.
DWORD RemoveLegacyService(const char* name);

}  // namespace dorvane
