#include "config/scatter.h"

#include "config/table_test.h"

namespace dorvane {
namespace {

using testing::ReadFileBytes;
using testing::Texts;

class ScatterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* d : {"C:\\Windows\\WWAN", "C:\\Windows\\WWAN\\FwSwitchBin", kFlashDataFolder}) {
      ::CreateDirectoryA(d, nullptr);
    }
  }
  void TearDown() override { ::DeleteFileA(path_.c_str()); }
  // The flags of the file's partitions, in order.
  Texts Flags() const {
    Texts out;
    const std::string text = ReadFileBytes(path_);
    for (size_t at = text.find("<is_download>"); at != std::string::npos; at = text.find("<is_download>", at + 1)) {
      out.push_back(text.substr(at + 13, text.find("</is_download>", at) - at - 13));
    }
    return out;
  }
  const std::string path_ = std::string(kFlashDataFolder) + "\\" + kScatterName;
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
    Texts flags;
  };
  const Case cases[] = {
      {";true;", {"true", "false", "false", "false"}},
      {"true", {"false", "false", "false", "false"}},    // no semicolons: nothing matches
      {";false;;;", {"false", "true", "true", "false"}},  // ";;" is the key of an empty flag
      {"x;maybe;x;true;", {"true", "false", "false", "true"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.selection);
    testing::WriteFileBytes(path_, kScatter);
    EXPECT_TRUE(UpdateScatterDownloadFlags(c.selection));
    EXPECT_EQ(c.flags, Flags());
  }
  // An empty storage is still saved, by the XML printer.
  const std::string xml = "<?xml version=\"1.0\"?>\n<root>\n<general/>\n<storage_type/></root>";
  testing::WriteFileBytes(path_, xml);
  EXPECT_TRUE(UpdateScatterDownloadFlags(";true;"));
  EXPECT_NE(xml, ReadFileBytes(path_)) << "rewritten by the printer";
  EXPECT_NE(std::string::npos, ReadFileBytes(path_).find("<storage_type/>"));
}

TEST_F(ScatterTest, FalsePathsLeaveTheFileAsItWas) {
  struct Case {
    const char* xml;  // null: no file, and none is created
    const char* selection;
  };
  const Case cases[] = {
      {kScatter, ""},
      {"<root><storage_type><partition_index><is_download>true</is_download></partition_index>"
       "</storage_type></root>", ";true;"},
      {"<root><general/></root>", ";true;"}, {"<root><general/><storage_type>", ";true;"}, {nullptr, ";true;"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.xml ? c.xml : "no file");
    if (c.xml) testing::WriteFileBytes(path_, c.xml);
    EXPECT_FALSE(UpdateScatterDownloadFlags(c.selection));
    EXPECT_EQ(c.xml ? c.xml : "no file", testing::FileExists(path_) ? ReadFileBytes(path_) : "no file");
    ::DeleteFileA(path_.c_str());
  }
}

}  // namespace
}  // namespace dorvane
