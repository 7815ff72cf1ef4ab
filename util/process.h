// Running a program of the firmware-switching installation and waiting for it.
#pragma once

#include <string>

namespace dorvane {

// What RunProcess returns when the program could not be started.
inline constexpr int kProcessNotStarted = -999;
// The show value callers pass; RunProcess accepts it and does not apply it.
inline constexpr int kShowDefault = 5;

// Starts `program` with `command_line` in the program's own folder (the path up
// to its last backslash; a path without one starts in the caller's folder),
// without inherited handles and with the caller's environment, waits for it
// however long it takes, and returns its exit code. A batch file is started
// the same way. Returns kProcessNotStarted (logged) when it cannot be started.
int RunProcess(const std::string& program, const std::string& command_line, int show);

}  // namespace dorvane
