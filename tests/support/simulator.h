// Registering the Mobile Broadband simulator that the build puts beside the
// tests, or taking it away for tests of a machine without the stack.
#pragma once

namespace dorvane::testing {

// Loads tools\mbnsim\mbnsim.dll from the build and runs its DllRegisterServer.
// Returns false (with a test failure recorded) when that is not possible.
bool RegisterSimulator();
// Runs the simulator's DllUnregisterServer: CoCreateInstance of the Mobile
// Broadband classes fails again, as on a machine without the stack.
bool UnregisterSimulator();

}  // namespace dorvane::testing
