// Registering the Mobile Broadband simulator that the build puts beside the
// tests, or taking it away for tests of a machine without the stack; and a
// fixture for tests that run against it in this process.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/log_reader.h"
#include "tools/mbnsim/scenario.h"

namespace dorvane::testing {

// Runs the simulator's DllUnregisterServer: CoCreateInstance of the Mobile
// Broadband classes fails again, as on a machine without the stack.
bool UnregisterSimulator();

// A VT_UI1 array of `bytes`, as AT commands and answers travel.
SAFEARRAY* ByteArray(const std::string& bytes);

// The simulator registered with a fresh scenario of one interface, this thread
// in the multithreaded apartment, and the process's log in a new file.
class SimFixture : public LogFixture {
 protected:
  void SetUp() override;

  // A fresh scenario with `n` default interfaces.
  void UseInterfaces(int n);
  mbnsim::Counters counters() const;
  // Waits until the simulator has delivered every queued completion.
  void WaitIdle();
  // Every object handed out is released, no sink stays advised, nothing was
  // released twice (but `bad_releases`), and exactly `bad_unadvises` unadvises
  // named a cookie the simulator never gave out (refused, counted apart from leaks).
  void ExpectNothingLeft(DWORD bad_unadvises = 0, DWORD bad_releases = 0);
};

}  // namespace dorvane::testing
