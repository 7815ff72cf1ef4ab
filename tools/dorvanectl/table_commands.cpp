// dorvanectl's table commands: one subcommand per lookup of the configuration
// tables, arguments in the lookup's own order.
#include <windows.h>

#include <cstdio>
#include <functional>
#include <future>
#include <limits>
#include <thread>

#include "config/carrier_rules.h"
#include "config/esim_region.h"
#include "config/firmware_info.h"
#include "config/scatter.h"
#include "config/table_reader.h"
#include "tools/dorvanectl/ctl.h"

namespace dorvane::ctl {

namespace {

const char* const kCarrierFieldNames[CarrierFirmwareInfo::kFieldCount] = {
    "carrier id", "carrier version", "image file", "image version", "cust pack file",
    "cust pack version", "reserved", "AP file", "AP version", "AP type", "AP count",
    "MD file", "MD version", "MD type", "MD count", "OP file", "OP version", "OP type",
    "OP count", "PARAM/OEM file", "PARAM/OEM version", "PARAM/OEM type", "PARAM/OEM count",
    "switch table file"};
const char* const kPackageFieldNames[PackageFirmwareInfo::kFieldCount] = {
    "field 0", "field 1", "field 2", "field 3", "field 4", "firmware file", "firmware version",
    "cust pack file", "cust pack version"};

struct Args {
  std::string command;  // the subcommand's name, for messages
  std::string a, b, c;
  std::optional<std::string> sku, imsi;
  int timeout = 5;
};

// Runs `lookup` and gives up after the command's time limit: one lookup is
// known never to return for some keys, and a script must not hang on it.
// `cause`, asked only on a time-out, names why this call cannot return, or
// gives the empty text when it does not know.
template <typename T>
T Bounded(const Common& common, const Args& args, std::function<T()> lookup,
          std::function<std::string()> cause = nullptr) {
  std::packaged_task<T()> task(std::move(lookup));
  std::future<T> done = task.get_future();
  std::thread worker(std::move(task));
  if (done.wait_for(std::chrono::seconds(args.timeout)) != std::future_status::ready) {
    const std::string why = cause ? cause() : std::string();
    Fail(common, kGaveUp, args.command + " did not return within " + std::to_string(args.timeout) +
                              " s" + (why.empty() ? "" : ": ") + why);
    std::fflush(stdout);
    std::fflush(stderr);
    ::ExitProcess(kGaveUp);  // the walk goes on in its thread; only the process can end it
  }
  // Joined, not left running: the thread still unwinds after handing over its
  // result, and the process must not end (or tear down its statics) under it.
  worker.join();
  return done.get();
}

// Why param-firmware-by-sku cannot return for these keys: it only ever reads
// the table's first SKU_GUID and waits for ever when the keys are not there.
std::string SkuCause(const std::string& sku, const std::string& area, const std::string& path) {
  table::Document doc;
  if (!doc.Load(path)) return "";
  tinyxml2::XMLElement* first = table::Child(doc.Root(), "SKU_GUID");
  if (first == nullptr) return "";
  char text[512];
  if (!table::KeyIs(first, "ID", sku)) {
    for (tinyxml2::XMLElement* e = first->NextSiblingElement(); e; e = e->NextSiblingElement()) {
      if (table::KeyIs(e, "ID", sku)) {
        std::snprintf(text, sizeof text,
                      "SKU %s is under a later SKU_GUID (line %d), and the lookup only ever "
                      "reads the table's first SKU_GUID (line %d)",
                      sku.c_str(), e->GetLineNum(), first->GetLineNum());
        return text;
      }
    }
    std::snprintf(text, sizeof text,
                  "SKU %s is not in the table, and the lookup waits for it under the first "
                  "SKU_GUID (line %d) for ever",
                  sku.c_str(), first->GetLineNum());
    return text;
  }
  for (tinyxml2::XMLElement* e = table::FirstEntry(first, "Area"); e; e = table::NextEntry(e)) {
    if (table::KeyIs(e, "ID", area)) return "";  // found: it would have returned
  }
  std::snprintf(text, sizeof text,
                "the table's first SKU_GUID %s (line %d) has no Area %s, and the lookup waits "
                "for it for ever",
                sku.c_str(), first->GetLineNum(), area.c_str());
  return text;
}

template <size_t N>
nlohmann::json FieldArray(const std::array<std::string, N>& fields) {
  return TableTexts(std::vector<std::string>(fields.begin(), fields.end()));
}

// The fields keyed by the names the text form shows.
template <size_t N>
nlohmann::json FieldRecord(const std::array<std::string, N>& fields, const char* const* names) {
  nlohmann::json record = nlohmann::json::object();
  for (size_t i = 0; i < N; ++i) record[names[i]] = TableText(fields[i]);
  return record;
}

template <size_t N>
void PrintFields(const std::array<std::string, N>& fields, const char* const* names) {
  for (size_t i = 0; i < N; ++i) {
    std::printf("  %2zu %-18s %s\n", i, names[i], fields[i].c_str());
  }
}

int Finish(bool success) { return success ? kOk : kFailed; }

// A lookup with a string answer.
int ReportText(const Common& common, bool result, const std::string& output) {
  if (common.json) {
    PrintJson({{"result", result}, {"output", TableText(output)}});
  } else {
    std::printf("result: %s\noutput: %s\n", result ? "true" : "false", output.c_str());
  }
  return Finish(result);
}

int ReportCarrier(const Common& common, bool result, const CarrierFirmwareInfo& record) {
  if (common.json) {
    PrintJson({{"result", result},
               {"fields", FieldArray(record.fields)},
               {"record", FieldRecord(record.fields, kCarrierFieldNames)}});
  } else {
    std::printf("result: %s\nfields:\n", result ? "true" : "false");
    PrintFields(record.fields, kCarrierFieldNames);
  }
  return Finish(result);
}

CarrierFirmwareInfo PresetCarrier(const Common& common) {
  CarrierFirmwareInfo record;
  record.fields.fill(Initial(common));
  return record;
}

using Positionals = std::vector<std::pair<const char*, const char*>>;

// Adds a subcommand with positional arguments (name and description) stored in
// a, b, c in that order, that runs `run`; `options` may add options of its own.
void Add(CLI::App& app, Common& common, const char* name, const char* help,
         const Positionals& positionals, std::function<int(const Common&, const Args&)> run,
         std::function<void(CLI::App*, Args&)> options = nullptr) {
  auto args = std::make_shared<Args>();
  args->command = name;
  CLI::App* sub = app.add_subcommand(name, help);
  if (options) options(sub, *args);
  std::string* slots[] = {&args->a, &args->b, &args->c};
  for (size_t i = 0; i < positionals.size(); ++i) {
    sub->add_option(positionals[i].first, *slots[i], positionals[i].second)->required();
  }
  sub->add_option("--timeout", args->timeout, "give up after this many seconds (above 0)")
      ->transform(Number(1, std::numeric_limits<int>::max()))
      ->capture_default_str();
  sub->callback([&common, args, run] { common.exit_code = run(common, *args); });
}

const char kTablePath[] = "the table (XML file)";

int FwPackage(const Common& common, const Args& a) {
  // The lookup's own fall-back for an empty path.
  const std::string table = a.a.empty() ? std::string(kFwPackageInfoName) : a.a;
  if (!TableReadable(common, table,
                     a.a.empty() ? "an empty path reads FwPackageInfo.xml in the current folder" : "")) {
    return kUsageError;
  }
  FwPackageInfo package;
  package.SetPackageVer(Initial(common));
  package.SetPackageType(Initial(common));
  const bool result = Bounded<bool>(common, a, [&] { return GetFwPackageInfo(a.a, package); });
  if (common.json) {
    nlohmann::json carriers = nlohmann::json::array();
    nlohmann::json records = nlohmann::json::array();
    for (const auto& carrier : package.GetCarriers()) {
      carriers.push_back(FieldArray(carrier.fields));
      records.push_back(FieldRecord(carrier.fields, kCarrierFieldNames));
    }
    PrintJson({{"result", result},
               {"packageVer", TableText(package.GetPackageVer())},
               {"packageType", TableText(package.GetPackageType())},
               {"carriers", carriers},
               {"records", records}});
  } else {
    std::printf("result: %s\npackage version: %s\npackage type: %s\n", result ? "true" : "false",
                package.GetPackageVer().c_str(), package.GetPackageType().c_str());
    for (const auto& carrier : package.GetCarriers()) {
      std::printf("carrier:\n");
      PrintFields(carrier.fields, kCarrierFieldNames);
    }
  }
  return Finish(result);
}

int PackageInfo(const Common& common, const Args& a) {
  if (!TableReadable(common, a.b)) return kUsageError;
  PackageFirmwareInfo info;
  info.fields.fill(Initial(common));
  const bool result =
      Bounded<bool>(common, a, [&] { return GetPackageInfoFirmware(a.a, a.b, info); });
  if (common.json) {
    PrintJson({{"result", result},
               {"fields", FieldArray(info.fields)},
               {"record", FieldRecord(info.fields, kPackageFieldNames)}});
  } else {
    std::printf("result: %s\nfields:\n", result ? "true" : "false");
    PrintFields(info.fields, kPackageFieldNames);
  }
  return Finish(result);
}

int Esim(const Common& common, const Args& a) {
  if (!TableReadable(common, a.a)) return kUsageError;
  const DWORD result = Bounded<DWORD>(common, a, [&] {
    return getEsimDisableType(a.a, a.sku ? a.sku->c_str() : nullptr,
                              a.imsi ? a.imsi->c_str() : nullptr);
  });
  if (common.json) {
    PrintJson({{"result", result}});
  } else {
    std::printf("result: %lu (0x%lX)\n", static_cast<unsigned long>(result),
                static_cast<unsigned long>(result));
  }
  return Finish(result != kEsimNoDecision);
}

int Region(const Common& common, const Args& a) {
  if (!TableReadable(common, a.a)) return kUsageError;
  std::string region = Initial(common);
  const DWORD result =
      Bounded<DWORD>(common, a, [&] { return getRegulatoryByMcc(a.a, a.b, region); });
  if (common.json) {
    PrintJson({{"result", result}, {"output", TableText(region)}});
  } else {
    std::printf("result: %lu\noutput: %s\n", static_cast<unsigned long>(result), region.c_str());
  }
  return Finish(result != kRegionNotFound);
}

int Scatter(const Common& common, const Args& a) {
  const std::string table = std::string(kFlashDataFolder) + "\\" + kScatterName;
  if (!TableReadable(common, table, "the file update-scatter always rewrites")) return kUsageError;
  const bool result = Bounded<bool>(common, a, [&] { return UpdateScatterDownloadFlags(a.a); });
  return ReportResult(common, result, result);
}

}  // namespace

void AddTableCommands(CLI::App& app, Common& common) {
  // Lookups of a key in a table, in the lookup's order: key first.
  using Lookup = bool (*)(std::string, std::string, std::string&);
  auto text = [&](const char* name, const char* help, Positionals keys, Lookup lookup) {
    keys.push_back({"path", kTablePath});
    Add(app, common, name, help, keys, [lookup](const Common& c, const Args& a) {
      if (!TableReadable(c, a.b)) return static_cast<int>(kUsageError);
      std::string out = Initial(c);
      const bool result = Bounded<bool>(c, a, [&] { return lookup(a.a, a.b, out); });
      return ReportText(c, result, out);
    });
  };
  text("carrier-id-by-mccmnc", "carrier id of an MCC+MNC (true once the table is found)",
       {{"mccmnc", "the MCC and MNC as one text, for example 310260"}}, GetCarrierIdByMccmnc);
  text("carrier-id-by-mcc", "carrier id of an MCC", {{"mcc", "the MCC, for example 310"}},
       GetCarrierIdByMcc);
  text("carrier-id-by-iccid", "carrier id of an ICCID by the ICCID ranges",
       {{"iccid", "the SIM's ICCID"}}, GetCarrierIdByIccid);
  Add(app, common, "selection-rule-by-mcc", "reads the root SelectionRule (always false)",
      {{"mcc", "the MCC"}, {"path", kTablePath}}, [](const Common& c, const Args& a) {
        if (!TableReadable(c, a.b)) return static_cast<int>(kUsageError);
        const bool result = Bounded<bool>(c, a, [&] { return GetSelectionRuleByMcc(a.a, a.b); });
        return ReportResult(c, result, result);
      });

  using RecordLookup = bool (*)(std::string, std::string, CarrierFirmwareInfo&);
  auto record = [&](const char* name, const char* help, Positionals keys, RecordLookup lookup) {
    keys.push_back({"path", kTablePath});
    Add(app, common, name, help, keys, [lookup](const Common& c, const Args& a) {
      if (!TableReadable(c, a.b)) return static_cast<int>(kUsageError);
      CarrierFirmwareInfo r = PresetCarrier(c);
      const bool result = Bounded<bool>(c, a, [&] { return lookup(a.a, a.b, r); });
      return ReportCarrier(c, result, r);
    });
  };
  record("carrier-firmware", "AP, MD and OP firmware of a carrier",
         {{"carrier-id", "the carrier id, for example TMO"}}, GetCarrierFirmware);
  record("param-firmware-by-mcc", "parameter firmware of a registered MCC",
         {{"mcc", "the registered MCC"}}, GetParamFirmwareByMcc);
  record("oem-firmware-by-model", "OEM firmware and switch table of a customer model",
         {{"model-id", "the customer model's id"}}, GetOemFirmwareByModel);
  Add(app, common, "param-firmware-by-sku", "parameter firmware of a SKU and area",
      {{"sku-guid", "the SKU_GUID's ID"}, {"area", "the Area's ID"}, {"path", kTablePath}},
      [](const Common& c, const Args& a) {
        if (!TableReadable(c, a.c)) return static_cast<int>(kUsageError);
        CarrierFirmwareInfo r = PresetCarrier(c);
        const bool result =
            Bounded<bool>(c, a, [&] { return GetParamFirmwareBySku(a.a, a.b, a.c, r); },
                          [&a] { return SkuCause(a.a, a.b, a.c); });
        return ReportCarrier(c, result, r);
      });
  Add(app, common, "package-info-firmware", "firmware and cust pack of a carrier in package_info.xml",
      {{"carrier-id", "the carrier id (no match: the last default entry)"},
       {"path", "the package_info.xml to read"}},
      PackageInfo);
  Add(app, common, "fw-package-info", "version, type and carriers of FwPackageInfo.xml",
      {{"path", "the FwPackageInfo.xml to read (\"\": FwPackageInfo.xml in the current folder)"}},
      FwPackage);
  Add(app, common, "esim-disable-type",
      "eSIM disable type of a SKU and an IMSI text (either may be left out)",
      {{"path", "the eSIM-disable table (XML file)"}}, Esim, [](CLI::App* sub, Args& args) {
        sub->add_option("--sku", args.sku, "the SKU (left out: none)");
        sub->add_option("--imsi", args.imsi, "the IMSI or MCC+MNC text (left out: none)");
      });
  Add(app, common, "regulatory-by-mcc", "regulatory region of an MCC",
      {{"path", "the region table (XML file)"}, {"mcc", "the MCC"}}, Region);
  Add(app, common, "update-scatter",
      "rewrite the download flags of C:\\Windows\\WWAN\\FwSwitchBin\\FlashData\\scatter.xml",
      {{"selection", "the flag texts to set true, each between semicolons, for example \";true;\""}},
      Scatter);
}

}  // namespace dorvane::ctl
