#include "config/scatter.h"

#include <gtest/gtest.h>

#include "support/log_reader.h"

namespace dorvane {
namespace {

class ScatterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::CreateDirectoryA("C:\\Windows\\WWAN", nullptr);
    ::CreateDirectoryA("C:\\Windows\\WWAN\\FwSwitchBin", nullptr);
    ::CreateDirectoryA(kFlashDataFolder, nullptr);
    path_ = std::string(kFlashDataFolder) + "\\" + kScatterName;
  }
  void TearDown() override { ::DeleteFileA(path_.c_str()); }
  // The flags of the file's partitions, in order.
  std::vector<std::string> Flags() const {
    std::vector<std::string> out;
    const std::string text = testing::ReadFileBytes(path_);
    for (size_t at = text.find("<is_download>"); at != std::string::npos;
         at = text.find("<is_download>", at + 1)) {
      const size_t begin = at + 13;
      out.push_back(text.substr(begin, text.find("</is_download>", begin) - begin));
    }
    return out;
  }
  std::string path_;
};

const char kScatter[] = R"(<?xml version="1.0" encoding="utf-8"?>
<root>
  <general><version>2</version></general>
  <storage_type name="EMMC">
    <partition_index name="SYS0"><partition_name>preloader</partition_name><is_download>true</is_download></partition_index>
    <partition_index name="SYS1"><partition_name>md1img</partition_name><is_download>false</is_download></partition_index>
    <partition_index name="SYS2"><partition_name>nvram</partition_name><is_download></is_download></partition_index>
    <other name="SYS3"><is_download>maybe</is_download></other>
  </storage_type>
</root>
)";

TEST_F(ScatterTest, FlagsAreKeyedByTheirOwnText) {
  struct Case {
    const char* selection;
    std::vector<std::string> flags;
  };
  const Case cases[] = {
      {";true;", {"true", "false", "false", "false"}},
      {"true", {"false", "false", "false", "false"}},   // no semicolons: nothing matches
      {";false;;;", {"false", "true", "true", "false"}}, // ";;" is the key of an empty flag
      {"x;maybe;x;true;", {"true", "false", "false", "true"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.selection);
    testing::WriteFileBytes(path_, kScatter);
    EXPECT_TRUE(UpdateScatterDownloadFlags(c.selection));
    EXPECT_EQ(c.flags, Flags());
  }
}

TEST_F(ScatterTest, FalsePathsLeaveTheFileAsItWas) {
  struct Case {
    std::string xml;
    std::string selection;
  };
  const Case cases[] = {
      {kScatter, ""},
      {"<root><storage_type><partition_index><is_download>true</is_download></partition_index>"
       "</storage_type></root>", ";true;"},
      {"<root><general/></root>", ";true;"},
      {"<root><general/><storage_type>", ";true;"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.xml);
    testing::WriteFileBytes(path_, c.xml);
    EXPECT_FALSE(UpdateScatterDownloadFlags(c.selection));
    EXPECT_EQ(c.xml, testing::ReadFileBytes(path_));
  }
  ::DeleteFileA(path_.c_str());
  EXPECT_FALSE(UpdateScatterDownloadFlags(";true;"));
  EXPECT_FALSE(testing::FileExists(path_)) << "nothing is created";
}

TEST_F(ScatterTest, AnEmptyStorageIsStillSavedByTheXmlPrinter) {
  const std::string xml = "<?xml version=\"1.0\"?>\n<root>\n<general/>\n<storage_type/></root>";
  testing::WriteFileBytes(path_, xml);
  EXPECT_TRUE(UpdateScatterDownloadFlags(";true;"));
  const std::string saved = testing::ReadFileBytes(path_);
  EXPECT_NE(xml, saved) << "rewritten by the printer";
  EXPECT_NE(std::string::npos, saved.find("<storage_type/>"));
}

}  // namespace
}  // namespace dorvane
