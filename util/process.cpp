#include "util/process.h"

#include <windows.h>

#include <vector>

#include "log/logger.h"
#include "util/path_buffer.h"
#include "util/scoped_handle.h"

namespace dorvane {

int RunProcess(const std::string& program, const std::string& command_line, int /*show*/) {
  PathBuffer folder(program);
  const std::string path = folder.str();
  const size_t last = path.find_last_of('\\');
  if (last != std::string::npos) folder = PathBuffer(path.substr(0, last));

  // CreateProcessA may write into the command line.
  std::vector<char> line(command_line.begin(), command_line.end());
  line.push_back('\0');
  STARTUPINFOA startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION info = {};
  const BOOL started = ::CreateProcessA(
      program.c_str(), line.data(), nullptr, nullptr, FALSE, 0, nullptr,
      last != std::string::npos ? folder.c_str() : nullptr, &startup, &info);
  if (!started) {
    Logger::GetInstance()->Write(kLogError, "Create process failed");
    return kProcessNotStarted;
  }
  UniqueHandle process(info.hProcess);
  UniqueHandle thread(info.hThread);
  ::WaitForSingleObject(process.get(), INFINITE);
  DWORD code = 0;
  ::GetExitCodeProcess(process.get(), &code);
  return static_cast<int>(code);
}

}  // namespace dorvane
