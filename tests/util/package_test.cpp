// Unpacking packages into folders, and the USB driver installation with fake
// batch files in the installation's fixed folder.
#include "util/package.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/log_reader.h"
#include "support/tree.h"
#include "support/zip_builder.h"
#include "util/file_ops.h"
#include "util/zip_reader.h"

namespace dorvane {
namespace {

using testing::BuildZip;
using testing::TreeOf;
using testing::WriteFileBytes;

using Lines = std::vector<std::string>;

class PackageTest : public testing::LogFixture {
 protected:
  // A package with one file, written to `relative`.
  std::string OneFilePackage(const std::string& relative) {
    MakeFolders(In(relative));
    WriteFileBytes(In(relative), BuildZip({{"x.txt", "x"}}));
    return In(relative);
  }
};

TEST_F(PackageTest, MissingPackageIsLoggedAndNothingIsMade) {
  ::CreateDirectoryA(In("pkg").c_str(), nullptr);
  EXPECT_EQ(0, UnzipPackage(In("pkg\\"), "fw.zip", In("out\\"), "sub"));
  const std::string package = In("pkg\\fw.zip");
  EXPECT_EQ((Lines{"[ERROR] " + package + " file is not exist error=2",
                   "[ERROR] Unzip Package not exist.", "[ERROR] " + package}),
            tagged());
  EXPECT_EQ((Lines{"pkg/"}), TreeOf(dir_, {"Dorvane.log"}));
}

TEST_F(PackageTest, TargetIsFolderPlusSubFolderPlusBackslashAsGiven) {
  OneFilePackage("pkg\\fw.zip");
  struct Case {
    std::string target;
    Lines tree;
  };
  // Without a trailing backslash the sub-folder name runs into the last folder's.
  for (const Case& c : {Case{"a\\b", {"a/", "a/bc/", "a/bc/x.txt"}},
                        Case{"a\\b\\", {"a/", "a/b/", "a/b/c/", "a/b/c/x.txt"}}}) {
    SCOPED_TRACE(c.target);
    testing::RemoveTree(In("a"));
    EXPECT_EQ(1, UnzipPackage(In("pkg\\"), "fw.zip", In(c.target), "c"));
    EXPECT_EQ(c.tree, TreeOf(dir_, {"Dorvane.log", "pkg"}));
  }
  EXPECT_EQ(Lines{}, messages());
}

TEST_F(PackageTest, MissingArchiveIsLoggedWithItsErrorNumber) {
  EXPECT_EQ(0, UnzipAllItems(In("out\\"), In("none.zip")));
  EXPECT_EQ((Lines{"[ERROR] " + In("none.zip") + " file is not exist error=2",
                   "[ERROR] unZip file not exist."}),
            tagged());
}

TEST_F(PackageTest, DataInFrontOfAnArchiveIsSaidOnceAndTheArchiveUnpacks) {
  const std::string archive = In("stub.zip");
  WriteFileBytes(archive, std::string("MZ self-extracting stub") + std::string(1001, '\0') +
                              BuildZip({{"a.txt", "first"}, {"b/c.txt", "second"}}));
  EXPECT_EQ(1, UnzipAllItems(In("out\\"), archive));
  EXPECT_EQ("first", testing::ReadFileBytes(In("out\\a.txt")));
  EXPECT_EQ("second", testing::ReadFileBytes(In("out\\b\\c.txt")));
  EXPECT_EQ((Lines{"[WARNING] " + archive + ": 1024 bytes of data precede the zip archive"}),
            tagged());
}

TEST_F(PackageTest, UnlistableArchiveIsLoggedReturnsOneAndIsClosed) {
  const std::string archive = In("bad.zip");
  WriteFileBytes(archive, "not a zip file at all");
  {
    // While the reader holds the archive it cannot be deleted, which is what
    // shows below that UnzipAllItems let it go.
    ZipHandle open = OpenZip(archive.c_str());
    EXPECT_FALSE(::DeleteFileA(archive.c_str()));
    CloseZip(open);
  }
  EXPECT_EQ(1, UnzipAllItems(In("out\\"), archive));
  EXPECT_EQ(Lines{"[ERROR] GetZipItem failed."}, tagged());
  EXPECT_TRUE(::DeleteFileA(archive.c_str()));
}

TEST_F(PackageTest, EntryNamesLandWhereTheNameRulesPutThem) {
  WriteFileBytes(In("names.zip"), BuildZip({{"..\\..\\up.txt", "1"},
                                            {"C:\\drive.txt", "2"},
                                            {"/abs.txt", "3"},
                                            {"\\\\server\\share.txt", "4"},
                                            {"ok/inner.txt", "5"},
                                            {"d/../../x", "would land one level up"}}));
  EXPECT_EQ(1, UnzipAllItems(In("box\\target\\"), In("names.zip")));
  // "d/../../x" is handed out as "../x" and refused at unpacking: nothing
  // leaves the target.
  EXPECT_EQ((Lines{"box/", "box/target/", "box/target/abs.txt", "box/target/drive.txt",
                   "box/target/ok/", "box/target/ok/inner.txt", "box/target/server/",
                   "box/target/server/share.txt", "box/target/up.txt", "names.zip"}),
            TreeOf(dir_, {"Dorvane.log"}));
}

TEST_F(PackageTest, NamesAndOutputPathsAreCutAt259Characters) {
  const std::string name = std::string(100, 'd') + "/" + std::string(199, 'f');
  WriteFileBytes(In("long.zip"), BuildZip({{name, "cut"}}));
  ZipHandle zip = OpenZip(In("long.zip").c_str());
  ZipEntry entry;
  ASSERT_EQ(kZipOk, GetZipItem(zip, 0, &entry));
  EXPECT_EQ(name.substr(0, 259), entry.name);
  CloseZip(zip);
  EXPECT_EQ(1, UnzipAllItems(In("t\\"), In("long.zip")));
  EXPECT_EQ("cut", testing::ReadFileBytes((In("t\\") + name).substr(0, 259)));
}

TEST_F(PackageTest, AFailingEntryDoesNotStopTheOthers) {
  testing::ZipLayout at;
  std::string bytes = BuildZip({{"first.txt", "1"}, {"broken.txt", "2"}, {"last.txt", "3"}}, false, &at);
  bytes[at.local[1]] = 'X';
  WriteFileBytes(In("p.zip"), bytes);
  EXPECT_EQ(1, UnzipAllItems(In("out\\"), In("p.zip")));
  EXPECT_EQ((Lines{"out/", "out/first.txt", "out/last.txt"}), TreeOf(dir_, {"Dorvane.log", "p.zip"}));
  EXPECT_EQ(Lines{}, messages());
}

// The installation's fixed driver folder, emptied before and after each test.
class UsbDriverTest : public PackageTest {
 protected:
  static constexpr char kRoot[] = "C:\\Windows\\WWAN\\FwSwitchBin";
  void SetUp() override {
    PackageTest::SetUp();
    testing::RemoveTree(kRoot);
  }
  void TearDown() override { testing::RemoveTree(kRoot); }
  static std::string Base(const std::string& relative = "") { return kUsbDriverFolder + relative; }
  static void Put(const std::string& relative, const std::string& text) {
    MakeFolders(Base(relative));
    WriteFileBytes(Base(relative), text);
  }
  // Batch files that record, in the folder they run in, that they ran and
  // whether the driver files were there at that moment.
  static void PutBatches() {
    Put("Uninstall_Inf.bat", "@echo off\r\necho uninstall>>order.txt\r\n"
                             "if exist drv.inf echo uninstall-saw-drv>>order.txt\r\n");
    Put("Install_Inf.bat", "@echo off\r\necho install>>order.txt\r\n"
                           "if exist drv.inf echo install-saw-drv>>order.txt\r\n");
  }
};

TEST_F(UsbDriverTest, WithoutTheUninstallBatchNothingRuns) {
  Put("Install_Inf.bat", "@echo install>>order.txt\r\n");
  ::DeleteFileA(Base("Uninstall_Inf.bat").c_str());
  EXPECT_EQ(0, InstallUSBDriver());
  EXPECT_EQ((Lines{"[DETAIL]InstallUSBDriver enter.",
                   "[ERROR] " + Base("Uninstall_Inf.bat") + " file is not exist error=2",
                   "[ERROR] USBDriver not exist."}),
            tagged());
  EXPECT_EQ((Lines{"Install_Inf.bat"}), TreeOf(Base()));
}

TEST_F(UsbDriverTest, UninstallsCopiesTheNativeArchitectureAndInstallsInThatOrder) {
  PutBatches();
  Put("x64\\drv.inf", "inf");
  Put("x64\\drv.sys", "sys");
  Put("x86\\other.inf", "not this one");
  EXPECT_EQ(1, InstallUSBDriver());
  EXPECT_EQ("uninstall\r\ninstall\r\ninstall-saw-drv\r\n", testing::ReadFileBytes(Base("order.txt")));
  EXPECT_EQ((Lines{"Install_Inf.bat", "Uninstall_Inf.bat", "drv.inf", "drv.sys", "order.txt",
                   "x64/", "x64/drv.inf", "x64/drv.sys", "x86/", "x86/other.inf"}),
            TreeOf(Base()));

  Lines msgs = messages();
  ASSERT_EQ(7u, msgs.size());
  std::sort(msgs.begin() + 5, msgs.end());
  // The source keeps its trailing backslash, so its items have two.
  EXPECT_EQ((Lines{"InstallUSBDriver enter.", Base("x64\\"), "CopyFileInDir enter.", Base("x64\\"),
                   Base(), Base("x64\\\\drv.inf"), Base("x64\\\\drv.sys")}),
            msgs);
}

TEST_F(UsbDriverTest, InstallBatchIsRunEvenWhenThereIsNothingToCopy) {
  Put("Uninstall_Inf.bat", "@echo uninstall>>order.txt\r\n");
  EXPECT_EQ(1, InstallUSBDriver());
  EXPECT_EQ("uninstall\r\n", testing::ReadFileBytes(Base("order.txt")));
  const Lines lines = tagged();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ("[ERROR] Create process failed", lines.back()) << "Install_Inf.bat is missing";
}

}  // namespace
}  // namespace dorvane
