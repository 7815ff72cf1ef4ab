// dorvanectl's file, package and process commands: the firmware-switching
// library's operations, one subcommand each, arguments in the operation's order.
#include <windows.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/dorvanectl/ctl.h"
#include "tools/dorvanectl/delete_preview.h"
#include "tools/dorvanectl/path_guard.h"
#include "util/file_ops.h"
#include "util/path_buffer.h"
#include "util/package.h"
#include "util/process.h"
#include "util/zip_reader.h"

namespace dorvane::ctl {

namespace {

using Values = std::vector<std::string>;
using Run = std::function<int(const Common&, const Values&)>;
// The folders a command deletes from or writes into (see path_guard.h).
using Guard = std::function<std::vector<GuardedFolder>(const Values&)>;

// Prints the operation's result (JSON: with `outputs` beside it) and gives the
// exit status for it.
int Report(const Common& common, const nlohmann::json& result, bool success,
           nlohmann::json outputs = nlohmann::json::object()) {
  if (common.json) {
    outputs["result"] = result;
    PrintJson(outputs);
  } else if (!result.is_null()) {
    PrintRaw(result.dump() + "\n");
  }
  return success ? kOk : kFailed;
}

// For the operations whose success value is 1.
int ReportOne(const Common& common, int result) { return Report(common, result, result == 1); }

// A subcommand whose arguments are required texts, taken in the listed order.
// With a guard it has --force, and without it refuses protected folders.
CLI::App* AddCommand(CLI::App& app, Common& common, const char* name, const char* help,
                     const std::vector<std::pair<const char*, const char*>>& arguments, Run run,
                     Guard guard = nullptr) {
  auto values = std::make_shared<Values>(arguments.size());
  auto force = std::make_shared<bool>(false);
  CLI::App* command = app.add_subcommand(name, help);
  for (size_t i = 0; i < arguments.size(); ++i) {
    command->add_option(arguments[i].first, (*values)[i], arguments[i].second)->required();
  }
  if (guard) {
    command->add_flag("--force", *force,
                      "act even on a drive root, the Windows folder, a profile, Program Files, "
                      "ProgramData or a folder holding one");
  }
  command->callback([&common, values, run, guard, force, name = std::string(name)] {
    const std::optional<Refusal> refusal =
        guard && !*force ? FirstRefusal(guard(*values)) : std::nullopt;
    common.exit_code = refusal ? ReportRefusal(common, name, *refusal) : run(common, *values);
  });
  return command;
}

std::string ZipText(ZipResult code) {
  char text[128];
  FormatZipMessage(code, text, sizeof text);
  return text;
}

// The entries as the reader hands them out; the result is the first failing
// step's code, or 0.
int ListZip(const Common& common, const std::string& archive) {
  const std::string problem = FileProblem(archive, "archive");
  if (!problem.empty()) return Fail(common, kUsageError, problem);
  nlohmann::json items = nlohmann::json::array();
  ZipHandle zip = OpenZip(archive.c_str());
  ZipEntry all;
  ZipResult result = zip == nullptr ? kZipNoFile : GetZipItem(zip, -1, &all);
  for (int i = 0; result == kZipOk && i < all.index; ++i) {
    ZipEntry entry;
    if ((result = GetZipItem(zip, i, &entry)) != kZipOk) break;
    items.push_back({{"index", entry.index},
                     {"name", Text(entry.name)},
                     {"folder", (entry.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0},
                     {"size", entry.size},
                     {"compressed_size", entry.compressed_size}});
    if (!common.json) PrintRaw(Shown(entry.name) + "\n");
  }
  if (zip != nullptr) CloseZip(zip);
  if (common.json) {
    PrintJson({{"result", result}, {"text", ZipText(result)}, {"count", items.size()},
               {"items", items}});
  } else if (result != kZipOk) {
    std::fprintf(stderr, "dorvanectl: %s\n", ZipText(result).c_str());
  }
  return result == kZipOk ? kOk : kFailed;
}

// Unpacking a package that is not there gives the library's 0, which scripts
// test for, so the operation runs and only the reason is added. A folder or an
// empty file would be "unpacked" into nothing with the result 1: refused first.
int Unzip(const Common& common, const char* command, const std::string& package,
          const std::function<int()>& unzip) {
  bool missing = false;
  const std::string problem = FileProblem(package, "package", &missing);
  if (!problem.empty() && !missing) return Fail(common, kUsageError, problem);
  const int result = unzip();
  if (problem.empty() || result != 0) return ReportOne(common, result);
  if (!common.json) PrintRaw(std::to_string(result) + "\n");
  return Fail(common, kFailed,
              problem + " (" + command + " gives 0 for a package that does not exist)",
              {{"result", result}});
}

// The folders MakeFolders makes for `path`: the text before each backslash,
// slashes counted as backslashes, the path cut as the library cuts it. Empty
// prefixes and a bare \\server are no folders and are left out.
std::vector<std::string> FolderChain(const std::string& path) {
  std::string text = PathBuffer(path).str();
  for (char& c : text) c = c == '/' ? '\\' : c;
  std::vector<std::string> chain;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') continue;
    const std::string folder = text.substr(0, i);
    const bool server = folder.rfind("\\\\", 0) == 0 && folder.find('\\', 2) == std::string::npos;
    if (!folder.empty() && !server) chain.push_back(folder);
  }
  return chain;
}

bool IsFolder(const std::string& path) {
  const DWORD attributes = ::GetFileAttributesA(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// make-folders: the library gives nothing back, so the result says whether
// every folder of the chain is there afterwards, and which ones it made.
int MakeFolderChain(const Common& common, const std::string& path) {
  const std::vector<std::string> chain = FolderChain(path);
  std::vector<bool> before;
  for (const std::string& folder : chain) before.push_back(IsFolder(folder));
  MakeFolders(path);
  nlohmann::json made = nlohmann::json::array();
  std::string absent;
  for (size_t i = 0; i < chain.size(); ++i) {
    const bool now = IsFolder(chain[i]);
    if (now && !before[i]) made.push_back(Text(chain[i]));
    if (!now && absent.empty()) absent = chain[i];
  }
  nlohmann::json outputs = {{"folders", Texts(chain)}, {"made", made}};
  if (absent.empty()) return Report(common, true, true, outputs);
  outputs["result"] = false;
  if (!common.json) PrintRaw("false\n");
  return Fail(common, kFailed, "make-folders: " + absent + " is not a folder afterwards", outputs);
}

void AddZipResultText(CLI::App& app, Common& common) {
  auto code = std::make_shared<std::string>();
  auto size = std::make_shared<unsigned>(256);
  CLI::App* command = app.add_subcommand(
      "zip-result-text", "the text of a zip result code (1: of the most recent result)");
  command->add_option("code", *code, "the code, decimal or 0x-hex, for example 0x700")->required();
  command->add_option("--size", *size, "buffer size the text is cut to (less one), 1 to 4096")
      ->capture_default_str()
      ->transform(Number(1, 4096));
  command->callback([&common, code, size] {
    uint64_t number = 0;
    if (!ParseNumber(*code, 0, 0xFFFFFFFFu, &number)) {
      common.exit_code = Fail(common, kUsageError, "not a result code: " + *code);
      return;
    }
    const ZipResult value = static_cast<ZipResult>(number);
    std::vector<char> text(*size);
    const unsigned length = FormatZipMessage(value, text.data(), *size);
    if (common.json) {
      PrintJson({{"result", length}, {"text", Text(text.data())}});
    } else {
      PrintRaw(std::string(text.data()) + "\n");
    }
    common.exit_code = kOk;
  });
}

}  // namespace

void AddFileCommands(CLI::App& app, Common& common) {
  AddCommand(app, common, "copy-dir",
             "copy the files of SOURCE into DESTINATION (sub-folders: the other way round); "
             "result 1, -1 (empty argument) or -3 (source cannot be listed)",
             {{"destination", "folder to copy into"}, {"source", "folder to copy from"}},
             [](const Common& c, const Values& v) {
               return ReportOne(c, CopyFileInDir(v[0], v[1]));
             },
             [](const Values& v) { return CopyDirFolders(v[0], v[1]); });
  auto dry_run = std::make_shared<bool>(false);
  AddCommand(app, common, "delete-dir", "delete a folder with everything in it; result 1 or 0",
             {{"folder", "the folder"}},
             [dry_run](const Common& c, const Values& v) {
               return *dry_run ? PreviewDeleteDir(c, v[0]) : ReportOne(c, DeleteDir(v[0]));
             },
             [dry_run](const Values& v) {
               return *dry_run ? std::vector<GuardedFolder>() : DeleteDirFolders(v[0]);
             })
      ->add_flag("--dry-run", *dry_run,
                 "list what would be deleted, in order, and delete nothing");
  AddCommand(app, common, "file-exists", "test that a file or folder exists; result true or false",
             {{"path", "the path"}}, [](const Common& c, const Values& v) {
               const bool result = IsFileExist(v[0]);
               return Report(c, result, result);
             });
  AddCommand(app, common, "run-process",
             "run PROGRAM in its own folder and wait for it; result its exit code, or -999 when "
             "it cannot be started (exit status 1)",
             {{"program", "full path of the program or batch file"},
              {"command-line", "the whole command line (\"\" for none)"}},
             [](const Common& c, const Values& v) {
               const int result = RunProcess(v[0], v[1], kShowDefault);
               return Report(c, result, result != kProcessNotStarted);
             });
  AddCommand(app, common, "make-folders",
             "make the folder before every backslash or slash of PATH (end it with one)",
             {{"path", "the folder chain"}}, [](const Common& c, const Values& v) {
               return MakeFolderChain(c, v[0]);
             });
  AddCommand(app, common, "unzip-package",
             "unpack FOLDER+FILE into TARGET+SUB-FOLDER+\\, making that folder chain; result 1, "
             "or 0 when the package does not exist",
             {{"package-folder", "folder of the package, ending in a backslash"},
              {"package-file", "file name of the package"},
              {"target-folder", "folder to unpack under (joined to SUB-FOLDER as it is)"},
              {"sub-folder", "name of the folder to unpack into"}},
             [](const Common& c, const Values& v) {
               const std::string package = PathBuffer(v[0]).Append(v[1]).str();
               return Unzip(c, "unzip-package", package,
                            [&v] { return UnzipPackage(v[0], v[1], v[2], v[3]); });
             },
             [](const Values& v) { return UnzipPackageFolders(v[2], v[3]); });
  AddCommand(app, common, "unzip-all-items",
             "unpack every entry of ARCHIVE to TARGET+name; result 1, or 0 when the archive does "
             "not exist",
             {{"target-folder", "folder ending in a backslash"}, {"archive", "the zip file"}},
             [](const Common& c, const Values& v) {
               return Unzip(c, "unzip-all-items", v[1], [&v] { return UnzipAllItems(v[0], v[1]); });
             },
             [](const Values& v) { return UnzipAllItemsFolders(v[0]); });
  AddCommand(app, common, "zip-items",
             "list the entries of ARCHIVE with the names as they are unpacked; result the zip "
             "result code",
             {{"archive", "the zip file"}},
             [](const Common& c, const Values& v) { return ListZip(c, v[0]); });
  AddCommand(app, common, "install-usb-driver",
             std::string("run the USB driver's batch files and copy its files in ")
                 .append(kUsbDriverFolder)
                 .append("; result 1, or 0 when Uninstall_Inf.bat is missing")
                 .c_str(),
             {}, [](const Common& c, const Values&) { return ReportOne(c, InstallUSBDriver()); },
             [](const Values&) { return InstallUsbDriverFolders(); });
  AddZipResultText(app, common);
}

}  // namespace dorvane::ctl
