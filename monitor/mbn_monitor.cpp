#include "monitor/mbn_monitor.h"

#include <new>

#include "log/logger.h"

namespace dorvane {

CMbnMonitor* CMbnMonitor::GetInstance() {
  static CMbnMonitor* instance = new (std::nothrow) CMbnMonitor();
  return instance;
}

DWORD CMbnMonitor::AttachStateMbnRegEvent() {
  Logger* log = Logger::GetInstance();
  auto fail = [log](const char* text) {
    log->Write(kLogError, text);
    return 0;
  };
  if (FAILED(::CoInitializeEx(nullptr, COINIT_MULTITHREADED))) {
    return fail("[Fail][CMbnMonitor::AttachStateMbnRegEvent] CoInitializeEx Fail.");
  }
  if (FAILED(::CoCreateInstance(CLSID_MbnInterfaceManager, nullptr, CLSCTX_ALL,
                                IID_IMbnInterfaceManager, mbnInterfaceRegManager.put_void()))) {
    return fail(
        "[Fail][CMbnMonitor::AttachStateMbnRegEvent] CoCreateInstance "
        "CLSID_MbnInterfaceManager Fail.");
  }
  m_p_RegEvent = ComPtr<CMbnRegEvent>(new (std::nothrow) CMbnRegEvent());
  if (!m_p_RegEvent) return fail("[Fail][CMbnMonitor::AttachStateMbnRegEvent] NULL == m_p_RegEvent");
  if (!mbnInterfaceRegManager) {
    return fail("[Fail][CMbnMonitor::AttachStateMbnRegEvent] NULL == mbnInterfaceRegManager");
  }
  if (mbnInterfaceRegManager->QueryInterface(IID_IConnectionPointContainer,
                                             m_connRegPointContainer.put_void()) != S_OK) {
    return fail(
        "[Fail][CMbnMonitor::AttachStateMbnRegEvent] QueryInterface IConnectionPointContainer "
        "Fail.");
  }
  if (!m_connRegPointContainer) {
    return fail("[Fail][CMbnMonitor::AttachStateMbnRegEvent] NULL == m_connRegPointContainer");
  }
  if (m_connRegPointContainer->FindConnectionPoint(IID_IMbnInterfaceManagerEvents,
                                                   m_connRegPoint.put()) != S_OK) {
    return fail(
        "[Fail][CMbnMonitor::AttachStateMbnRegEvent] IConnectionPointContainer "
        "FindConnectionPoint Fail.");
  }
  if (!m_connRegPoint) {
    return fail("[Fail][CMbnMonitor::AttachStateMbnRegEvent] NULL == m_connRegPoint");
  }
  if (FAILED(m_connRegPoint->Advise(m_p_RegEvent.get(), &cookie_))) {
    return fail("[Fail][CMbnMonitor::AttachStateMbnRegEvent] IConnectionPoint Advise Fail.");
  }
  return 1;
}

void CMbnMonitor::Detach() {
  if (m_connRegPoint) {
    // Also after a failed Advise, with the cookie 0 it left; the stack refuses
    // that (CONNECT_E_NOCONNECTION), which changes nothing.
    m_connRegPoint->Unadvise(cookie_);
    m_connRegPoint.reset();
    cookie_ = 0;
  }
  m_p_RegEvent.reset();
  m_connRegPointContainer.reset();
  mbnInterfaceRegManager.reset();
}

}  // namespace dorvane
