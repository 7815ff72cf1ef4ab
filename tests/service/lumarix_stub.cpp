// A stand-in for the legacy service "Lumarix" in whole-service tests.
//
//   lumarix_stub.exe [stop-seconds]
//
// Runs as a service until asked to stop, then stays stop-pending for
// stop-seconds (default 0) before it reports stopped.
#include <windows.h>

#include <cstdlib>

namespace {

SERVICE_STATUS_HANDLE g_handle = nullptr;
SERVICE_STATUS g_status = {};
HANDLE g_stop = nullptr;
DWORD g_stop_seconds = 0;

void Report(DWORD state, DWORD check_point, DWORD wait_hint) {
  g_status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  g_status.dwCurrentState = state;
  g_status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
  g_status.dwCheckPoint = check_point;
  g_status.dwWaitHint = wait_hint;
  ::SetServiceStatus(g_handle, &g_status);
}

void WINAPI Handler(DWORD control) {
  if (control != SERVICE_CONTROL_STOP) return;
  Report(SERVICE_STOP_PENDING, 1, 2000);
  ::SetEvent(g_stop);
}

void WINAPI Main(DWORD, LPSTR* argv) {
  g_handle = ::RegisterServiceCtrlHandlerA(argv[0], Handler);
  if (g_handle == nullptr) return;
  g_stop = ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
  Report(SERVICE_RUNNING, 0, 0);
  ::WaitForSingleObject(g_stop, INFINITE);
  for (DWORD s = 0; s < g_stop_seconds; ++s) {
    ::Sleep(1000);
    Report(SERVICE_STOP_PENDING, s + 2, 2000);
  }
  Report(SERVICE_STOPPED, 0, 0);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) g_stop_seconds = static_cast<DWORD>(std::atoi(argv[1]));
  static char name[] = "Lumarix";
  SERVICE_TABLE_ENTRYA table[] = {{name, Main}, {nullptr, nullptr}};
  return ::StartServiceCtrlDispatcherA(table) ? 0 : 1;
}
