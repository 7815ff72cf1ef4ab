// Folder copy and deletion, the existence test, folder chains and processes.
#include "util/file_ops.h"

#include <gtest/gtest.h>

#include <windows.h>
#include <winioctl.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "support/links.h"
#include "support/log_reader.h"
#include "support/tree.h"
#include "util/process.h"
#include "util/scoped_handle.h"

namespace dorvane {
namespace {

using testing::FileExists;
using testing::IsLinkAt;
using testing::ListedAttributes;
using testing::MakeUnixLink;
using testing::ReadFileBytes;
using testing::TreeOf;
using testing::UnderWine;
using testing::Wide;
using testing::WriteFileBytes;

using Lines = std::vector<std::string>;

bool IsFolder(const std::string& path) {
  const DWORD attributes = ::GetFileAttributesA(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

// Windows links for the deletion tests (see links.h for Wine's).

// True when a symbolic link now exists at `link`.
bool MakeSymbolicLink(const std::string& link, const std::string& target, DWORD flags) {
  ::CreateSymbolicLinkA(link.c_str(), target.c_str(),
                        flags | SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE);
  return IsLinkAt(link);
}

// Makes `link` a new folder and then a junction to `target`; 0 or the error.
DWORD MakeJunction(const std::string& link, const std::string& target) {
  if (!::CreateDirectoryA(link.c_str(), nullptr)) return ::GetLastError();
  UniqueHandle folder(::CreateFileA(link.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT,
                                    nullptr));
  if (!folder) return ::GetLastError();
  // Mount-point data: the NT name of the target, then the name shown for it,
  // each followed by a terminator that the lengths leave out.
  const std::wstring names = L"\\??\\" + Wide(target) + L'\0' + Wide(target) + L'\0';
  const WORD substitute = static_cast<WORD>((target.size() + 4) * sizeof(wchar_t));
  const WORD print = static_cast<WORD>(target.size() * sizeof(wchar_t));
  const WORD fields[] = {0, substitute, static_cast<WORD>(substitute + sizeof(wchar_t)), print};
  const WORD data_length = static_cast<WORD>(sizeof fields + names.size() * sizeof(wchar_t));
  std::string data(8 + data_length, '\0');
  const DWORD tag = IO_REPARSE_TAG_MOUNT_POINT;
  std::memcpy(&data[0], &tag, 4);
  std::memcpy(&data[4], &data_length, 2);
  std::memcpy(&data[8], fields, sizeof fields);
  std::memcpy(&data[8 + sizeof fields], names.data(), names.size() * sizeof(wchar_t));
  DWORD returned = 0;
  if (!::DeviceIoControl(folder.get(), FSCTL_SET_REPARSE_POINT, data.data(),
                         static_cast<DWORD>(data.size()), nullptr, 0, &returned, nullptr)) {
    return ::GetLastError();
  }
  return 0;
}

class FileOpsTest : public testing::LogFixture {
 protected:
  void MakeDir(const std::string& relative) { ::CreateDirectoryA(In(relative).c_str(), nullptr); }
  void Put(const std::string& relative, const std::string& text) { WriteFileBytes(In(relative), text); }
  std::string Read(const std::string& relative) const { return ReadFileBytes(In(relative)); }

  // "outside": the folder the links point to, with a file and a sub-folder.
  void MakeOutside() {
    MakeDir("outside");
    MakeDir("outside\\deep");
    Put("outside\\f.txt", "target");
    Put("outside\\deep\\g.txt", "deep");
  }
  void ExpectOutsideIntact() const {
    EXPECT_EQ((Lines{"deep/", "deep/g.txt", "f.txt"}), TreeOf(In("outside")));
    EXPECT_EQ("target", Read("outside\\f.txt"));
    EXPECT_EQ("deep", Read("outside\\deep\\g.txt"));
  }

  // Under Wine, checks that it made none of the Windows links asked for and
  // returns true: the caller's remaining checks need real links.
  static bool WineMadeNoWindowsLinks(bool symbolic_link, DWORD junction_error) {
    if (!UnderWine()) return false;
    EXPECT_FALSE(symbolic_link) << "this Wine makes symbolic links: test them here";
    EXPECT_EQ(static_cast<DWORD>(ERROR_NOT_SUPPORTED), junction_error);
    return true;
  }
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

// Links on either side (Unix symbolic links, as Wine makes them): a folder link
// in the source would be written through by the nested call, one in the
// destination read through, and a file link in the destination written
// through. Each is skipped and named, or, for the file link that Wine does
// not show as one, replaced.
TEST_F(FileOpsTest, CopyNeitherEntersNorWritesThroughLinksOnEitherSide) {
  if (!UnderWine()) GTEST_SKIP() << "the links are Unix symbolic links";
  MakeOutside();
  for (const char* d : {"src", "src\\S", "dst", "dst\\lnk"}) MakeDir(d);
  Put("src\\a.txt", "a");
  Put("src\\to-file", "new");
  Put("dst\\lnk\\pwn.txt", "pwn");
  ASSERT_TRUE(MakeUnixLink(In("src\\lnk"), In("outside")));
  ASSERT_TRUE(MakeUnixLink(In("dst\\S"), In("outside\\deep")));
  ASSERT_TRUE(MakeUnixLink(In("dst\\to-file"), In("outside\\f.txt")));

  EXPECT_EQ(1, CopyFileInDir(In("dst"), In("src")));
  ExpectOutsideIntact();
  EXPECT_EQ("a", Read("dst\\a.txt"));
  EXPECT_EQ("new", Read("dst\\to-file"));
  EXPECT_EQ(Lines{}, TreeOf(In("src\\S"))) << "nothing read through the destination's link";
  Lines skipped;
  for (const std::string& line : tagged()) {
    if (line.rfind("[DETAIL]", 0) != 0) skipped.push_back(line);
  }
  std::sort(skipped.begin(), skipped.end());
  EXPECT_EQ((Lines{"[WARNING] CopyFileInDir skipped link " + In("dst\\S"),
                   "[WARNING] CopyFileInDir skipped link " + In("src\\lnk")}),
            skipped) << "and no failed copy";
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

TEST_F(FileOpsTest, DeleteRemovesLinksAndJunctionsButNothingTheyPointTo) {
  MakeOutside();
  for (const char* d : {"a", "a\\b"}) MakeDir(d);
  Put("a\\top.txt", "1");
  const bool links =
      MakeSymbolicLink(In("a\\to-outside"), In("outside"), SYMBOLIC_LINK_FLAG_DIRECTORY) &&
      MakeSymbolicLink(In("a\\to-file"), In("outside\\f.txt"), 0);
  const DWORD junction = MakeJunction(In("a\\b\\junction"), In("outside\\deep"));
  if (WineMadeNoWindowsLinks(links, junction)) return;
  ASSERT_TRUE(links);
  ASSERT_EQ(0u, junction);

  EXPECT_EQ(1, DeleteDir(In("a")));
  EXPECT_FALSE(FileExists(In("a")));
  ExpectOutsideIntact();
  EXPECT_EQ((Lines{"[DETAIL]" + In("a\\b")}), tagged()) << "links are not logged as folders";
}

TEST_F(FileOpsTest, DeleteOfALinkOrJunctionRemovesOnlyTheLink) {
  MakeOutside();
  const bool link = MakeSymbolicLink(In("link"), In("outside"), SYMBOLIC_LINK_FLAG_DIRECTORY);
  const DWORD junction = MakeJunction(In("junction"), In("outside"));
  if (WineMadeNoWindowsLinks(link, junction)) return;
  ASSERT_TRUE(link);
  ASSERT_EQ(0u, junction);

  EXPECT_EQ(1, DeleteDir(In("link")));
  EXPECT_EQ(1, DeleteDir(In("junction")));
  EXPECT_FALSE(FileExists(In("link")));
  EXPECT_FALSE(FileExists(In("junction")));
  ExpectOutsideIntact();
  EXPECT_EQ(Lines{}, tagged());
}

// Wine lists a Unix symbolic link to a folder with the reparse-point attribute,
// so DeleteDir does not enter it. But Wine follows such a link whatever the open
// flags, and RemoveDirectoryA by its name removes an empty target folder: no
// Win32 call removes the link alone, so it stays, and so do the folders that
// hold it. What matters is that nothing it points to is touched.
TEST_F(FileOpsTest, DeleteLeavesWhatUnixLinksPointToUnderWine) {
  if (!UnderWine()) GTEST_SKIP() << "Unix symbolic links exist only under Wine";
  MakeOutside();
  for (const char* d : {"empty", "a", "a\\b"}) MakeDir(d);
  Put("a\\top.txt", "1");
  Put("a\\b\\x.txt", "2");
  ASSERT_TRUE(MakeUnixLink(In("a\\to-outside"), In("outside")));
  ASSERT_TRUE(MakeUnixLink(In("a\\to-empty"), In("empty")));
  ASSERT_TRUE(MakeUnixLink(In("a\\b\\to-deep"), In("outside\\deep")));
  EXPECT_NE(0u, ListedAttributes(In("a\\to-outside")) & FILE_ATTRIBUTE_REPARSE_POINT);

  EXPECT_EQ(0, DeleteDir(In("a")));
  ExpectOutsideIntact();
  EXPECT_TRUE(IsFolder(In("empty")));
  EXPECT_FALSE(FileExists(In("a\\top.txt")));
  EXPECT_FALSE(FileExists(In("a\\b\\x.txt")));
  for (const char* link : {"a\\to-outside", "a\\to-empty", "a\\b\\to-deep"}) {
    EXPECT_TRUE(IsLinkAt(In(link))) << link;
  }
  EXPECT_EQ((Lines{"[DETAIL]" + In("a\\b"), "[ERROR] Delete dir failed", "[ERROR] " + In("a\\b"),
                   "[ERROR] Delete dir failed", "[ERROR] " + In("a")}),
            tagged());
}

TEST_F(FileOpsTest, DeleteOfAUnixLinkLeavesItsTargetUnderWine) {
  if (!UnderWine()) GTEST_SKIP() << "Unix symbolic links exist only under Wine";
  MakeOutside();
  MakeDir("empty");
  ASSERT_TRUE(MakeUnixLink(In("link"), In("outside")));
  ASSERT_TRUE(MakeUnixLink(In("to-empty"), In("empty")));

  EXPECT_EQ(0, DeleteDir(In("link")));
  EXPECT_EQ(0, DeleteDir(In("to-empty")));
  ExpectOutsideIntact();
  EXPECT_TRUE(IsFolder(In("empty")));
  EXPECT_TRUE(IsLinkAt(In("link")));
  EXPECT_TRUE(IsLinkAt(In("to-empty")));
  EXPECT_EQ((Lines{"[ERROR] Delete dir failed", "[ERROR] " + In("link"),
                   "[ERROR] Delete dir failed", "[ERROR] " + In("to-empty")}),
            tagged());
}

// Wine lists a Unix symbolic link to a file as a plain file, without the
// reparse-point attribute, and its DeleteFileA by the link's name deletes the
// target: DeleteDir cannot tell such a link from a file there. (On Windows a file
// link carries the attribute, and DeleteFileA removes the link alone.)
TEST_F(FileOpsTest, UnixLinkToAFileIsTakenForTheFileUnderWine) {
  if (!UnderWine()) GTEST_SKIP() << "Unix symbolic links exist only under Wine";
  MakeOutside();
  MakeDir("a");
  ASSERT_TRUE(MakeUnixLink(In("a\\to-file"), In("outside\\f.txt")));
  EXPECT_EQ(0u, ListedAttributes(In("a\\to-file")) & FILE_ATTRIBUTE_REPARSE_POINT);

  EXPECT_EQ(0, DeleteDir(In("a")));
  EXPECT_FALSE(FileExists(In("outside\\f.txt"))) << "Wine deleted through the link";
  EXPECT_EQ("deep", Read("outside\\deep\\g.txt"));
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
