#include "tools/mbnsim/at_responder.h"

namespace mbnsim {

namespace {

const char kManufacturer[] = "Dorvane Labs";
const char kModel[] = "DVS-5G20";
const char kRevision[] = "DVS5G20AR01A03M4G";
const char kImei[] = "867698041234567";

std::string Ok(const std::string& line) { return "\r\n" + line + "\r\n\r\nOK\r\n"; }

}  // namespace

std::string Respond(const std::string& payload, const InterfaceInfo& info) {
  const std::string cmd = NormaliseCommand(payload);
  std::string scripted;
  if (ReadReply(payload, &scripted)) return scripted;

  if (cmd == "AT" || cmd == "ATE0" || cmd == "ATE1" || cmd == "AT+CMEE=1" || cmd == "AT+CMEE=2") {
    return "\r\nOK\r\n";
  }
  if (cmd == "ATI") {
    return "\r\nManufacturer: " + std::string(kManufacturer) + "\r\nModel: " + kModel +
           "\r\nRevision: " + kRevision + "\r\nIMEI: " + kImei + "\r\n\r\nOK\r\n";
  }
  if (cmd == "AT+CGMI" || cmd == "AT+GMI") return Ok(kManufacturer);
  if (cmd == "AT+CGMM" || cmd == "AT+GMM") return Ok(kModel);
  if (cmd == "AT+CGMR" || cmd == "AT+GMR") return Ok(kRevision);
  if (cmd == "AT+CGSN" || cmd == "AT+GSN") return Ok(kImei);
  if (cmd == "AT+CIMI") return info.subscriber_id.empty() ? "\r\nERROR\r\n" : Ok(info.subscriber_id);
  if (cmd == "AT+ICCID" || cmd == "AT+CCID" || cmd == "AT+QCCID") {
    return info.iccid.empty() ? "\r\nERROR\r\n" : Ok("+ICCID: " + info.iccid);
  }
  if (cmd == "AT+CPIN?") return Ok(info.iccid.empty() ? "+CPIN: SIM PIN" : "+CPIN: READY");
  if (cmd == "AT+COPS?") {
    return info.registered_provider_id.empty() ? Ok("+COPS: 0")
                                               : Ok("+COPS: 0,2,\"" + info.registered_provider_id + "\",7");
  }
  if (cmd == "AT+CSQ") return Ok("+CSQ: 23,99");
  if (cmd == "AT+CFUN?") return Ok("+CFUN: 1");
  return "\r\nERROR\r\n";
}

}  // namespace mbnsim
