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
#include "tools/dorvanectl/answer.h"
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

// A record's fields as "name: value" lines of the text form.
template <size_t N>
void FieldLines(Answer& answer, const std::array<std::string, N>& fields, const char* const* names) {
  for (size_t i = 0; i < N; ++i) answer.TextLine(names[i], Shown(fields[i]));
}

// Why a lookup gave false: the library's own error lines.
// Without a line of the library's, a lookup that gave false found no entry
// for its key.
std::string Why(const std::string& key) {
  return LoggedErrors().empty() && !key.empty() ? "nothing found for " + key
                                                 : LookupProblem("the lookup gave false");
}

// A lookup with a string answer.
int ReportText(const Common& common, const Args& args, bool result, const std::string& output) {
  return Answer(common, args.command)
      .Result(result)
      .TableField("output", output)
      .Finish(result, Why(args.a));
}

// A lookup with a record answer: its fields in record order, and keyed by name.
template <size_t N>
int ReportRecord(const Common& common, const Args& args, bool result,
                 const std::array<std::string, N>& fields, const char* const* names) {
  Answer answer(common, args.command);
  answer.Result(result)
      .JsonMember("fields", FieldArray(fields))
      .JsonMember("record", FieldRecord(fields, names));
  FieldLines(answer, fields, names);
  return answer.Finish(result, Why(args.a));
}

int ReportCarrier(const Common& common, const Args& args, bool result,
                  const CarrierFirmwareInfo& record) {
  return ReportRecord(common, args, result, record.fields, kCarrierFieldNames);
}

CarrierFirmwareInfo PresetCarrier(const Common& common) {
  CarrierFirmwareInfo record;
  record.fields.fill(Initial(common));
  return record;
}

using Positionals = std::vector<std::pair<const char*, const char*>>;

bool IsFile(const std::string& path) {
  const DWORD attributes = ::GetFileAttributesA(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

// A table path with nothing there while another argument names a file: the
// arguments are most likely in another order than the command takes them.
// The hint, or the empty text.
std::string SwappedHint(const Positionals& names, const Args& args) {
  const std::string* values[] = {&args.a, &args.b, &args.c};
  std::string order;
  for (size_t i = 0; i < names.size(); ++i) order += std::string(i ? " " : "") + names[i].first;
  for (size_t table = 0; table < names.size(); ++table) {
    if (std::string(names[table].first) != "path" || IsFile(*values[table]) ||
        ::GetFileAttributesA(values[table]->c_str()) != INVALID_FILE_ATTRIBUTES) {
      continue;
    }
    for (size_t other = 0; other < names.size(); ++other) {
      if (other == table || !IsFile(*values[other])) continue;
      return args.command + ": " + *values[table] + ": no such file, and " + *values[other] +
             ", given as " + names[other].first + ", is a file: the arguments are " + order +
             " (see 'dorvanectl help " + args.command + "')";
    }
  }
  return std::string();
}

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
  sub->add_option("--timeout", args->timeout,
                  "give up after this many seconds (above 0; default: 5)")
      ->transform(Number(1, std::numeric_limits<int>::max()))
      ->type_name("SECONDS");
  sub->callback([&common, args, run, positionals] {
    const std::string swapped = SwappedHint(positionals, *args);
    common.exit_code = swapped.empty() ? run(common, *args) : Fail(common, kUsageError, swapped);
  });
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
  nlohmann::json carriers = nlohmann::json::array();
  nlohmann::json records = nlohmann::json::array();
  for (const auto& carrier : package.GetCarriers()) {
    carriers.push_back(FieldArray(carrier.fields));
    records.push_back(FieldRecord(carrier.fields, kCarrierFieldNames));
  }
  Answer answer(common, a.command);
  answer.Result(result)
      .TableField("packageVer", package.GetPackageVer())
      .TableField("packageType", package.GetPackageType())
      .JsonMember("carriers", carriers)
      .JsonMember("records", records);
  size_t number = 0;
  for (const auto& carrier : package.GetCarriers()) {
    answer.TextLine("carrier", std::to_string(++number));
    FieldLines(answer, carrier.fields, kCarrierFieldNames);
  }
  return answer.Finish(result, Why(""));
}

int PackageInfo(const Common& common, const Args& a) {
  if (!TableReadable(common, a.b)) return kUsageError;
  PackageFirmwareInfo info;
  info.fields.fill(Initial(common));
  const bool result =
      Bounded<bool>(common, a, [&] { return GetPackageInfoFirmware(a.a, a.b, info); });
  return ReportRecord(common, a, result, info.fields, kPackageFieldNames);
}

// Why getEsimDisableType gave no decision, from the line it logged at the
// step that stopped it.
std::string EsimWhy() {
  static const struct {
    const char* line;
    const char* why;
  } kSteps[] = {
      {"SKU & Imsi is null", "neither --sku nor --imsi was given"},
      {"Esim disable xml load faild.", "the table cannot be loaded"},
      {"RootElement xml item error.", "the table has no root element"},
      {"TableEnableFlag xml item error.", "the table has no TableEnableFlag"},
      {"FlagValue is false,not need to set esim disable.",
       "the table is switched off (TableEnableFlag FlagValue is False)"},
      {"Main disable error.", "TableEnableFlag's FlagValue is neither True nor False"},
      {"SKU black xml item error.", "the table has no SKU_BlackList, which --sku needs"},
      {"IMSI black xml item error.", "the table has no IMSI_BlackList, which --imsi needs"},
  };
  for (const LoggedLine& line : LoggedLines()) {
    for (const auto& step : kSteps) {
      if (line.text == step.line) {
        return std::string("no decision (0xFFFFFFFF): ") + step.why + "; the log says: \"" +
               step.line + "\"";
      }
    }
  }
  return LookupProblem("no decision (0xFFFFFFFF)");
}

int Esim(const Common& common, const Args& a) {
  if (!TableReadable(common, a.a)) return kUsageError;
  const DWORD result = Bounded<DWORD>(common, a, [&] {
    return getEsimDisableType(a.a, a.sku ? a.sku->c_str() : nullptr,
                              a.imsi ? a.imsi->c_str() : nullptr);
  });
  char text[32];
  std::snprintf(text, sizeof text, "%lu (0x%lX)", static_cast<unsigned long>(result),
                static_cast<unsigned long>(result));
  return Answer(common, a.command).Result(result, text).Finish(result != kEsimNoDecision, EsimWhy());
}

int Region(const Common& common, const Args& a) {
  if (!TableReadable(common, a.a)) return kUsageError;
  std::string region = Initial(common);
  const DWORD result =
      Bounded<DWORD>(common, a, [&] { return getRegulatoryByMcc(a.a, a.b, region); });
  return Answer(common, a.command)
      .Result(result)
      .TableField("output", region)
      .Finish(result != kRegionNotFound,
              LookupProblem("no Region row for MCC " + a.b + " and no default row"));
}

int Scatter(const Common& common, const Args& a) {
  const std::string table = std::string(kFlashDataFolder) + "\\" + kScatterName;
  if (!TableReadable(common, table, "the file update-scatter always rewrites")) return kUsageError;
  const bool result = Bounded<bool>(common, a, [&] { return UpdateScatterDownloadFlags(a.a); });
  return Answer(common, a.command).Result(result).Finish(result, Why(""));
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
      return ReportText(c, a, result, out);
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
        return Answer(c, a.command)
            .Result(result)
            .Finish(result, LookupProblem("the lookup gives false for every key"));
      });

  using RecordLookup = bool (*)(std::string, std::string, CarrierFirmwareInfo&);
  auto record = [&](const char* name, const char* help, Positionals keys, RecordLookup lookup) {
    keys.push_back({"path", kTablePath});
    Add(app, common, name, help, keys, [lookup](const Common& c, const Args& a) {
      if (!TableReadable(c, a.b)) return static_cast<int>(kUsageError);
      CarrierFirmwareInfo r = PresetCarrier(c);
      const bool result = Bounded<bool>(c, a, [&] { return lookup(a.a, a.b, r); });
      return ReportCarrier(c, a, result, r);
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
        return ReportCarrier(c, a, result, r);
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
