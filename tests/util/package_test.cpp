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

using namespace testing;  // dorvane::testing
using Lines = std::vector<std::string>;
using PackageTest = LogFixture;

// A missing package or archive, and one that cannot be listed, are logged
// and make nothing; the unlistable one is let go (while the reader holds an
// archive, it cannot be deleted).
TEST_F(PackageTest, MissingOrUnlistableArchivesAreLoggedAndMakeNothing) {
  ::CreateDirectoryA(In("pkg").c_str(), nullptr);
  const std::string package = In("pkg\\fw.zip");
  EXPECT_EQ(0, UnzipPackage(In("pkg\\"), "fw.zip", In("out\\"), "sub"));
  EXPECT_EQ((Lines{"[ERROR] " + package + " file is not exist error=2", "[ERROR] Unzip Package not exist.",
                   "[ERROR] " + package}),
            tagged());
  ClearLog();
  EXPECT_EQ(0, UnzipAllItems(In("out\\"), package));
  EXPECT_EQ((Lines{"[ERROR] " + package + " file is not exist error=2", "[ERROR] unZip file not exist."}), tagged());
  ClearLog();
  WriteFileBytes(package, "not a zip file at all");
  ZipHandle open = OpenZip(package.c_str());
  EXPECT_FALSE(::DeleteFileA(package.c_str()));
  CloseZip(open);
  EXPECT_EQ(1, UnzipAllItems(In("out\\"), package));
  EXPECT_EQ(Lines{"[ERROR] GetZipItem failed."}, tagged());
  EXPECT_TRUE(::DeleteFileA(package.c_str()));
  EXPECT_EQ((Lines{"pkg/"}), TreeOf(dir_, {"Dorvane.log"}));
}

TEST_F(PackageTest, TargetIsFolderPlusSubFolderPlusBackslashAsGiven) {
  MakeFolders(In("pkg\\"));
  WriteFileBytes(In("pkg\\fw.zip"), BuildZip({{"x.txt", "x"}}));
  // Without a trailing backslash the sub-folder name runs into the last folder's.
  for (const auto& [target, tree] : {std::pair{"a\\b", Lines{"a/", "a/bc/", "a/bc/x.txt"}},
                                     std::pair{"a\\b\\", Lines{"a/", "a/b/", "a/b/c/", "a/b/c/x.txt"}}}) {
    SCOPED_TRACE(target);
    RemoveTree(In("a"));
    EXPECT_EQ(1, UnzipPackage(In("pkg\\"), "fw.zip", In(target), "c"));
    EXPECT_EQ(tree, TreeOf(dir_, {"Dorvane.log", "pkg"}));
  }
  EXPECT_EQ(Lines{}, messages());
}

// Data in front of an archive is said once. A name that would leave the
// target (here to replace the USB driver's batch files beside it, which the
// driver installation then runs) is refused, and so is a damaged entry:
// neither stops the others, neither is logged. (Where cleaned names land is
// asked natively.)
TEST_F(PackageTest, DataInFrontIsSaidOnceAndRefusedOrDamagedEntriesStopNothing) {
  ZipLayout at;
  const std::string stub = "MZ self-extracting stub" + std::string(1001, '\0');
  std::string bytes = stub + BuildZip({{"ok/inner.txt", "5"}, {"broken.txt", "6"}, {"../USBDriver/Install_Inf.bat", "x"},
                                       {"x/../../USBDriver/Uninstall_Inf.bat", "x"}, {"last.txt", "7"}}, false, &at);
  bytes[stub.size() + at.local[1]] = 'X';
  WriteFileBytes(In("names.zip"), bytes);
  MakeFolders(In("box\\USBDriver\\"));
  WriteFileBytes(In("box\\USBDriver\\Install_Inf.bat"), "@echo genuine");
  EXPECT_EQ(1, UnzipAllItems(In("box\\target\\"), In("names.zip")));
  EXPECT_EQ((Lines{"box/", "box/USBDriver/", "box/USBDriver/Install_Inf.bat", "box/target/", "box/target/last.txt",
                   "box/target/ok/", "box/target/ok/inner.txt", "names.zip"}),
            TreeOf(dir_, {"Dorvane.log"}));
  EXPECT_EQ("@echo genuine", ReadFileBytes(In("box\\USBDriver\\Install_Inf.bat")));
  EXPECT_EQ((Lines{"[WARNING] " + In("names.zip") + ": 1024 bytes of data precede the zip archive"}), tagged());
}

// The installation's fixed driver folder, emptied before and after.
class UsbDriverTest : public PackageTest {
 protected:
  void SetUp() override {
    PackageTest::SetUp();
    RemoveTree(kRoot);
  }
  void TearDown() override { RemoveTree(kRoot); }
  static constexpr char kRoot[] = "C:\\Windows\\WWAN\\FwSwitchBin";
  static std::string Base(const std::string& relative = "") { return kUsbDriverFolder + relative; }
  static void Put(const std::string& relative, const std::string& text) {
    MakeFolders(Base(relative));
    WriteFileBytes(Base(relative), text);
  }
};

// Batch files record, in the folder they run in, that they ran and whether
// the driver files were there at that moment.
TEST_F(UsbDriverTest, UninstallsCopiesTheNativeArchitectureAndInstallsInThatOrder) {
  Put("Install_Inf.bat", "@echo off\r\necho install>>order.txt\r\nif exist drv.inf echo install-saw-drv>>order.txt\r\n");
  EXPECT_EQ(0, InstallUSBDriver()) << "nothing runs without the uninstall batch";
  EXPECT_EQ((Lines{"[DETAIL]InstallUSBDriver enter.",
                   "[ERROR] " + Base("Uninstall_Inf.bat") + " file is not exist error=2", "[ERROR] USBDriver not exist."}),
            tagged());
  EXPECT_EQ((Lines{"Install_Inf.bat"}), TreeOf(Base()));

  ClearLog();
  Put("Uninstall_Inf.bat", "@echo off\r\necho uninstall>>order.txt\r\nif exist drv.inf echo uninstall-saw-drv>>order.txt\r\n");
  Put("x64\\drv.inf", "inf");
  Put("x64\\drv.sys", "sys");
  Put("x86\\other.inf", "not this one");
  EXPECT_EQ(1, InstallUSBDriver());
  EXPECT_EQ("uninstall\r\ninstall\r\ninstall-saw-drv\r\n", ReadFileBytes(Base("order.txt")));
  EXPECT_EQ((Lines{"Install_Inf.bat", "Uninstall_Inf.bat", "drv.inf", "drv.sys", "order.txt", "x64/", "x64/drv.inf",
                   "x64/drv.sys", "x86/", "x86/other.inf"}),
            TreeOf(Base()));
  Lines msgs = messages();
  ASSERT_EQ(7u, msgs.size());
  std::sort(msgs.begin() + 5, msgs.end());
  // The source keeps its trailing backslash, so its items have two.
  EXPECT_EQ((Lines{"InstallUSBDriver enter.", Base("x64\\"), "CopyFileInDir enter.", Base("x64\\"), Base(),
                   Base("x64\\\\drv.inf"), Base("x64\\\\drv.sys")}),
            msgs);

  // The install batch is run even when there is nothing to copy.
  RemoveTree(kRoot);
  ClearLog();
  Put("Uninstall_Inf.bat", "@echo uninstall>>order.txt\r\n");
  EXPECT_EQ(1, InstallUSBDriver());
  EXPECT_EQ("uninstall\r\n", ReadFileBytes(Base("order.txt")));
  ASSERT_FALSE(tagged().empty());
  EXPECT_EQ("[ERROR] Create process failed", tagged().back()) << "Install_Inf.bat is missing";
}

}  // namespace
}  // namespace dorvane
