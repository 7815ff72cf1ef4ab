// Suspend/resume notification from powrprof. MinGW-w64's import library has the
// functions but its headers do not declare them.
#pragma once

#include <windows.h>

namespace dorvane {

typedef ULONG(CALLBACK* PDEVICE_NOTIFY_CALLBACK_ROUTINE)(PVOID context, ULONG type, PVOID setting);

struct DEVICE_NOTIFY_SUBSCRIBE_PARAMETERS {
  PDEVICE_NOTIFY_CALLBACK_ROUTINE Callback;
  PVOID Context;
};

inline constexpr DWORD kDeviceNotifyCallback = 2;  // DEVICE_NOTIFY_CALLBACK

}  // namespace dorvane

extern "C" {
DWORD WINAPI PowerRegisterSuspendResumeNotification(DWORD flags, HANDLE recipient,
                                                     PHPOWERNOTIFY registration);
DWORD WINAPI PowerUnregisterSuspendResumeNotification(HPOWERNOTIFY registration);
}
