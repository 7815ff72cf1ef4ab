#include "support/simulator.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <string>

namespace dorvane::testing {

namespace {

bool CallServer(const char* function) {
  char self[MAX_PATH];
  std::string dir(self, ::GetModuleFileNameA(nullptr, self, MAX_PATH));
  dir = dir.substr(0, dir.find_last_of('\\'));
  const std::string dll = dir + "\\..\\tools\\mbnsim\\mbnsim.dll";
  HMODULE module = ::LoadLibraryA(dll.c_str());
  EXPECT_NE(nullptr, module) << dll;
  if (module == nullptr) return false;
  auto fn = reinterpret_cast<HRESULT(__stdcall*)()>(
      reinterpret_cast<void*>(::GetProcAddress(module, function)));
  EXPECT_NE(nullptr, fn) << function;
  const bool ok = fn != nullptr && fn() == S_OK;
  EXPECT_TRUE(ok) << function;
  ::FreeLibrary(module);
  return ok;
}

}  // namespace

bool RegisterSimulator() { return CallServer("DllRegisterServer"); }
bool UnregisterSimulator() { return CallServer("DllUnregisterServer"); }

}  // namespace dorvane::testing
