// Links for the tests of what the library does where links already stand.
//
// Windows makes directory and file symbolic links and junctions; Wine 8 makes
// none of them (CreateSymbolicLinkA answers TRUE and makes nothing,
// FSCTL_SET_REPARSE_POINT fails with ERROR_NOT_SUPPORTED). Wine's own links,
// such as the user folders of a prefix, are Unix symbolic links: one to a
// folder is listed with the reparse-point attribute, one to a file looks like
// the file.
#pragma once

#include <windows.h>

#include <string>

namespace dorvane::testing {

// True when running under Wine (its kernel32 exports wine_get_unix_file_name).
bool UnderWine();

// The attributes the folder listing gives for `path`, or INVALID_FILE_ATTRIBUTES.
DWORD ListedAttributes(const std::string& path);

// Makes `link` a Unix symbolic link to `target` (under Wine only); true when
// the link stands.
bool MakeUnixLink(const std::string& link, const std::string& target);

}  // namespace dorvane::testing
