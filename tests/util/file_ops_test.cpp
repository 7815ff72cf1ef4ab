// Folder copy and deletion, the existence test, folder chains and processes.
#include "util/file_ops.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/log_reader.h"
#include "support/tree.h"
#include "util/process.h"

namespace dorvane {
namespace {

using testing::FileExists;
using testing::ReadFileBytes;
using testing::TreeOf;
using testing::WriteFileBytes;

using Lines = std::vector<std::string>;

class FileOpsTest : public testing::LogFixture {
 protected:
  void MakeDir(const std::string& relative) { ::CreateDirectoryA(In(relative).c_str(), nullptr); }
  void Put(const std::string& relative, const std::string& text) { WriteFileBytes(In(relative), text); }
  std::string Read(const std::string& relative) const { return ReadFileBytes(In(relative)); }
};

TEST_F(FileOpsTest, CopyRejectsEmptyArgumentsAndSourcesThatCannotBeListed) {
  struct Case {
    std::string destination, source;
    int result;
    bool failed_line;
  };
  const std::string missing = In("missing");
  MakeDir("dst");
  for (const Case& c : {Case{In("dst"), "", -1, true}, Case{"", In("dst"), -1, true},
                        Case{In("dst"), missing, -3, false}}) {
    SCOPED_TRACE(c.source + " -> " + c.destination);
    ClearLog();
    EXPECT_EQ(c.result, CopyFileInDir(c.destination, c.source));
    Lines expected = {"[DETAIL]CopyFileInDir enter.", "[DETAIL]" + c.source,
                      "[DETAIL]" + c.destination};
    if (c.failed_line) expected.push_back("[ERROR] CopyFileInDir failed.");
    EXPECT_EQ(expected, tagged());
  }
  EXPECT_EQ(static_cast<int>(0xFFFFFFFF), kCopyEmptyArgument);
  EXPECT_EQ(static_cast<int>(0xFFFFFFFD), kCopySourceUnlisted);
}

TEST_F(FileOpsTest, CopyReplacesFilesLogsEachSourceItemAndGoesOnAfterFailures) {
  MakeDir("src");
  MakeDir("dst");
  Put("src\\a.txt", "new a");
  Put("src\\b.txt", "new b");
  Put("dst\\b.txt", "old b");
  EXPECT_EQ(1, CopyFileInDir(In("dst"), In("src")));
  EXPECT_EQ("new a", Read("dst\\a.txt"));
  EXPECT_EQ("new b", Read("dst\\b.txt"));
  Lines msgs = messages();
  ASSERT_EQ(5u, msgs.size());
  EXPECT_EQ((Lines{"CopyFileInDir enter.", In("src"), In("dst")}), Lines(msgs.begin(), msgs.begin() + 3));
  std::sort(msgs.begin() + 3, msgs.end());
  EXPECT_EQ((Lines{In("src\\a.txt"), In("src\\b.txt")}), Lines(msgs.begin() + 3, msgs.end()));

  // Into a missing folder each copy fails and the walk goes on.
  ClearLog();
  EXPECT_EQ(1, CopyFileInDir(In("nowhere"), In("src")));
  EXPECT_FALSE(FileExists(In("nowhere"))) << "the destination is not created";
  const Lines lines = tagged();
  EXPECT_EQ(2, std::count(lines.begin(), lines.end(), "[ERROR] CopyFile faild"));
}

TEST_F(FileOpsTest, SubFolderIsCopiedFromTheDestinationBackToTheSource) {
  MakeDir("src");
  MakeDir("src\\S");
  MakeDir("src\\T");  // no counterpart on the destination side
  MakeDir("dst");
  MakeDir("dst\\S");
  Put("src\\S\\from-source.txt", "s");
  Put("dst\\S\\from-destination.txt", "d");
  EXPECT_EQ(1, CopyFileInDir(In("dst"), In("src")));
  EXPECT_EQ("d", Read("src\\S\\from-destination.txt"));
  EXPECT_FALSE(FileExists(In("dst\\S\\from-source.txt")));
  EXPECT_EQ((Lines{"dst/", "dst/S/", "dst/S/from-destination.txt", "src/", "src/S/",
                   "src/S/from-destination.txt", "src/S/from-source.txt", "src/T/"}),
            TreeOf(dir_, {"Dorvane.log"}));

  // The nested call names the destination's sub-folder as its source.
  const Lines msgs = messages();
  const int nested = testing::IndexOf(msgs, In("dst\\S"));
  ASSERT_GT(nested, 0);
  EXPECT_EQ("CopyFileInDir enter.", msgs[nested - 1]);
  EXPECT_EQ(In("src\\S"), msgs[nested + 1]);
  EXPECT_EQ(In("dst\\S\\from-destination.txt"), msgs[nested + 2]);
}

TEST_F(FileOpsTest, DeleteRemovesANestedTreeAndLogsEachFolder) {
  for (const char* d : {"a", "a\\b", "a\\b\\c", "a\\empty"}) MakeDir(d);
  Put("a\\top.txt", "1");
  Put("a\\b\\c\\deep.txt", "2");
  EXPECT_EQ(1, DeleteDir(In("a")));
  EXPECT_FALSE(FileExists(In("a")));
  Lines msgs = messages();
  std::sort(msgs.begin(), msgs.end());
  EXPECT_EQ((Lines{In("a\\b"), In("a\\b\\c"), In("a\\empty")}), msgs);
  for (const std::string& line : tagged()) EXPECT_EQ(0u, line.rfind("[DETAIL]", 0)) << line;
}

TEST_F(FileOpsTest, DeleteOfAMissingFolderLogsItAndReturnsZero) {
  EXPECT_EQ(0, DeleteDir(In("missing")));
  EXPECT_EQ((Lines{"[ERROR] Delete dir failed", "[ERROR] " + In("missing")}), tagged());
}

TEST_F(FileOpsTest, ExistenceOfFilesAndFoldersWithTheErrorNumberWhenMissing) {
  Put("here.txt", "x");
  struct Case {
    std::string path;
    bool exists;
    int error;
  };
  for (const Case& c : {Case{In("here.txt"), true, 0}, Case{dir_, true, 0},
                        Case{In("gone.txt"), false, 2}, Case{In("no\\such\\file"), false, 3}}) {
    SCOPED_TRACE(c.path);
    ClearLog();
    EXPECT_EQ(c.exists, IsFileExist(c.path));
    const Lines expected = c.exists ? Lines{}
                                    : Lines{"[ERROR] " + c.path + " file is not exist error=" +
                                            std::to_string(c.error)};
    EXPECT_EQ(expected, tagged());
  }
}

TEST_F(FileOpsTest, MakeFoldersCreatesEachLevelBeforeABackslashOrSlash) {
  MakeFolders(In("m/one\\two/three\\not-made"));
  MakeFolders(In("m\\one\\"));  // existing folders are no failure
  EXPECT_EQ((Lines{"m/", "m/one/", "m/one/two/", "m/one/two/three/"}), TreeOf(dir_, {"Dorvane.log"}));
}

class ProcessTest : public FileOpsTest {
 protected:
  static std::string Cmd() {
    char system[MAX_PATH];
    const UINT n = ::GetSystemDirectoryA(system, MAX_PATH);
    return std::string(system, n) + "\\cmd.exe";
  }
};

TEST_F(ProcessTest, ReturnsTheExitCodeOfTheProgram) {
  EXPECT_EQ(3, RunProcess(Cmd(), "cmd.exe /c exit 3", kShowDefault));
  EXPECT_EQ(0, RunProcess(Cmd(), "cmd.exe /c exit 0", kShowDefault));
  EXPECT_EQ(Lines{}, messages());
}

TEST_F(ProcessTest, AProgramThatCannotStartGivesMinus999) {
  EXPECT_EQ(-999, RunProcess(In("missing.exe"), "", kShowDefault));
  EXPECT_EQ(Lines{"[ERROR] Create process failed"}, tagged());
}

TEST_F(ProcessTest, BatchFileRunsInItsOwnFolderWithAnEmptyCommandLine) {
  MakeDir("bin");
  Put("bin\\where.bat", "@cd > where.txt\r\n@exit /b 7\r\n");
  EXPECT_EQ(7, RunProcess(In("bin\\where.bat"), "", kShowDefault));
  EXPECT_EQ(In("bin") + "\r\n", Read("bin\\where.txt"));
}

}  // namespace
}  // namespace dorvane
