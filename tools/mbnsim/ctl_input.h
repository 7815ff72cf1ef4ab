// Reading mbnsimctl's arguments strictly: numbers without sign, blanks or
// trailing text, HRESULTs, escaped answer text, and the known name nearest to
// a mistyped one. Pure functions, so that the edge cases are unit-tested.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace mbnsim::ctl {

// A decimal whole number from `min` to `max`: digits only (no sign, blank or
// "0x"). False for anything else, and for a number out of range.
bool ParseDecimal(const std::string& text, uint64_t min, uint64_t max, uint64_t* out);

// An HRESULT: "0x" (or "0X") and 1 to 8 hex digits, or a decimal number from
// -2147483648 to 4294967295 (a negative one as HRESULTs are printed signed).
bool ParseHresult(const std::string& text, HRESULT* out);

// Reads C-style escapes: \r \n \t \\ and \xHH (exactly two hex digits). False
// at any other backslash.
bool Unescape(const std::string& text, std::string* out);

// The candidate nearest to `text` by edit distance, case ignored (the first of
// equals), when it is near enough to be a slip of the keyboard: two edits, or
// one in three letters of the longer name. "" when none is.
std::string Closest(const std::string& text, const std::vector<std::string>& candidates);

}  // namespace mbnsim::ctl
