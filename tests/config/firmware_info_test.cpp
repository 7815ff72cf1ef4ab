#include "config/firmware_info.h"

#include "config/table_test.h"

namespace dorvane {
namespace {

using testing::Preset;
using testing::Texts;
using F = CarrierFirmwareInfo;
using FirmwareTest = testing::TableTest;

template <class Record>
Texts Slice(const Record& r, int from, int to) { return Texts(r.fields.begin() + from, r.fields.begin() + to); }

TEST_F(FirmwareTest, CarrierFirmwareFillsTheThreeSlotsThenTheId) {
  const std::string path = Table(R"(<Firmwares><CarrierList>
    <Carrier><APFirmware File="no-id"/></Carrier>
    <Carrier id="TMO">
      <APFirmware File="ap.bin" Ver="1.0" Type="AP" Count="03"/>
      <MDFirmware File="md.bin" Ver="2.0" Type="MD" Count="1"/>
      <OPFirmware File="op.bin" Ver="3.0" Type="OP" Count="2"/>
    </Carrier>
    <Carrier id="TMO"><APFirmware File="second"/></Carrier>
    <Other id="ATT"><APFirmware File="att-ap" Ver="a" Type="t" Count="c"/></Other>
  </CarrierList></Firmwares>)");
  F r = Preset();
  ASSERT_TRUE(GetCarrierFirmware("TMO", path, r));
  EXPECT_EQ((Texts{"TMO", "x", "x", "x", "x", "x", "x",  // 0-6: only the id is written
                   "ap.bin", "1.0", "AP", "03",          // 7-10, Count kept as text
                   "md.bin", "2.0", "MD", "1", "op.bin", "3.0", "OP", "2", "x", "x", "x", "x", "x"}),
            Slice(r, 0, F::kFieldCount));
  // Another element after the first entry is an entry too; missing slot
  // elements and attributes give empty texts.
  r = Preset();
  ASSERT_TRUE(GetCarrierFirmware("ATT", path, r));
  EXPECT_EQ("ATT", r.fields[F::kCarrierId]);
  EXPECT_EQ((Texts{"att-ap", "a", "t", "c", "", "", "", "", "", "", "", ""}), Slice(r, F::kApSlot, F::kParamSlot));
  for (const char* key : {"tmo", "TMO ", "VZW", ""}) {
    r = Preset();
    EXPECT_FALSE(GetCarrierFirmware(key, path, r)) << key;
    EXPECT_EQ(Preset().fields, r.fields) << "untouched";
  }
}

TEST_F(FirmwareTest, PackageInfoFallsBackToTheLastDefault) {
  const std::string both = Table(R"(<P><CarrierList>
    <Carrier id="default"><Firmware File="d1.bin" Ver="d1"/><CustPack File="d1.pak" Ver="p1"/></Carrier>
    <Carrier id="310"><Firmware File="310.bin" Ver="3"/><CustPack File="310.pak" Ver="p3"/></Carrier>
    <Carrier id="310"><Firmware File="later.bin" Ver="9"/><CustPack File="later.pak" Ver="p9"/></Carrier>
    <Carrier id="default"><Firmware File="d2.bin" Ver="d2"/><CustPack File="d2.pak" Ver="p2"/></Carrier>
    <Carrier id="Default"><Firmware File="case.bin" Ver="c"/><CustPack File="c.pak" Ver="c"/></Carrier>
  </CarrierList></P>)");
  // No default, and a carrier without elements: emptied texts, still true.
  const std::string bare = Table(R"(<P><CarrierList><Carrier/><Carrier id="310"/></CarrierList></P>)");
  struct Case {
    const std::string* path;
    const char* key;
    Texts fields5to8;
  };
  const Case cases[] = {
      {&both, "310", {"310.bin", "3", "310.pak", "p3"}},  // exact, first of two
      {&both, "999", {"d2.bin", "d2", "d2.pak", "p2"}},   // the later default wins
      {&both, "DEFAULT", {"d2.bin", "d2", "d2.pak", "p2"}},
      {&bare, "310", {"", "", "", ""}}, {&bare, "999", {"", "", "", ""}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.key);
    PackageFirmwareInfo info;
    info.fields.fill("x");
    EXPECT_TRUE(GetPackageInfoFirmware(c.key, *c.path, info));
    EXPECT_EQ((Texts{"x", "x", "x", "x", "x"}), Slice(info, 0, 5));
    EXPECT_EQ(c.fields5to8, Slice(info, 5, PackageFirmwareInfo::kFieldCount));
  }
  EXPECT_TRUE(messages().empty());
}

TEST_F(FirmwareTest, ParamFirmwareByMccAndOemFirmwareByModel) {
  const std::string rules = Table(R"(<R><SwitchingRule><Registered/>
    <Registered mcc="310"><PARAMFirmware File="p310.bin" Ver="1" Type="PARAM" Count="07"/></Registered>
    <Registered mcc="310"><PARAMFirmware File="later" Ver="2" Type="T" Count="1"/></Registered>
  </SwitchingRule></R>)");
  F r = Preset();
  ASSERT_TRUE(GetParamFirmwareByMcc("310", rules, r));
  EXPECT_EQ((Texts{"p310.bin", "1", "PARAM", "07"}), Slice(r, F::kParamSlot, F::kSwitchTable));
  EXPECT_EQ("x", r.fields[F::kCarrierId]) << "only the slot is written";
  EXPECT_FALSE(GetParamFirmwareByMcc("31", rules, r));
  EXPECT_FALSE(GetParamFirmwareByMcc("", rules, r));

  const std::string models = Table(R"(<M><CarrierList>
    <CustModel id=""><OEMFirmware File="empty-id"/></CustModel>
    <CustModel id="X13"><OEMFirmware File="oem.bin" Ver="5" Type="OEM" Count="1"><Switch_table File="switch.xml"/></OEMFirmware></CustModel>
    <CustModel id="X14"><OEMFirmware File="oem14.bin" Ver="6" Type="OEM" Count="2"/><Switch_table File="beside.xml"/></CustModel>
    <CustModel id="X15"/>
  </CarrierList></M>)");
  struct Case {
    const char* model;
    Texts fields;  // carrier id, OEM slot's file, switch table
  };
  const Case cases[] = {
      {"X13", {"X13", "oem.bin", "switch.xml"}},
      {"X14", {"X14", "oem14.bin", "x"}},  // a switch table beside OEMFirmware is not seen
      {"X15", {"X15", "", "x"}},
      {"", {"x", "x", "x"}},  // an empty model id finds nothing, even with an empty id entry
  };
  for (const Case& c : cases) {
    r = Preset();
    EXPECT_EQ(c.fields[0] != "x", GetOemFirmwareByModel(c.model, models, r)) << c.model;
    EXPECT_EQ(c.fields, (Texts{r.fields[F::kCarrierId], r.fields[F::kParamSlot], r.fields[F::kSwitchTable]}));
  }
}

TEST_F(FirmwareTest, FwPackageInfoReplacesTheWholeObjectOnlyOnSuccess) {
  const std::string xml = R"(<Pkg><PackageVer> 1.2.3 </PackageVer><PackageType>FULL</PackageType><CarrierList>
    <Carrier id="TMO" ver="7"><FWImage file="fw.bin" ver="f1"/><CustPack file="cp.bin" ver="c1"/></Carrier>
    <Carrier id="ATT" ver="8"><FWImage file="fw2.bin" ver="f2"/></Carrier>
  </CarrierList></Pkg>)";
  FwPackageInfo package;
  package.SetPackageVer("old");
  package.AddCarrier(Preset());
  ASSERT_TRUE(GetFwPackageInfo(Table(xml), package));
  EXPECT_EQ(" 1.2.3 ", package.GetPackageVer());
  EXPECT_EQ("FULL", package.GetPackageType());
  const auto carriers = package.GetCarriers();
  ASSERT_EQ(2u, carriers.size()) << "the old list is replaced";
  EXPECT_EQ((Texts{"TMO", "7", "fw.bin", "f1", "cp.bin", "c1", ""}), Slice(carriers[0], 0, 7));
  EXPECT_EQ("", carriers[1].fields[F::kCustPackFile]);

  ASSERT_TRUE(GetFwPackageInfo(Table("<p><PackageVer/><PackageType/><CarrierList><Carrier/></CarrierList></p>"), package));
  EXPECT_EQ("", package.GetPackageVer()) << "an element without text reads as empty";
  EXPECT_EQ(1u, package.GetCarriers().size());
  FwPackageInfo kept;
  kept.SetPackageVer("kept");
  EXPECT_FALSE(GetFwPackageInfo(Table("<Pkg><PackageVer>9</PackageVer><CarrierList/></Pkg>"), kept));
  EXPECT_EQ("kept", kept.GetPackageVer());

  // An empty path reads FwPackageInfo.xml in the current folder.
  char cwd[MAX_PATH];
  ::GetCurrentDirectoryA(MAX_PATH, cwd);
  ::SetCurrentDirectoryA(dir_.c_str());
  WriteTable(xml, "FwPackageInfo.xml");
  FwPackageInfo from_cwd;
  EXPECT_TRUE(GetFwPackageInfo("", from_cwd));
  ::SetCurrentDirectoryA(cwd);
  EXPECT_EQ("FULL", from_cwd.GetPackageType());
}

const char kSkus[] = R"(<S>
  <SKU_GUID ID="SKU-A">
    <Area ID="EU"><PARAMFirmware File="eu.bin" Ver="1" Type="P" Count="1"/></Area>
    <Area/><Area ID="US"><PARAMFirmware File="us.bin" Ver="2" Type="P" Count="1"/></Area><Area ID="BARE"/>
  </SKU_GUID>
  <SKU_GUID ID="SKU-B"><Area ID="EU"><PARAMFirmware File="b.bin"/></Area></SKU_GUID>
</S>)";

TEST_F(FirmwareTest, ParamFirmwareBySkuFindsKeysUnderTheFirstSku) {
  const std::string path = Table(kSkus);
  F r = Preset();
  ASSERT_TRUE(GetParamFirmwareBySku("SKU-A", "US", path, r));
  EXPECT_EQ("us.bin", r.fields[F::kParamSlot]);
  ASSERT_TRUE(GetParamFirmwareBySku("SKU-A", "BARE", path, r));
  EXPECT_EQ("", r.fields[F::kParamSlot]);
  EXPECT_FALSE(GetParamFirmwareBySku("SKU-A", "US", Table("<S/>"), r));
}

// Runs in a child process: a lookup that never returns can only be ended with
// the process. Exits with 7 when the lookup is still waiting after 1.5 s and
// has used less than a tenth of that on the processor.
void LookUpSkuOnlyTheSecondHas(const std::string& path) {
  std::string* shared = new std::string(path);  // the thread outlives this frame
  HANDLE thread = ::CreateThread(
      nullptr, 0,
      [](void* p) -> DWORD {
        CarrierFirmwareInfo r;
        GetParamFirmwareBySku("SKU-B", "EU", *static_cast<std::string*>(p), r);
        ::ExitProcess(1);  // returned: wrong
      },
      shared, 0, nullptr);
  ::Sleep(1500);
  FILETIME created, ended, kernel, user;
  if (thread == nullptr || !::GetThreadTimes(thread, &created, &ended, &kernel, &user)) {
    ::ExitProcess(2);
  }
  auto ms = [](const FILETIME& t) {
    return ((static_cast<unsigned long long>(t.dwHighDateTime) << 32) | t.dwLowDateTime) / 10000;
  };
  ::ExitProcess(ms(kernel) + ms(user) < 150 ? 7 : 3);  // 3: it spins
}

TEST_F(FirmwareTest, ParamFirmwareBySkuNeverReturnsForALaterSkuAndCostsNoProcessorTime) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  char temp[MAX_PATH];
  ::GetTempPathA(MAX_PATH, temp);
  const std::string path = std::string(temp) + "dorvane-skus.xml";
  testing::WriteFileBytes(path, kSkus);
  EXPECT_EXIT(LookUpSkuOnlyTheSecondHas(path), ::testing::ExitedWithCode(7), "");
}

}  // namespace
}  // namespace dorvane
