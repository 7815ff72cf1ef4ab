// RAII owners for Win32 handles: one template, one alias per handle kind.
//
// Copy is deleted and move allowed; NULL and INVALID_HANDLE_VALUE both count as
// "no handle". The closer runs exactly once, when the owner is reset or destroyed.
//
//   UniqueHandle ev(CreateEventA(nullptr, FALSE, FALSE, nullptr));
//   if (!ev) { ...creation failed... }
//   SetEvent(ev.get());
#pragma once

#include <windows.h>

#include <utility>

namespace dorvane {

template <typename T, typename Traits>
class ScopedHandle {
 public:
  ScopedHandle() = default;
  explicit ScopedHandle(T h) : h_(h) {}
  ~ScopedHandle() { reset(); }

  ScopedHandle(const ScopedHandle&) = delete;
  ScopedHandle& operator=(const ScopedHandle&) = delete;
  ScopedHandle(ScopedHandle&& o) noexcept : h_(o.release()) {}
  ScopedHandle& operator=(ScopedHandle&& o) noexcept {
    if (this != &o) reset(o.release());
    return *this;
  }

  T get() const { return h_; }
  bool valid() const { return Traits::IsValid(h_); }
  explicit operator bool() const { return valid(); }

  // Out-parameter access for APIs that write a handle; closes the old one first.
  T* put() {
    reset();
    return &h_;
  }

  T release() {
    T h = h_;
    h_ = Traits::Null();
    return h;
  }

  void reset(T h = Traits::Null()) {
    if (Traits::IsValid(h_)) Traits::Close(h_);
    h_ = h;
  }

 private:
  T h_ = Traits::Null();
};

struct KernelHandleTraits {
  static HANDLE Null() { return nullptr; }
  static bool IsValid(HANDLE h) { return h != nullptr && h != INVALID_HANDLE_VALUE; }
  static void Close(HANDLE h) { ::CloseHandle(h); }
};

struct RegKeyTraits {
  static HKEY Null() { return nullptr; }
  static bool IsValid(HKEY h) { return h != nullptr; }
  static void Close(HKEY h) { ::RegCloseKey(h); }
};

struct ServiceHandleTraits {
  static SC_HANDLE Null() { return nullptr; }
  static bool IsValid(SC_HANDLE h) { return h != nullptr; }
  static void Close(SC_HANDLE h) { ::CloseServiceHandle(h); }
};

struct FindHandleTraits {
  static HANDLE Null() { return INVALID_HANDLE_VALUE; }
  static bool IsValid(HANDLE h) { return h != nullptr && h != INVALID_HANDLE_VALUE; }
  static void Close(HANDLE h) { ::FindClose(h); }
};

using UniqueHandle = ScopedHandle<HANDLE, KernelHandleTraits>;
using UniqueRegKey = ScopedHandle<HKEY, RegKeyTraits>;
using UniqueServiceHandle = ScopedHandle<SC_HANDLE, ServiceHandleTraits>;
using UniqueFindHandle = ScopedHandle<HANDLE, FindHandleTraits>;

}  // namespace dorvane
