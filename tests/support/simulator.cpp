#include "support/simulator.h"

#include <windows.h>
#include <objbase.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace dorvane::testing {

namespace {

// Loads tools\mbnsim\mbnsim.dll from the build and runs `function` of it.
// Returns false (with a test failure recorded) when that is not possible.
bool CallServer(const char* function) {
  char self[MAX_PATH];
  std::string dir(self, ::GetModuleFileNameA(nullptr, self, MAX_PATH));
  const std::string dll = dir.substr(0, dir.find_last_of('\\')) + "\\..\\tools\\mbnsim\\mbnsim.dll";
  HMODULE module = ::LoadLibraryA(dll.c_str());
  EXPECT_NE(nullptr, module) << dll;
  if (module == nullptr) return false;
  auto fn = reinterpret_cast<HRESULT(__stdcall*)()>(
      reinterpret_cast<void*>(::GetProcAddress(module, function)));
  const bool ok = fn != nullptr && fn() == S_OK;
  EXPECT_TRUE(ok) << function;
  ::FreeLibrary(module);
  return ok;
}

}  // namespace

bool UnregisterSimulator() { return CallServer("DllUnregisterServer"); }

SAFEARRAY* ByteArray(const std::string& bytes) {
  SAFEARRAY* array = ::SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(bytes.size()));
  void* raw = nullptr;
  if (array != nullptr && SUCCEEDED(::SafeArrayAccessData(array, &raw))) {
    std::memcpy(raw, bytes.data(), bytes.size());
    ::SafeArrayUnaccessData(array);
  }
  return array;
}

void SimFixture::SetUp() {
  ASSERT_TRUE(SUCCEEDED(::CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
  ASSERT_TRUE(CallServer("DllRegisterServer"));
  UseInterfaces(1);
  LogFixture::SetUp();
}

void SimFixture::UseInterfaces(int n) {
  mbnsim::Reset();
  std::vector<mbnsim::InterfaceInfo> all;
  for (int i = 0; i < n; ++i) all.push_back(mbnsim::DefaultInterface(i));
  mbnsim::SetInterfaces(all);
}

mbnsim::Counters SimFixture::counters() const {
  mbnsim::Counters c;
  mbnsim::ReadCounters(::GetCurrentProcessId(), &c);
  return c;
}

void SimFixture::WaitIdle() {
  const DWORD start = ::GetTickCount();
  while (counters().pending_completions != 0 && ::GetTickCount() - start < 10000) ::Sleep(10);
  EXPECT_EQ(0u, counters().pending_completions);
}

void SimFixture::ExpectNothingLeft(DWORD bad_unadvises, DWORD bad_releases) {
  WaitIdle();
  const mbnsim::Counters c = counters();
  EXPECT_EQ(0u, c.live_objects);
  EXPECT_EQ(0u, c.advised_sinks);
  EXPECT_EQ(bad_releases, c.bad_releases);
  EXPECT_EQ(bad_unadvises, c.bad_unadvises);
}

}  // namespace dorvane::testing
