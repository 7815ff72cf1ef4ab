// What the table lookups' tests share: tables written to the test's folder,
// preset records and the log read back.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "config/firmware_info.h"
#include "support/log_reader.h"

namespace dorvane::testing {

using Texts = std::vector<std::string>;

// Every field "x", so written fields stand out from untouched ones.
inline CarrierFirmwareInfo Preset() {
  CarrierFirmwareInfo r;
  r.fields.fill("x");
  return r;
}

class TableTest : public LogFixture {
 protected:
  std::string Table(const std::string& xml) { return WriteTable(xml); }
  // The log as "[ERROR] text" / "[DETAIL]text" lines is `want`, or ends with
  // the rest of it when `want` starts with "...". A text "@" stands for `path`.
  void ExpectLog(Texts want, const std::string& path = "") const {
    for (std::string& w : want) {
      if (w.size() == 9 && w.back() == '@') w = w.substr(0, 8) + path;
    }
    Texts got = tagged();
    if (!want.empty() && want.front() == "...") {
      want.erase(want.begin());
      got.erase(got.begin(), got.end() - std::min(got.size(), want.size()));
    }
    EXPECT_EQ(want, got);
  }
};

}  // namespace dorvane::testing
