// The simulated module's AT command interpreter.
//
// Answers are framed as a module frames them: "\r\n<line>\r\n" for each
// information line, then "\r\nOK\r\n", or "\r\nERROR\r\n" alone. A reply set in
// the scenario for the command (Replies\<COMMAND>) wins over the built-in one.
#pragma once

#include <string>

#include "tools/mbnsim/scenario.h"

namespace mbnsim {

// The answer bytes for the command `payload` (as sent: text, CR LF) on the
// modem whose SIM and provider are `info`.
std::string Respond(const std::string& payload, const InterfaceInfo& info);

}  // namespace mbnsim
