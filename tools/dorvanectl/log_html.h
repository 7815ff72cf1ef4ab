// The page `dorvanectl log --html` writes: one self-contained file (no
// scripts, fonts or styles from elsewhere) with a timeline drawn in SVG and
// the summary as tables. Each lane's segment and each mark carries the log
// line it stands for as its title, which a browser shows on hover.
//
// Lanes, top to bottom: the service running (a bar per run), the modem
// present (from an arrival or a SIM read to a removal or the run's end), the
// SIM (a segment per SIM, named by its ICCID when the log gives one, else by
// its home provider), then one row of marks each for suspend and resume,
// registry changes and errors.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/dorvanectl/log_happenings.h"

namespace dorvane::logread {

struct HtmlInput {
  std::vector<std::string> files;
  int year = 0;  // the first line's calendar year, 0 when not known
  bool errors_only = false;
  size_t records = 0;
  size_t unreadable_lines = 0;
  Stamp first, last;  // the first and last timed records read
};

std::string RenderHtml(const Summary& summary, const HtmlInput& input);

// `text` for HTML text and attribute values: & < > " ' escaped, control
// characters but tab and line feed shown as \xNN, bytes that are not UTF-8 as
// \xNN (the log is ANSI).
std::string HtmlText(const std::string& text);

}  // namespace dorvane::logread
