// dorvanectl's registry and device-configuration commands.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "config/device_config.h"
#include "config/table_reader.h"
#include "tools/dorvanectl/answer.h"
#include "tools/dorvanectl/ctl.h"
#include "util/registry.h"

namespace dorvane::ctl {

namespace {

struct RegArgs {
  std::string key, name, value;
  DWORD number = 0;
  DWORD type = REG_DWORD;
  bool raw = false;
};

// The registry's value types, by the names regedit and reg.exe show.
struct TypeName {
  DWORD type;
  const char* name;
};
const TypeName kTypeNames[] = {
    {REG_NONE, "REG_NONE"},
    {REG_SZ, "REG_SZ"},
    {REG_EXPAND_SZ, "REG_EXPAND_SZ"},
    {REG_BINARY, "REG_BINARY"},
    {REG_DWORD, "REG_DWORD"},
    {REG_DWORD_BIG_ENDIAN, "REG_DWORD_BIG_ENDIAN"},
    {REG_LINK, "REG_LINK"},
    {REG_MULTI_SZ, "REG_MULTI_SZ"},
    {REG_RESOURCE_LIST, "REG_RESOURCE_LIST"},
    {REG_FULL_RESOURCE_DESCRIPTOR, "REG_FULL_RESOURCE_DESCRIPTOR"},
    {REG_RESOURCE_REQUIREMENTS_LIST, "REG_RESOURCE_REQUIREMENTS_LIST"},
    {REG_QWORD, "REG_QWORD"},
    {REG_DWORD_LITTLE_ENDIAN, "REG_DWORD_LITTLE_ENDIAN"},
    {REG_QWORD_LITTLE_ENDIAN, "REG_QWORD_LITTLE_ENDIAN"},
};

// "4 (REG_DWORD)", or the bare number of a type without a name.
std::string TypeText(DWORD type) {
  std::string text = std::to_string(type);
  for (const TypeName& t : kTypeNames) {
    if (t.type == type) return text + " (" + t.name + ")";
  }
  return text;
}

// --type: a value type by name (any case) or by number, handed on as its
// number. The numbers were the option's only form and stay accepted.
CLI::Validator ValueType() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        for (const TypeName& t : kTypeNames) {
          if (table::EqualsIgnoringCase(text, t.name)) {
            text = std::to_string(t.type);
            return std::string();
          }
        }
        uint64_t number = 0;
        if (ParseNumber(text, REG_NONE, REG_QWORD, &number)) {
          text = std::to_string(number);
          return std::string();
        }
        return "not a registry value type: " + text + " (REG_NONE, REG_SZ, REG_EXPAND_SZ, "
               "REG_BINARY, REG_DWORD, REG_DWORD_BIG_ENDIAN, REG_LINK, REG_MULTI_SZ, "
               "REG_RESOURCE_LIST, REG_FULL_RESOURCE_DESCRIPTOR, REG_RESOURCE_REQUIREMENTS_LIST, "
               "REG_QWORD, or their numbers 0 to 11)";
      },
      "");
}

const char kHive[] = "HKEY_LOCAL_MACHINE\\";

// Why a registry helper gave 1, from the step that failed and its error.
std::string RegistryProblem(const std::string& key, const std::string& name, bool writing) {
  const RegistryFailure failure = LastRegistryFailure();
  const std::string where = std::string(kHive) + key + " (32-bit view)";
  std::string why;
  if (failure.step == nullptr) {
    why = "it failed";
  } else if (std::string(failure.step) == "RegOpenKeyEx") {
    why = "the key " + where + " cannot be opened" + (writing ? " for writing" : "") + ": " +
          SystemText(failure.error);
    if (writing && failure.error == ERROR_FILE_NOT_FOUND) why += "; the key must exist, nothing is created";
  } else if (failure.error == ERROR_FILE_NOT_FOUND) {
    why = "the value " + name + " is not in " + where;
  } else if (failure.error == ERROR_MORE_DATA) {
    why = "the value " + name + " in " + where + " is longer than can be read" +
          (writing ? "" : " (text: 124 bytes; --raw: 4096 bytes)");
  } else {
    why = std::string(failure.step) + " of " + name + " in " + where + ": " + SystemText(failure.error);
  }
  // The helpers take a path under HKEY_LOCAL_MACHINE, not a full one.
  if (key.rfind("HKEY_", 0) == 0 || key.rfind("HKLM", 0) == 0 || key.rfind("hklm", 0) == 0) {
    why += " (the key is a path under HKEY_LOCAL_MACHINE, without the hive: SOFTWARE\\...)";
  }
  return why;
}

// The text form of a REG_DWORD: "16 (0x10)".
std::string DwordText(DWORD number) {
  char hex[16];
  std::snprintf(hex, sizeof hex, " (0x%lX)", static_cast<unsigned long>(number));
  return std::to_string(number) + hex;
}

// The types reg-get shows as text; any other is read raw.
bool IsTextType(DWORD type) { return type == REG_SZ || type == REG_EXPAND_SZ || type == REG_DWORD; }

int SetValue(const Common& common, const char* command, const RegArgs& a, DWORD result) {
  return Answer(common, command).Result(result).Finish(result == 0, RegistryProblem(a.key, a.name, true));
}

// A REG_DWORD read as text is its bytes up to the first zero: its number is
// read once more, raw, to show it.
bool ReadDword(const RegArgs& a, DWORD* number) {
  BYTE data[sizeof(DWORD)] = {};
  DWORD type = REG_DWORD;
  DWORD size = sizeof data;
  if (GetRegKeyValue(a.key, a.name, data, type, size) != 0 || type != REG_DWORD ||
      size != sizeof data) {
    return false;
  }
  std::memcpy(number, data, sizeof data);
  return true;
}

int RegGetText(const Common& common, const RegArgs& a) {
  DWORD type = REG_SZ;
  std::string value = Initial(common);
  const DWORD result = GetRegKeyValue(a.key, a.name, value, type);
  const std::string why = result == 0 ? "" : RegistryProblem(a.key, a.name, false);
  Answer answer(common, "reg-get");
  answer.Result(result).Value("type", type, TypeText(type));
  DWORD number = 0;
  if (result == 0 && type == REG_DWORD && ReadDword(a, &number)) {
    answer.Value("output", std::to_string(number), DwordText(number)).JsonMember("number", number);
  } else {
    answer.Field("output", value);
  }
  if (result == 0 && !IsTextType(type)) {
    answer.Failed("the value " + a.name + " is " + TypeText(type) + ", not text: read it with --raw");
  }
  return answer.Finish(result == 0, why);
}

int RegGet(const Common& common, const RegArgs& a) {
  if (!a.raw) return RegGetText(common, a);
  DWORD type = REG_SZ;
  std::vector<BYTE> data(4096);
  DWORD size = static_cast<DWORD>(data.size());
  const DWORD result = GetRegKeyValue(a.key, a.name, data.data(), type, size);
  std::string hex;
  if (result == 0) hex = HexBytes(data.data(), std::min<size_t>(size, data.size()));
  return Answer(common, "reg-get")
      .Result(result)
      .Value("type", type, TypeText(type))
      .Value("size", size)
      .Value("bytes", hex)
      .Finish(result == 0, result == 0 ? "" : RegistryProblem(a.key, a.name, false));
}

const char kKeyHelp[] = "key path under HKEY_LOCAL_MACHINE (32-bit view), for example SOFTWARE\\Vendor\\Product";

void AddRegistry(CLI::App& app, Common& common) {
  auto args = std::make_shared<RegArgs>();
  CLI::App* get = app.add_subcommand(
      "reg-get", "read a value under HKEY_LOCAL_MACHINE (32-bit view) as text (a REG_DWORD as its "
                 "number), or raw with --raw");
  get->add_option("key", args->key, kKeyHelp)->required();
  get->add_option("name", args->name, "value name")->required();
  get->add_flag("--raw", args->raw, "the value's type, size and bytes");
  get->callback([&common, args] { common.exit_code = RegGet(common, *args); });

  auto set_args = std::make_shared<RegArgs>();
  CLI::App* set = app.add_subcommand("reg-set", "write a string value (the key must exist)");
  set->add_option("key", set_args->key, kKeyHelp)->required();
  set->add_option("name", set_args->name, "value name")->required();
  set->add_option("value", set_args->value, "the text, stored as REG_SZ without a terminator")
      ->required();
  set->callback([&common, set_args] {
    const RegArgs& a = *set_args;
    common.exit_code = SetValue(common, "reg-set", a, SetRegKeyValue(a.key, a.name, a.value));
  });

  auto dword_args = std::make_shared<RegArgs>();
  CLI::App* dword = app.add_subcommand("reg-set-dword", "write a 4-byte value (the key must exist)");
  dword->add_option("key", dword_args->key, kKeyHelp)->required();
  dword->add_option("name", dword_args->name, "value name")->required();
  dword->add_option("value", dword_args->number,
                    "the number, 0 to 4294967295: decimal (a leading zero stays decimal), or hex "
                    "with 0x")
      ->transform(Number(0, 0xFFFFFFFFu))
      ->required();
  dword->add_option("--type", dword_args->type,
                    "the value type, by name (REG_DWORD, REG_BINARY, ...) or number (0 to 11) "
                    "(default: REG_DWORD)")
      ->transform(ValueType())
      ->type_name("TYPE");
  dword->callback([&common, dword_args] {
    const RegArgs& a = *dword_args;
    common.exit_code =
        SetValue(common, "reg-set-dword", a, SetRegKeyDword(a.key, a.name, a.number, a.type));
  });
}

void AddDeviceConfig(CLI::App& app, Common& common) {
  auto path = std::make_shared<std::string>();
  CLI::App* id = app.add_subcommand(
      "device-config-id", "the WWAN device configuration id from the device-configuration table");
  id->add_option("path", *path, "the device-configuration table (XML file)")->required();
  id->callback([&common, path] {
    if (!TableReadable(common, *path)) {
      common.exit_code = kUsageError;
      return;
    }
    std::string config_id = Initial(common);
    const bool result = getWwanDeviceConfigID(*path, config_id);
    common.exit_code = Answer(common, "device-config-id")
                           .Result(result)
                           .TableField("output", config_id)
                           .Finish(result, LookupProblem("no configuration id found"));
  });

  auto keys = std::make_shared<std::pair<std::string, std::string>>();
  CLI::App* pk = app.add_subcommand(
      "cfg-pk-info", "firmware of a configuration id and MCC, from C:\\Windows\\WWAN\\FwSwitchBin\\"
                     "SarAntData\\WwanDeviceIdImageMappingTable.xml");
  pk->add_option("config-id", keys->first, "the WWAN device configuration id (exact case)")->required();
  pk->add_option("mcc", keys->second, "the MCC (empty: nothing is looked up)")->required();
  pk->callback([&common, keys] {
    const std::string table =
        std::string(kFwSwitchBinFolder) + kSarAntDataFolder + "\\" + kImageMappingTableName;
    if (!TableReadable(common, table, "the table cfg-pk-info always reads")) {
      common.exit_code = kUsageError;
      return;
    }
    CfgPackageInfo info;
    info.texts.fill(Initial(common));
    const bool result = getCfgPkInfo(keys->first, keys->second, info);
    const std::vector<std::string> texts(info.texts.begin(), info.texts.end());
    static const char* const kNames[] = {"text 0", "text 1", "text 2", "file", "version", "type", "mcc"};
    nlohmann::json record = nlohmann::json::object();
    Answer answer(common, "cfg-pk-info");
    answer.Result(result);
    for (size_t i = 0; i < texts.size(); ++i) {
      record[kNames[i]] = Text(texts[i]);
      answer.TextLine(kNames[i], Shown(texts[i]));
    }
    record["count"] = info.count;
    answer.Value("count", info.count).JsonMember("fields", Texts(texts)).JsonMember("record", record);
    common.exit_code = answer.Finish(result, LookupProblem("no configuration package found"));
  });
}

}  // namespace

void AddRegistryCommands(CLI::App& app, Common& common) {
  AddRegistry(app, common);
  AddDeviceConfig(app, common);
}

}  // namespace dorvane::ctl
