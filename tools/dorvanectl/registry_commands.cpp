// dorvanectl's registry and device-configuration commands.
#include <cstdio>

#include "config/device_config.h"
#include "mbim/mbim_channel.h"
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

int ReportHelper(const Common& common, DWORD result) { return ReportResult(common, result, result == 0); }

int RegGet(const Common& common, const RegArgs& a) {
  DWORD type = REG_SZ;
  DWORD result = 0;
  if (!a.raw) {
    std::string value = Initial(common);
    result = GetRegKeyValue(a.key, a.name, value, type);
    if (common.json) {
      PrintJson({{"result", result}, {"type", type}, {"output", Text(value)}});
    } else {
      std::printf("result: %lu\ntype: %lu\noutput: %s\n", static_cast<unsigned long>(result),
                  static_cast<unsigned long>(type), value.c_str());
    }
    return result == 0 ? kOk : kFailed;
  }
  std::vector<BYTE> data(4096);
  DWORD size = static_cast<DWORD>(data.size());
  result = GetRegKeyValue(a.key, a.name, data.data(), type, size);
  std::string hex;
  if (result == 0) AppendAnswerHex(data.data(), std::min<size_t>(size, data.size()), hex);
  if (common.json) {
    PrintJson({{"result", result}, {"type", type}, {"size", size}, {"bytes", hex}});
  } else {
    std::printf("result: %lu\ntype: %lu\nsize: %lu\nbytes: %s\n", static_cast<unsigned long>(result),
                static_cast<unsigned long>(type), static_cast<unsigned long>(size), hex.c_str());
  }
  return result == 0 ? kOk : kFailed;
}

void AddRegistry(CLI::App& app, Common& common) {
  auto args = std::make_shared<RegArgs>();
  CLI::App* get = app.add_subcommand(
      "reg-get", "read a value under HKEY_LOCAL_MACHINE (32-bit view) as text, or raw with --raw");
  get->add_option("key", args->key, "key path under HKEY_LOCAL_MACHINE")->required();
  get->add_option("name", args->name, "value name")->required();
  get->add_flag("--raw", args->raw, "the value's type, size and bytes");
  get->callback([&common, args] { common.exit_code = RegGet(common, *args); });

  auto set_args = std::make_shared<RegArgs>();
  CLI::App* set = app.add_subcommand("reg-set", "write a string value (the key must exist)");
  set->add_option("key", set_args->key)->required();
  set->add_option("name", set_args->name)->required();
  set->add_option("value", set_args->value)->required();
  set->callback([&common, set_args] {
    common.exit_code = ReportHelper(common, SetRegKeyValue(set_args->key, set_args->name, set_args->value));
  });

  auto dword_args = std::make_shared<RegArgs>();
  CLI::App* dword = app.add_subcommand("reg-set-dword", "write a 4-byte value (the key must exist)");
  dword->add_option("key", dword_args->key)->required();
  dword->add_option("name", dword_args->name)->required();
  dword->add_option("value", dword_args->number, "the number (decimal, or hex with 0x)")->required();
  dword->add_option("--type", dword_args->type, "the value type")->capture_default_str();
  dword->callback([&common, dword_args] {
    const RegArgs& a = *dword_args;
    common.exit_code = ReportHelper(common, SetRegKeyDword(a.key, a.name, a.number, a.type));
  });
}

void AddDeviceConfig(CLI::App& app, Common& common) {
  auto path = std::make_shared<std::string>();
  CLI::App* id = app.add_subcommand(
      "device-config-id", "the WWAN device configuration id from the device-configuration table");
  id->add_option("path", *path, "the device-configuration table")->required();
  id->callback([&common, path] {
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
  pk->add_option("config-id", keys->first)->required();
  pk->add_option("mcc", keys->second)->required();
  pk->callback([&common, keys] {
    CfgPackageInfo info;
    info.texts.fill(Initial(common));
    const bool result = getCfgPkInfo(keys->first, keys->second, info);
    const std::vector<std::string> texts(info.texts.begin(), info.texts.end());
    if (common.json) {
      PrintJson({{"result", result}, {"fields", Texts(texts)}, {"count", info.count}});
    } else {
      static const char* const kNames[] = {"text 0", "text 1", "text 2", "file", "version", "type", "mcc"};
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
