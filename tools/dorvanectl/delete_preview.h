// delete-dir --dry-run: what delete-dir would remove, found by the walk that
// DeleteDir makes, with every removal left out.
//
// The walk is DeleteDir's own (util/file_ops.cpp), step by step: the first
// entry of every listing is never looked at; "." and ".." are skipped; an
// entry with the reparse-point attribute is a link, removed as a link and
// never entered; an entry for which "<path>//*" can be listed is a folder,
// emptied and then removed; anything else is a file; a folder is removed after
// everything in it, and the named folder last. A link that cannot be opened as
// itself (as on Wine, whose links are Unix symbolic links) is left in place by
// DeleteDir, and is listed as kept. What the walk cannot foresee is a removal
// that the system refuses (a read-only or open file, a folder that still holds
// one); such a folder is listed all the same, as DeleteDir tries it.
//
//   dorvanectl delete-dir --dry-run C:\fw     # one "kind path" line per step
#pragma once

#include <string>

#include "tools/dorvanectl/ctl.h"

namespace dorvane::ctl {

// Prints the steps (with --json one object with "would_delete", "would_keep"
// and the counts) and a note when delete-dir would need --force for `folder`.
// Gives kOk when `folder` is a folder or a link, kFailed when it is missing or
// a file, which DeleteDir would leave with the result 0.
int PreviewDeleteDir(const Common& common, const std::string& folder);

}  // namespace dorvane::ctl
