// delete-dir --dry-run: what delete-dir would remove, found by the walk that
// DeleteDir makes, with every removal left out.
//
// The walk is DeleteDir's own (WalkDeleteDir): the first entry of every
// listing is never looked at; a link is removed as a link and never entered; a
// folder is emptied, then removed, and the named folder goes last. A link that
// cannot be opened as itself (as on Wine, whose links are Unix symbolic links)
// is left in place by DeleteDir, and is listed as kept. What the walk cannot
// foresee is a removal that the system refuses (a read-only or open file, a
// folder that still holds one); such a folder is listed all the same, as
// DeleteDir tries it.
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
