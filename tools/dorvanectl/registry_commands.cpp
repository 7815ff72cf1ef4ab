// dorvanectl's registry and device-configuration commands.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "config/device_config.h"
#include "config/table_reader.h"
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

// Each byte as two hex digits and a blank, as the AT answer's hex looks for
// bytes below 0x80; a value's bytes have no reason to be widened as the
// answer's are.
std::string ByteHex(const BYTE* data, size_t size) {
  std::string hex;
  char byte[4];
  for (size_t i = 0; i < size; ++i) {
    std::snprintf(byte, sizeof byte, "%02X ", data[i]);
    hex += byte;
  }
  return hex;
}

int ReportHelper(const Common& common, DWORD result) { return ReportResult(common, result, result == 0); }

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
  nlohmann::json object = {{"result", result}, {"type", type}, {"output", Text(value)}};
  DWORD number = 0;
  if (result == 0 && type == REG_DWORD && ReadDword(a, &number)) {
    value = std::to_string(number);
    object["output"] = value;
    object["number"] = number;
    char hex[16];
    std::snprintf(hex, sizeof hex, " (0x%lX)", static_cast<unsigned long>(number));
    value += hex;
  }
  if (common.json) {
    PrintJson(object);
  } else {
    std::printf("result: %lu\ntype: %s\noutput: %s\n", static_cast<unsigned long>(result),
                TypeText(type).c_str(), value.c_str());
  }
  return result == 0 ? kOk : kFailed;
}

int RegGet(const Common& common, const RegArgs& a) {
  if (!a.raw) return RegGetText(common, a);
  DWORD type = REG_SZ;
  std::vector<BYTE> data(4096);
  DWORD size = static_cast<DWORD>(data.size());
  const DWORD result = GetRegKeyValue(a.key, a.name, data.data(), type, size);
  std::string hex;
  if (result == 0) hex = ByteHex(data.data(), std::min<size_t>(size, data.size()));
  if (common.json) {
    PrintJson({{"result", result}, {"type", type}, {"size", size}, {"bytes", hex}});
  } else {
    std::printf("result: %lu\ntype: %s\nsize: %lu\nbytes: %s\n", static_cast<unsigned long>(result),
                TypeText(type).c_str(), static_cast<unsigned long>(size), hex.c_str());
  }
  return result == 0 ? kOk : kFailed;
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
    common.exit_code = ReportHelper(common, SetRegKeyValue(set_args->key, set_args->name, set_args->value));
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
                    "the value type, by name (REG_DWORD, REG_BINARY, ...) or number (0 to 11)")
      ->transform(ValueType())
      ->capture_default_str();
  dword->callback([&common, dword_args] {
    const RegArgs& a = *dword_args;
    common.exit_code = ReportHelper(common, SetRegKeyDword(a.key, a.name, a.number, a.type));
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
    if (common.json) {
      PrintJson({{"result", result}, {"output", Text(config_id)}});
    } else {
      std::printf("result: %s\noutput: %s\n", result ? "true" : "false", config_id.c_str());
    }
    common.exit_code = result ? kOk : kFailed;
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
    if (common.json) {
      nlohmann::json record = nlohmann::json::object();
      for (size_t i = 0; i < texts.size(); ++i) record[kNames[i]] = Text(texts[i]);
      record["count"] = info.count;
      PrintJson({{"result", result}, {"fields", Texts(texts)}, {"count", info.count}, {"record", record}});
    } else {
      std::printf("result: %s\n", result ? "true" : "false");
      for (size_t i = 0; i < texts.size(); ++i) std::printf("  %zu %-8s %s\n", i, kNames[i], texts[i].c_str());
      std::printf("  count    %lu\n", static_cast<unsigned long>(info.count));
    }
    common.exit_code = result ? kOk : kFailed;
  });
}

}  // namespace

void AddRegistryCommands(CLI::App& app, Common& common) {
  AddRegistry(app, common);
  AddDeviceConfig(app, common);
}

}  // namespace dorvane::ctl
