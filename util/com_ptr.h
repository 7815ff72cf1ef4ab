// RAII owners for COM objects and COM memory: interface pointers, BSTRs and
// SAFEARRAYs. Each owner releases what it holds exactly once.
//
//   ComPtr<IMbnInterfaceManager> manager;
//   HRESULT hr = CoCreateInstance(clsid, nullptr, CLSCTX_ALL, iid,
//                                 reinterpret_cast<void**>(manager.put()));
//   ScopedBstr id;
//   iface->get_InterfaceID(id.put());
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <string>

namespace dorvane {

template <typename T>
class ComPtr {
 public:
  ComPtr() = default;
  // Takes a reference of its own (AddRef); the caller keeps whatever it had.
  explicit ComPtr(T* p) : p_(p) {
    if (p_) p_->AddRef();
  }
  ~ComPtr() { reset(); }

  ComPtr(const ComPtr& o) : ComPtr(o.p_) {}
  ComPtr& operator=(const ComPtr& o) {
    ComPtr tmp(o);
    swap(tmp);
    return *this;
  }
  ComPtr(ComPtr&& o) noexcept : p_(o.detach()) {}
  ComPtr& operator=(ComPtr&& o) noexcept {
    if (this != &o) attach(o.detach());
    return *this;
  }

  T* get() const { return p_; }
  T* operator->() const { return p_; }
  explicit operator bool() const { return p_ != nullptr; }

  // Out-parameter access: releases the old pointer, then hands out the slot.
  T** put() {
    reset();
    return &p_;
  }
  void** put_void() { return reinterpret_cast<void**>(put()); }

  // Adopts a pointer whose reference the caller already owns (no AddRef).
  void attach(T* p) {
    reset();
    p_ = p;
  }
  T* detach() {
    T* p = p_;
    p_ = nullptr;
    return p;
  }
  void reset() {
    if (p_) {
      T* p = p_;
      p_ = nullptr;
      p->Release();
    }
  }
  void swap(ComPtr& o) {
    T* p = p_;
    p_ = o.p_;
    o.p_ = p;
  }

 private:
  T* p_ = nullptr;
};

class ScopedBstr {
 public:
  ScopedBstr() = default;
  explicit ScopedBstr(const wchar_t* text) : s_(::SysAllocString(text)) {}
  ~ScopedBstr() { reset(); }
  ScopedBstr(const ScopedBstr&) = delete;
  ScopedBstr& operator=(const ScopedBstr&) = delete;

  BSTR get() const { return s_; }
  BSTR* put() {
    reset();
    return &s_;
  }
  // Adopts a BSTR that the caller was handed and must free.
  void attach(BSTR s) {
    reset();
    s_ = s;
  }
  BSTR release() {
    BSTR s = s_;
    s_ = nullptr;
    return s;
  }
  void reset() {
    if (s_) ::SysFreeString(s_);
    s_ = nullptr;
  }

 private:
  BSTR s_ = nullptr;
};

class ScopedSafeArray {
 public:
  ScopedSafeArray() = default;
  explicit ScopedSafeArray(SAFEARRAY* a) : a_(a) {}
  ~ScopedSafeArray() { reset(); }
  ScopedSafeArray(const ScopedSafeArray&) = delete;
  ScopedSafeArray& operator=(const ScopedSafeArray&) = delete;

  SAFEARRAY* get() const { return a_; }
  SAFEARRAY** put() {
    reset();
    return &a_;
  }
  SAFEARRAY* release() {
    SAFEARRAY* a = a_;
    a_ = nullptr;
    return a;
  }
  // Destroys the array now and returns SafeArrayDestroy's result (S_OK when empty).
  HRESULT reset() {
    HRESULT hr = S_OK;
    if (a_) hr = ::SafeArrayDestroy(a_);
    a_ = nullptr;
    return hr;
  }

 private:
  SAFEARRAY* a_ = nullptr;
};

// Converts a wide string to narrow text in the system's ANSI code page.
// A null pointer gives the empty string.
std::string WideToAnsi(const wchar_t* text);

// Converts narrow ANSI text to a wide string.
std::wstring AnsiToWide(const std::string& text);

}  // namespace dorvane
