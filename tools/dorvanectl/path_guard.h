// The rails of dorvanectl's destructive file commands. delete-dir, copy-dir,
// unzip-package, unzip-all-items and install-usb-driver refuse, unless given
// --force, to delete from or write into a protected folder:
//
//   - a drive root (C:\, a network share's root \\server\share, \\?\C:\);
//   - the Windows folder and the system folders;
//   - the Users folder, every user's profile folder, the public and the
//     default profile;
//   - the Program Files folders and ProgramData;
//   - any folder that holds one of them (C:\Users\.. is C:\).
//
// The library has no such check: the installation's scripts call it with fixed
// folders. A person at a prompt can mistype one, and the operations run with
// whatever rights the prompt has.
//
// Paths are compared as the file functions will read them: made full as
// GetFullPathNameW makes them (relative paths, drive-relative "C:", "." and
// "..", "/" for "\"), with long names for existing 8.3 short names, trailing
// dots and blanks dropped from every part, case ignored; where a path exists
// it is also followed through links, and both the path and where it leads are
// checked. A path in the device namespace other than a drive or a share
// (\\?\Volume{...}\, \\.\PhysicalDrive0) cannot be checked and is refused;
// so is any path on a network share (\\server\share\..., also through a link),
// whose protected folders are those of the machine that serves it.
//
//   std::optional<Refusal> refusal = FirstRefusal(DeleteDirFolders(folder));
//   if (refusal && !force) { ...print refusal->Text("delete-dir")... }
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/dorvanectl/ctl.h"

namespace dorvane::ctl {

// A folder that an operation deletes from or writes into, described by the
// paths the operation forms in it.
struct GuardedFolder {
  std::string argument;             // the argument(s) that name it, as the help names them
  std::string given;                // its text as typed, or as the operation joins it
  std::vector<std::string> inside;  // paths the operation forms in it, cut as it cuts them
  bool removed = false;             // the operation also removes `given` itself
  const char* action = "write into";
};

struct Refusal {
  std::string argument;
  std::string given;
  std::string path;           // the folder the operation would reach, as normalised
  bool through_link = false;  // `path` is where the given folder leads through a link
  std::string why;            // "is a drive root", "holds the Users folder C:\Users"
  const char* action = "write into";

  // The path, the argument and why: C:\ (folder "C:\Users\.."): it is a drive root
  std::string Reason() const;
  // One line: what was refused, the argument, the path and why, and --force.
  std::string Text(const std::string& command) const;
};

// The first folder of `folders` that is protected, with the reason.
std::optional<Refusal> FirstRefusal(const std::vector<GuardedFolder>& folders);

// Prints the refusal (a line on stderr, and with --json {"result": null,
// "error": ...}) and gives the usage exit status.
int ReportRefusal(const Common& common, const std::string& command, const Refusal& refusal);

// What each operation reaches, from its arguments in the operation's order.
std::vector<GuardedFolder> DeleteDirFolders(const std::string& folder);
std::vector<GuardedFolder> CopyDirFolders(const std::string& destination,
                                          const std::string& source);
std::vector<GuardedFolder> UnzipPackageFolders(const std::string& target_folder,
                                               const std::string& sub_folder);
std::vector<GuardedFolder> UnzipAllItemsFolders(const std::string& target_folder);
std::vector<GuardedFolder> InstallUsbDriverFolders();

}  // namespace dorvane::ctl
