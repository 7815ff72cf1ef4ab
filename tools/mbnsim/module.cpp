// mbnsim.dll: an in-process COM server that stands in for the Windows Mobile
// Broadband stack, under the stack's own class ids. Register it with
// `regsvr32 mbnsim.dll` (threading model Both, so that it is created directly in
// the multithreaded apartment) and drive it with mbnsimctl.
#include <windows.h>
#include <objbase.h>
#include <olectl.h>

#include <string>

#include "tools/mbnsim/device_services.h"
#include "tools/mbnsim/interface_manager.h"
#include "util/com_ptr.h"
#include "util/scoped_handle.h"

namespace mbnsim {
namespace {

HMODULE g_module = nullptr;

typedef HRESULT (*CreateFn)(REFIID riid, void** ppv);

// One factory per class; they are static objects that live as long as the DLL.
class Factory : public IClassFactory {
 public:
  explicit Factory(CreateFn create) : create_(create) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (ppv == nullptr) return E_POINTER;
    *ppv = nullptr;
    if (!IsEqualGUID(riid, IID_IUnknown) && !IsEqualGUID(riid, IID_IClassFactory)) {
      return E_NOINTERFACE;
    }
    *ppv = static_cast<IClassFactory*>(this);
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override {
    if (ppv == nullptr) return E_POINTER;
    *ppv = nullptr;
    if (outer != nullptr) return CLASS_E_NOAGGREGATION;
    return create_(riid, ppv);
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

 private:
  CreateFn create_;
};

Factory g_manager_factory(CreateInterfaceManager);
Factory g_services_factory(CreateDeviceServicesManager);

struct ClassEntry {
  const GUID* clsid;
  const char* name;
  Factory* factory;
};
const ClassEntry kClasses[] = {
    {&CLSID_MbnInterfaceManager, "Dorvane Mobile Broadband simulator: interface manager",
     &g_manager_factory},
    {&CLSID_MbnDeviceServicesManager,
     "Dorvane Mobile Broadband simulator: device services manager", &g_services_factory},
};

std::string ClsidKey(const GUID& clsid) {
  wchar_t wide[64];
  ::StringFromGUID2(clsid, wide, 64);
  return "CLSID\\" + dorvane::WideToAnsi(wide);
}

bool SetValue(HKEY root, const std::string& path, const char* name, const std::string& value) {
  dorvane::UniqueRegKey key;
  if (::RegCreateKeyExA(root, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, key.put(),
                        nullptr) != ERROR_SUCCESS) {
    return false;
  }
  return ::RegSetValueExA(key.get(), name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                          static_cast<DWORD>(value.size() + 1)) == ERROR_SUCCESS;
}

}  // namespace
}  // namespace mbnsim

using namespace mbnsim;

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) {
    g_module = instance;
    ::DisableThreadLibraryCalls(instance);
  }
  return TRUE;
}

extern "C" HRESULT __stdcall DllGetClassObject(REFCLSID clsid, REFIID riid, void** ppv) {
  if (ppv == nullptr) return E_POINTER;
  *ppv = nullptr;
  for (const ClassEntry& entry : kClasses) {
    if (IsEqualGUID(clsid, *entry.clsid)) return entry.factory->QueryInterface(riid, ppv);
  }
  return CLASS_E_CLASSNOTAVAILABLE;
}

// Objects are never freed (see RefCount), so the DLL stays loaded.
extern "C" HRESULT __stdcall DllCanUnloadNow() { return S_FALSE; }

extern "C" HRESULT __stdcall DllRegisterServer() {
  char path[MAX_PATH];
  DWORD n = ::GetModuleFileNameA(g_module, path, MAX_PATH);
  if (n == 0 || n >= MAX_PATH) return SELFREG_E_CLASS;
  for (const ClassEntry& entry : kClasses) {
    const std::string key = ClsidKey(*entry.clsid);
    if (!SetValue(HKEY_CLASSES_ROOT, key, nullptr, entry.name) ||
        !SetValue(HKEY_CLASSES_ROOT, key + "\\InprocServer32", nullptr, path) ||
        !SetValue(HKEY_CLASSES_ROOT, key + "\\InprocServer32", "ThreadingModel", "Both")) {
      return SELFREG_E_CLASS;
    }
  }
  return S_OK;
}

extern "C" HRESULT __stdcall DllUnregisterServer() {
  for (const ClassEntry& entry : kClasses) {
    ::RegDeleteTreeA(HKEY_CLASSES_ROOT, ClsidKey(*entry.clsid).c_str());
  }
  return S_OK;
}
