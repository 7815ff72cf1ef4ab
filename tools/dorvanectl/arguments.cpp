// How dorvanectl reads its arguments before the library sees them: numbers,
// and the files that a command reads.
#include <windows.h>

#include <cstdio>
#include <limits>
#include <string>

#include "config/table_reader.h"
#include "tools/cli_input.h"
#include "tools/dorvanectl/ctl.h"
#include "util/scoped_handle.h"

namespace dorvane::ctl {

std::string SystemText(unsigned long error) {
  char text[256] = {};
  const DWORD n = ::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                   nullptr, static_cast<DWORD>(error), 0, text, sizeof text, nullptr);
  std::string out(text, n);
  while (!out.empty() && (out.back() == '\n' || out.back() == '\r' || out.back() == ' ' ||
                          out.back() == '.')) {
    out.pop_back();
  }
  const std::string number = "error " + std::to_string(error);
  return out.empty() ? number : out + " (" + number + ")";
}

bool ParseNumber(const std::string& text, uint64_t min, uint64_t max, uint64_t* value) {
  return cli::ParseUnsigned(text, true, min, max, value);
}

CLI::Validator Number(uint64_t min, uint64_t max) {
  return CLI::Validator(
      [min, max](std::string& text) -> std::string {
        uint64_t value = 0;
        if (!ParseNumber(text, 0, std::numeric_limits<uint64_t>::max(), &value)) {
          return "not a number (decimal digits, or 0x and hexadecimal digits): " + text;
        }
        if (value < min || value > max) {
          return text + " is out of range (" + std::to_string(min) + " to " + std::to_string(max) + ")";
        }
        text = std::to_string(value);
        return std::string();
      },
      "");
}

std::string FileProblem(const std::string& path, const char* what, bool* missing) {
  bool nothing_there = false;
  if (missing == nullptr) missing = &nothing_there;
  *missing = true;
  if (path.empty()) return std::string("the ") + what + "'s path is empty";
  // Folders open only with backup semantics; asking for read access also
  // finds a file that another program holds without sharing.
  UniqueHandle file(::CreateFileA(path.c_str(), GENERIC_READ,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                  OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  if (!file) {
    const DWORD error = ::GetLastError();
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) return path + ": no such file";
    *missing = false;
    return path + ": cannot be opened: " + SystemText(error);
  }
  *missing = false;
  if (::GetFileType(file.get()) != FILE_TYPE_DISK) return path + ": is a device, not a file";
  BY_HANDLE_FILE_INFORMATION info = {};
  if (!::GetFileInformationByHandle(file.get(), &info)) {
    return path + ": cannot be read: " + SystemText(::GetLastError());
  }
  if (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) return path + ": is a folder, not a file";
  if (info.nFileSizeHigh == 0 && info.nFileSizeLow == 0) return path + ": is empty";
  return std::string();
}

std::string TableProblem(const std::string& path) {
  std::string problem = FileProblem(path, "table");
  if (!problem.empty()) return problem;
  table::Document doc;
  if (!doc.Load(path)) {
    const tinyxml2::XMLError error = doc.doc().ErrorID();
    const std::string name = tinyxml2::XMLDocument::ErrorIDToName(error);
    if (error == tinyxml2::XML_ERROR_FILE_NOT_FOUND ||
        error == tinyxml2::XML_ERROR_FILE_COULD_NOT_BE_OPENED ||
        error == tinyxml2::XML_ERROR_FILE_READ_ERROR) {
      return path + ": cannot be read (" + name + ")";
    }
    problem = path + ": not well-formed XML: " + name;
    if (doc.doc().ErrorLineNum() > 0) problem += " at line " + std::to_string(doc.doc().ErrorLineNum());
    return problem;
  }
  if (doc.Root() == nullptr) return path + ": not well-formed XML: no root element";
  return std::string();
}

bool TableReadable(const Common& common, const std::string& path, const std::string& note) {
  if (!common.check_tables) return true;
  const std::string problem = TableProblem(path);
  if (problem.empty()) return true;
  Fail(common, kUsageError,
       common.command + ": " + (note.empty() ? problem : problem + " (" + note + ")"));
  return false;
}

}  // namespace dorvane::ctl
