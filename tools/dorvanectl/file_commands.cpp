// dorvanectl's file, package and process commands: the firmware-switching
// library's operations, one subcommand each, arguments in the operation's order.
#include <windows.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/dorvanectl/answer.h"
#include "tools/dorvanectl/ctl.h"
#include "tools/dorvanectl/delete_preview.h"
#include "tools/dorvanectl/path_guard.h"
#include "util/failures.h"
#include "util/file_ops.h"
#include "util/path_buffer.h"
#include "util/package.h"
#include "util/process.h"
#include "util/scoped_handle.h"
#include "util/zip_reader.h"

namespace dorvane::ctl {

namespace {

using Values = std::vector<std::string>;
using Run = std::function<int(const Common&, const Values&)>;
// The folders a command deletes from or writes into (see path_guard.h).
using Guard = std::function<std::vector<GuardedFolder>(const Values&)>;

std::string ZipText(ZipResult code) {
  char text[128];
  FormatZipMessage(code, text, sizeof text);
  return text;
}

// "Zipfile is corrupt or not a zipfile (0x700)"
std::string ZipResultLine(long long code) {
  char number[32];
  std::snprintf(number, sizeof number, " (0x%llX)", static_cast<unsigned long long>(code));
  return ZipText(static_cast<ZipResult>(code)) + number;
}

// One line and one JSON item for a thing the operation could not do.
void Describe(Answer& answer, const Failure& f) {
  const nlohmann::json error = f.code;
  switch (f.kind) {
    case FailureKind::kCopy:
      answer.Failed(f.path + " not copied to " + f.other + ": " + SystemText(f.code),
                    {{"kind", "copy"}, {"path", Text(f.path)}, {"to", Text(f.other)},
                     {"error", error}, {"text", Text(SystemText(f.code))}});
      break;
    case FailureKind::kLinkSkipped:
      answer.Failed(f.path + " is a link: not followed, nothing copied through it",
                    {{"kind", "link-skipped"}, {"path", Text(f.path)}});
      break;
    case FailureKind::kDelete:
      answer.Failed(f.path + " not deleted: " + SystemText(f.code),
                    {{"kind", "delete"}, {"path", Text(f.path)}, {"error", error},
                     {"text", Text(SystemText(f.code))}});
      break;
    case FailureKind::kRemoveFolder:
      answer.Failed("folder " + f.path + " not removed: " + SystemText(f.code),
                    {{"kind", "remove-folder"}, {"path", Text(f.path)}, {"error", error},
                     {"text", Text(SystemText(f.code))}});
      break;
    case FailureKind::kLinkKept:
      answer.Failed(f.path + " is a link that the system cannot remove by itself here (a Unix "
                             "link under Wine): it stays, and so do the folders that hold it",
                    {{"kind", "link-kept"}, {"path", Text(f.path)}});
      break;
    case FailureKind::kArchive:
      answer.Failed(f.path + ": its entries cannot be listed: " + ZipResultLine(f.code),
                    {{"kind", "archive"}, {"path", Text(f.path)}, {"result", error},
                     {"text", ZipText(static_cast<ZipResult>(f.code))}});
      break;
    case FailureKind::kEntry:
      answer.Failed("entry " + f.path + " not unpacked to " + f.other + ": " + ZipResultLine(f.code),
                    {{"kind", "entry"}, {"name", Text(f.path)}, {"path", Text(f.other)},
                     {"result", error}, {"text", ZipText(static_cast<ZipResult>(f.code))}});
      break;
    case FailureKind::kBatchFile:
      answer.Failed(f.code == kProcessNotStarted
                        ? f.path + " could not be started"
                        : f.path + " ended with exit code " + std::to_string(f.code),
                    {{"kind", "batch-file"}, {"path", Text(f.path)}, {"exit_code", error}});
      break;
  }
}

// Collects what an operation tells it could not do.
struct Failures {
  std::vector<Failure> list;
  FailureFn Collect() {
    return [this](const Failure& f) { list.push_back(f); };
  }
  void DescribeTo(Answer& answer) const {
    for (const Failure& f : list) Describe(answer, f);
  }
};

// Why `folder` + "\*.*" cannot be listed, as the copy lists it.
std::string ListingProblem(const std::string& folder) {
  WIN32_FIND_DATAA found;
  UniqueFindHandle listing(::FindFirstFileA((PathBuffer(folder).Append("\\*.*")).c_str(), &found));
  return listing ? std::string("it can be listed now") : SystemText(::GetLastError());
}

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


// The entries as the reader hands them out; the result is the first failing
// step's code, or 0.
int ListZip(const Common& common, const std::string& archive) {
  const std::string problem = FileProblem(archive, "archive");
  if (!problem.empty()) return Fail(common, kUsageError, "zip-items: " + problem);
  nlohmann::json items = nlohmann::json::array();
  std::vector<std::string> names;
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
    names.push_back(entry.name);
  }
  if (zip != nullptr) CloseZip(zip);
  Answer answer(common, "zip-items");
  answer.Result(result).Field("text", ZipText(result)).Value("count", items.size());
  for (const std::string& name : names) answer.TextLine("entry", Shown(name));
  answer.JsonMember("items", items);
  return answer.Finish(result == kZipOk, archive + ": " + ZipResultLine(result));
}

// Unpacking: the library's 1 means only that the package exists. Whether its
// entries could be listed, and which were not unpacked, the command learns
// from the library and names.
int Unzip(const Common& common, const char* command, const std::string& package,
          const std::function<int(const FailureFn&)>& unzip) {
  bool missing = false;
  const std::string problem = FileProblem(package, "package", &missing);
  // A folder or an empty file would be "unpacked" into nothing with the
  // result 1: refused first. A missing package gives the library's 0, which
  // scripts test for, so the operation runs and the reason is added.
  if (!problem.empty() && !missing) return Fail(common, kUsageError, std::string(command) + ": " + problem);
  Failures failures;
  const int result = unzip(failures.Collect());
  Answer answer(common, command);
  answer.Result(result);
  failures.DescribeTo(answer);
  return answer.Finish(result == 1, problem + " (" + command +
                                        " gives 0 for a package that does not exist)");
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
  std::vector<std::string> made;
  Answer answer(common, "make-folders");
  for (size_t i = 0; i < chain.size(); ++i) {
    const bool now = IsFolder(chain[i]);
    if (now && !before[i]) made.push_back(chain[i]);
    if (!now) answer.Failed(chain[i] + " is not a folder afterwards", Text(chain[i]));
  }
  answer.Result(!answer.failed()).List("folders", chain).List("made", made);
  return answer.Finish(!answer.failed());
}

int CopyDir(const Common& common, const std::string& destination, const std::string& source) {
  Failures failures;
  const int result = CopyFileInDir(destination, source, failures.Collect());
  Answer answer(common, "copy-dir");
  answer.Result(result);
  failures.DescribeTo(answer);
  std::string why;
  if (result == kCopyEmptyArgument) why = "an argument is empty: nothing was copied";
  if (result == kCopySourceUnlisted) {
    why = "the source " + source + " cannot be listed: " + ListingProblem(source);
  }
  return answer.Finish(result == kCopyWalked, why);
}

int Delete(const Common& common, const std::string& folder) {
  Failures failures;
  const int result = DeleteDir(folder, failures.Collect());
  Answer answer(common, "delete-dir");
  answer.Result(result);
  failures.DescribeTo(answer);
  return answer.Finish(result == 1);
}

int FileExists(const Common& common, const std::string& path) {
  const bool result = IsFileExist(path);
  const DWORD error = ::GetFileAttributesA(path.c_str()) == INVALID_FILE_ATTRIBUTES
                          ? ::GetLastError()
                          : ERROR_SUCCESS;
  return Answer(common, "file-exists")
      .Result(result)
      .Finish(result, path + " does not exist: " + SystemText(error));
}

int RunProgram(const Common& common, const std::string& program, const std::string& command_line) {
  const int result = RunProcess(program, command_line, kShowDefault);
  const std::string problem = FileProblem(program, "program");
  // The program ran: that was asked, whatever its exit code.
  return Answer(common, "run-process")
      .Result(result)
      .Finish(result != kProcessNotStarted,
              program + " could not be started" + (problem.empty() ? "" : ": " + problem));
}

int InstallDriver(const Common& common) {
  Failures failures;
  const int result = InstallUSBDriver(failures.Collect());
  Answer answer(common, "install-usb-driver");
  answer.Result(result);
  failures.DescribeTo(answer);
  return answer.Finish(result == 1, std::string(kUsbDriverFolder) +
                                        "Uninstall_Inf.bat does not exist: nothing was run");
}

void AddZipResultText(CLI::App& app, Common& common) {
  auto code = std::make_shared<std::string>();
  auto size = std::make_shared<unsigned>(256);
  CLI::App* command = app.add_subcommand(
      "zip-result-text", "the text of a zip result code (1: of the most recent result)");
  command->add_option("code", *code, "the code, decimal or 0x-hex, for example 0x700")->required();
  command->add_option("--size", *size,
                      "buffer size the text is cut to (less one), 1 to 4096 (default: 256)")
      ->type_name("N")
      ->transform(Number(1, 4096));
  command->callback([&common, code, size] {
    uint64_t number = 0;
    if (!ParseNumber(*code, 0, 0xFFFFFFFFu, &number)) {
      common.exit_code = Fail(common, kUsageError, "zip-result-text: not a result code: " + *code);
      return;
    }
    const ZipResult value = static_cast<ZipResult>(number);
    std::vector<char> text(*size);
    const unsigned length = FormatZipMessage(value, text.data(), *size);
    common.exit_code =
        Answer(common, "zip-result-text").Result(length).Field("text", text.data()).Finish(true);
  });
}

}  // namespace

void AddFileCommands(CLI::App& app, Common& common) {
  AddCommand(app, common, "copy-dir",
             "copy the files of SOURCE into DESTINATION (sub-folders: the other way round); "
             "result 1, -1 (empty argument) or -3 (source cannot be listed)",
             {{"destination", "folder to copy into"}, {"source", "folder to copy from"}},
             [](const Common& c, const Values& v) { return CopyDir(c, v[0], v[1]); },
             [](const Values& v) { return CopyDirFolders(v[0], v[1]); });
  auto dry_run = std::make_shared<bool>(false);
  AddCommand(app, common, "delete-dir", "delete a folder with everything in it; result 1 or 0",
             {{"folder", "the folder"}},
             [dry_run](const Common& c, const Values& v) {
               return *dry_run ? PreviewDeleteDir(c, v[0]) : Delete(c, v[0]);
             },
             [dry_run](const Values& v) {
               return *dry_run ? std::vector<GuardedFolder>() : DeleteDirFolders(v[0]);
             })
      ->add_flag("--dry-run", *dry_run,
                 "list what would be deleted, in order, and delete nothing");
  AddCommand(app, common, "file-exists", "test that a file or folder exists; result true or false",
             {{"path", "the path"}},
             [](const Common& c, const Values& v) { return FileExists(c, v[0]); });
  AddCommand(app, common, "run-process",
             "run PROGRAM in its own folder and wait for it; result its exit code, or -999 when "
             "it cannot be started (exit status 1)",
             {{"program", "full path of the program or batch file"},
              {"command-line", "the whole command line (\"\" for none)"}},
             [](const Common& c, const Values& v) { return RunProgram(c, v[0], v[1]); });
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
               return Unzip(c, "unzip-package", package, [&v](const FailureFn& failed) {
                 return UnzipPackage(v[0], v[1], v[2], v[3], failed);
               });
             },
             [](const Values& v) { return UnzipPackageFolders(v[2], v[3]); });
  AddCommand(app, common, "unzip-all-items",
             "unpack every entry of ARCHIVE to TARGET+name; result 1, or 0 when the archive does "
             "not exist",
             {{"target-folder", "folder ending in a backslash"}, {"archive", "the zip file"}},
             [](const Common& c, const Values& v) {
               return Unzip(c, "unzip-all-items", v[1], [&v](const FailureFn& failed) {
                 return UnzipAllItems(v[0], v[1], failed);
               });
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
             {}, [](const Common& c, const Values&) { return InstallDriver(c); },
             [](const Values&) { return InstallUsbDriverFolders(); });
  AddZipResultText(app, common);
}

}  // namespace dorvane::ctl
