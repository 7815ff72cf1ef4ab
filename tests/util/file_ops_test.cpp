// Folder copy and deletion, the existence test, folder chains and processes.
#include "util/file_ops.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "support/links.h"
#include "support/log_reader.h"
#include "support/tree.h"
#include "util/process.h"

namespace dorvane {
namespace {

using namespace testing;  // dorvane::testing
using Lines = std::vector<std::string>;

class FileOpsTest : public LogFixture {
 protected:
  // Makes the folders on the way to each path in the test's folder, and a
  // file with the text at each path that does not end in a backslash.
  void Make(const std::map<std::string, std::string>& files) {
    for (const auto& [path, text] : files) {
      MakeFolders(In(path));
      if (path.back() != '\\') WriteFileBytes(In(path), text);
    }
  }
  std::string Read(const std::string& relative) const { return ReadFileBytes(In(relative)); }
  // "outside": where the links point, with a file and a sub-folder.
  void MakeOutside() { Make({{"outside\\f.txt", "target"}, {"outside\\deep\\g.txt", "deep"}}); }
  void ExpectOutsideIntact() const {
    EXPECT_EQ((Lines{"deep/", "deep/g.txt", "f.txt"}), TreeOf(In("outside")));
    EXPECT_EQ("target" + std::string("deep"), Read("outside\\f.txt") + Read("outside\\deep\\g.txt"));
  }
  Lines Without(const std::string& tag) const {
    Lines lines = tagged();
    lines.erase(std::remove_if(lines.begin(), lines.end(), [&](const std::string& l) { return l.rfind(tag, 0) == 0; }),
                lines.end());
    return lines;
  }
};

TEST_F(FileOpsTest, CopyRejectsEmptyArgumentsAndSourcesThatCannotBeListed) {
  // Destination, source, result, and whether the failure is logged.
  using Case = std::tuple<std::string, std::string, int, bool>;
  Make({{"dst\\", ""}});
  for (const auto& [destination, source, result, failed_line] :
       {Case{In("dst"), "", kCopyEmptyArgument, true}, Case{"", In("dst"), kCopyEmptyArgument, true},
        Case{In("dst"), In("missing"), kCopySourceUnlisted, false}}) {
    SCOPED_TRACE(source + " -> " + destination);
    ClearLog();
    EXPECT_EQ(result, CopyFileInDir(destination, source));
    Lines expected = {"[DETAIL]CopyFileInDir enter.", "[DETAIL]" + source, "[DETAIL]" + destination};
    if (failed_line) expected.push_back("[ERROR] CopyFileInDir failed.");
    EXPECT_EQ(expected, tagged());
  }
}

// Files are copied into the destination, replacing; a sub-folder S is copied
// the other way, from destination\S into source\S, by a nested call.
TEST_F(FileOpsTest, CopyReplacesFilesAndCopiesSubFoldersBackToTheSource) {
  Make({{"src\\a.txt", "new a"}, {"src\\b.txt", "new b"}, {"dst\\b.txt", "old b"}, {"src\\S\\from-source.txt", "s"},
        {"dst\\S\\from-destination.txt", "d"}, {"src\\T\\", ""}});  // T: no counterpart on the destination side
  EXPECT_EQ(kCopyWalked, CopyFileInDir(In("dst"), In("src")));
  EXPECT_EQ("new a" + std::string("new b"), Read("dst\\a.txt") + Read("dst\\b.txt"));
  EXPECT_EQ("d", Read("src\\S\\from-destination.txt"));
  EXPECT_EQ((Lines{"dst/", "dst/S/", "dst/S/from-destination.txt", "dst/a.txt", "dst/b.txt", "src/", "src/S/",
                   "src/S/from-destination.txt", "src/S/from-source.txt", "src/T/", "src/a.txt", "src/b.txt"}),
            TreeOf(dir_, {"Dorvane.log"}));
  // Each call logs its arguments, then each source item (the nested call's
  // direction shows in the tree).
  const Lines msgs = messages();
  ASSERT_LE(3u, msgs.size());
  EXPECT_EQ((Lines{"CopyFileInDir enter.", In("src"), In("dst")}), Lines(msgs.begin(), msgs.begin() + 3));
  for (const char* item : {"src\\a.txt", "src\\b.txt", "dst\\S\\from-destination.txt"}) {
    EXPECT_EQ(1, CountOf(msgs, In(item))) << item;
  }

  // Into a missing folder each copy fails and the walk goes on.
  ClearLog();
  EXPECT_EQ(kCopyWalked, CopyFileInDir(In("nowhere"), In("src\\S")));
  EXPECT_FALSE(FileExists(In("nowhere"))) << "the destination is not created";
  EXPECT_EQ((Lines{"[ERROR] CopyFile faild", "[ERROR] CopyFile faild"}), Without("[DETAIL]"));
}

// Links on either side (Unix symbolic links, as Wine makes them): a folder link
// in the source would be written through by the nested call, one in the
// destination read through, and a file link in the destination written
// through. Each is skipped and named, or, for the file link that Wine does
// not show as one, replaced.
TEST_F(FileOpsTest, CopyNeitherEntersNorWritesThroughLinksOnEitherSide) {
  if (!UnderWine()) GTEST_SKIP() << "the links are Unix symbolic links";
  MakeOutside();
  Make({{"src\\a.txt", "a"}, {"src\\to-file", "new"}, {"src\\S\\", ""}, {"dst\\lnk\\pwn.txt", "pwn"}});
  ASSERT_TRUE(MakeUnixLink(In("src\\lnk"), In("outside")));
  ASSERT_TRUE(MakeUnixLink(In("dst\\S"), In("outside\\deep")));
  ASSERT_TRUE(MakeUnixLink(In("dst\\to-file"), In("outside\\f.txt")));
  EXPECT_EQ(kCopyWalked, CopyFileInDir(In("dst"), In("src")));
  ExpectOutsideIntact();
  EXPECT_EQ("a" + std::string("new"), Read("dst\\a.txt") + Read("dst\\to-file"));
  EXPECT_EQ(Lines{}, TreeOf(In("src\\S"))) << "nothing read through the destination's link";
  Lines skipped = Without("[DETAIL]");
  std::sort(skipped.begin(), skipped.end());
  EXPECT_EQ((Lines{"[WARNING] CopyFileInDir skipped link " + In("dst\\S"),
                   "[WARNING] CopyFileInDir skipped link " + In("src\\lnk")}),
            skipped) << "and no failed copy";
}

TEST_F(FileOpsTest, DeleteRemovesANestedTreeAndLogsEachFolderOrTheFailure) {
  Make({{"a\\top.txt", "1"}, {"a\\b\\c\\deep.txt", "2"}, {"a\\empty\\", ""}});
  EXPECT_EQ(1, DeleteDir(In("a")));
  EXPECT_FALSE(FileExists(In("a")));
  Lines lines = tagged();
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ((Lines{"[DETAIL]" + In("a\\b"), "[DETAIL]" + In("a\\b\\c"), "[DETAIL]" + In("a\\empty")}), lines);
  ClearLog();
  EXPECT_EQ(0, DeleteDir(In("missing")));
  EXPECT_EQ((Lines{"[ERROR] Delete dir failed", "[ERROR] " + In("missing")}), tagged());
}

// Wine lists a Unix symbolic link to a folder with the reparse-point attribute,
// so DeleteDir does not enter it. But Wine follows such a link whatever the open
// flags, and RemoveDirectoryA by its name removes an empty target folder: no
// Win32 call removes the link alone, so it stays, and so do the folders that
// hold it. What matters is that nothing it points to is touched, whether the
// link lies inside the folder deleted or is that folder.
TEST_F(FileOpsTest, DeleteLeavesWhatUnixLinksPointTo) {
  if (!UnderWine()) GTEST_SKIP() << "Unix symbolic links exist only under Wine";
  MakeOutside();
  Make({{"empty\\", ""}, {"a\\top.txt", "1"}, {"a\\b\\x.txt", "2"}});
  const Lines links = {"a\\to-outside", "a\\to-empty", "a\\b\\to-deep", "link", "to-empty"};
  const Lines targets = {"outside", "empty", "outside\\deep", "outside", "empty"};
  for (size_t i = 0; i < links.size(); ++i) ASSERT_TRUE(MakeUnixLink(In(links[i]), In(targets[i]))) << links[i];
  for (const char* folder : {"a", "link", "to-empty"}) EXPECT_EQ(0, DeleteDir(In(folder))) << folder;
  ExpectOutsideIntact();
  EXPECT_EQ(static_cast<DWORD>(FILE_ATTRIBUTE_DIRECTORY), ListedAttributes(In("empty")) & FILE_ATTRIBUTE_DIRECTORY);
  for (const char* gone : {"a\\top.txt", "a\\b\\x.txt"}) EXPECT_FALSE(FileExists(In(gone))) << gone;
  for (const std::string& link : links) {
    EXPECT_NE(0u, ListedAttributes(In(link)) & FILE_ATTRIBUTE_REPARSE_POINT) << link << " stays";
  }
  EXPECT_EQ((Lines{"[DETAIL]" + In("a\\b"), "[ERROR] Delete dir failed", "[ERROR] " + In("a\\b"),
                   "[ERROR] Delete dir failed", "[ERROR] " + In("a"), "[ERROR] Delete dir failed",
                   "[ERROR] " + In("link"), "[ERROR] Delete dir failed", "[ERROR] " + In("to-empty")}),
            tagged());
}

TEST_F(FileOpsTest, ExistenceWithTheErrorNumberAndFolderChains) {
  Make({{"here.txt", "x"}});
  for (const auto& [path, error] : {std::pair{In("here.txt"), 0}, std::pair{dir_, 0}, std::pair{In("gone.txt"), 2},
                                    std::pair{In("no\\such\\file"), 3}}) {
    SCOPED_TRACE(path);
    ClearLog();
    EXPECT_EQ(error == 0, IsFileExist(path));
    EXPECT_EQ(error == 0 ? Lines{} : Lines{"[ERROR] " + path + " file is not exist error=" + std::to_string(error)},
              tagged());
  }
  // Each level before a backslash or slash is made; existing ones are no failure.
  MakeFolders(In("m/one\\two/three\\not-made"));
  MakeFolders(In("m\\one\\"));
  EXPECT_EQ((Lines{"here.txt", "m/", "m/one/", "m/one/two/", "m/one/two/three/"}), TreeOf(dir_, {"Dorvane.log"}));
}

TEST_F(FileOpsTest, ProcessesGiveTheirExitCodeOrMinus999AndBatchFilesRunInTheirFolder) {
  char system[MAX_PATH];
  const std::string cmd = std::string(system, ::GetSystemDirectoryA(system, MAX_PATH)) + "\\cmd.exe";
  Make({{"bin\\where.bat", "@cd > where.txt\r\n@exit /b 7\r\n"}});
  EXPECT_EQ(3, RunProcess(cmd, "cmd.exe /c exit 3", kShowDefault));
  EXPECT_EQ(0, RunProcess(cmd, "cmd.exe /c exit 0", kShowDefault));
  EXPECT_EQ(7, RunProcess(In("bin\\where.bat"), "", kShowDefault)) << "with an empty command line";
  EXPECT_EQ(In("bin") + "\r\n", Read("bin\\where.txt"));
  EXPECT_EQ(Lines{}, messages());
  EXPECT_EQ(-999, RunProcess(In("missing.exe"), "", kShowDefault));
  EXPECT_EQ(Lines{"[ERROR] Create process failed"}, tagged());
}

}  // namespace
}  // namespace dorvane
