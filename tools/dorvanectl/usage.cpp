// What dorvanectl says about its own use: `help`, an example in every
// command's help, and messages for a command line it cannot take.
#include <algorithm>
#include <cctype>
#include <map>
#include <memory>

#include "tools/cli_input.h"
#include "tools/dorvanectl/ctl.h"

namespace dorvane::ctl {

namespace {

// One example per command, shown at the end of its help. A command added
// without one is caught by the whole-program tests, which ask every command
// listed by `help` for its example.
const std::map<std::string, const char*>& Examples() {
  static const std::map<std::string, const char*> examples = {
      {"at", "dorvanectl at AT+CGMI\n  dorvanectl --json at AT+CIMI --hex"},
      {"carrier-id-by-mccmnc", "dorvanectl carrier-id-by-mccmnc 310260 C:\\tables\\rules.xml"},
      {"carrier-id-by-mcc", "dorvanectl carrier-id-by-mcc 310 C:\\tables\\rules.xml"},
      {"carrier-id-by-iccid", "dorvanectl --json carrier-id-by-iccid 89012601234567890123 C:\\tables\\rules.xml"},
      {"selection-rule-by-mcc", "dorvanectl selection-rule-by-mcc 310 C:\\tables\\rules.xml"},
      {"carrier-firmware", "dorvanectl --json --preset UNSET carrier-firmware TMO C:\\tables\\carriers.xml"},
      {"param-firmware-by-mcc", "dorvanectl param-firmware-by-mcc 310 C:\\tables\\rules.xml"},
      {"oem-firmware-by-model", "dorvanectl oem-firmware-by-model X13 C:\\tables\\carriers.xml"},
      {"param-firmware-by-sku", "dorvanectl param-firmware-by-sku {SKU-GUID} EU C:\\tables\\skus.xml --timeout 5"},
      {"package-info-firmware", "dorvanectl package-info-firmware 310 C:\\fw\\package_info.xml"},
      {"fw-package-info", "dorvanectl --json fw-package-info C:\\fw\\FwPackageInfo.xml"},
      {"esim-disable-type", "dorvanectl esim-disable-type C:\\tables\\esim.xml --sku X13 --imsi 46000"},
      {"regulatory-by-mcc", "dorvanectl regulatory-by-mcc C:\\tables\\region.xml 460"},
      {"update-scatter", "dorvanectl update-scatter \";true;\""},
      {"reg-get", "dorvanectl reg-get SOFTWARE\\Vendor\\Product ProductName\n"
                  "  dorvanectl --json reg-get --raw SOFTWARE\\Vendor\\Product Flags"},
      {"reg-set", "dorvanectl reg-set SOFTWARE\\Vendor\\Product ProductName X13"},
      {"reg-set-dword", "dorvanectl reg-set-dword SOFTWARE\\Vendor\\Product Flags 0x10 --type REG_DWORD"},
      {"device-config-id", "dorvanectl --json device-config-id C:\\Windows\\WWAN\\FwSwitchBin\\DeviceConfig.xml"},
      {"cfg-pk-info", "dorvanectl --json cfg-pk-info CFG-13 310"},
      {"copy-dir", "dorvanectl copy-dir C:\\dst C:\\src"},
      {"delete-dir", "dorvanectl delete-dir C:\\old"},
      {"file-exists", "dorvanectl file-exists C:\\fw\\pkg.zip"},
      {"run-process", "dorvanectl run-process C:\\Windows\\System32\\cmd.exe \"cmd /c exit 3\""},
      {"make-folders", "dorvanectl make-folders C:\\fw\\a\\b\\"},
      {"unzip-package", "dorvanectl unzip-package C:\\pkg\\ fw.zip C:\\fw\\ image"},
      {"unzip-all-items", "dorvanectl unzip-all-items C:\\fw\\image\\ C:\\pkg\\fw.zip"},
      {"zip-items", "dorvanectl --json zip-items C:\\pkg\\fw.zip"},
      {"install-usb-driver", "dorvanectl install-usb-driver"},
      {"zip-result-text", "dorvanectl zip-result-text 0x700"},
      {"lint", "dorvanectl lint C:\\tables\\rules.xml C:\\tables\\skus.xml\n"
               "  dorvanectl lint --fail-on error C:\\release\\tables C:\\fw\\*.xml"},
      {"log", "dorvanectl log\n"
              "  dorvanectl log --since 11-20 --errors D:\\case-4711\\Dorvane.logbk D:\\case-4711\\Dorvane.log\n"
              "  dorvanectl --json log --year 2026 > events.jsonl\n"
              "  dorvanectl log --html week.html"},
      {"help", "dorvanectl help carrier-id-by-mcc"},
  };
  return examples;
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::vector<std::string> CommandNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
    names.push_back(sub->get_name());
  }
  return names;
}

std::string Quoted(const std::vector<std::string>& names) {
  std::string text;
  for (size_t i = 0; i < names.size(); ++i) text += (i ? ", '" : "'") + names[i] + "'";
  return text;
}

// "unknown command 'WORD'", with what it may have meant.
std::string UnknownCommand(const CLI::App& app, const std::string& word) {
  const std::vector<std::string> close = ClosestNames(word, CommandNames(app));
  std::string text = "unknown command '" + word + "'";
  if (close.size() == 1) return text + "; did you mean " + Quoted(close) + "?";
  if (!close.empty()) return text + "; did you mean one of " + Quoted(close) + "?";
  return text + "; 'dorvanectl help' lists the commands";
}

// The application's own help, also while `help` is the parsed command.
std::string MainHelp(const CLI::App& app) {
  return app.get_formatter()->make_help(&app, app.get_name(), CLI::AppFormatMode::Normal);
}

}  // namespace

std::vector<std::string> ClosestNames(const std::string& word, const std::vector<std::string>& known) {
  const std::string key = Lower(word);
  size_t best = std::string::npos;
  std::vector<std::string> closest;
  for (const std::string& name : known) {
    const size_t d = cli::EditDistance(key, name);
    if (d < best) {
      closest.clear();
      best = d;
    }
    if (d == best) closest.push_back(name);
  }
  // Within a third of the word: a slip of the fingers, not another word.
  if (best <= std::max<size_t>(1, key.size() / 3)) return closest;
  std::vector<std::string> starting;
  for (const std::string& name : known) {
    if (!key.empty() && Lower(name).compare(0, key.size(), key) == 0) starting.push_back(name);
  }
  return starting;
}

void AddHelp(CLI::App& app, Common& common) {
  auto topic = std::make_shared<std::string>();
  CLI::App* help = app.add_subcommand(
      "help", "describe every command, or one command with its arguments and an example");
  help->add_option("command", *topic, "the command to describe (left out: every command)");
  help->callback([&app, &common, topic] {
    std::string text;
    if (topic->empty()) {
      text = MainHelp(app);
    } else {
      const std::vector<std::string> names = CommandNames(app);
      if (std::find(names.begin(), names.end(), *topic) == names.end()) {
        common.exit_code = Fail(common, kUsageError, "help: " + UnknownCommand(app, *topic));
        return;
      }
      text = app.get_subcommand(*topic)->help(app.get_name());
    }
    if (common.json) {
      PrintJson({{"result", nullptr}, {"help", Text(text)}});
    } else {
      PrintRaw(text);
    }
    common.exit_code = kOk;
  });
  for (CLI::App* sub : app.get_subcommands([](CLI::App*) { return true; })) {
    const auto example = Examples().find(sub->get_name());
    if (example != Examples().end()) sub->footer(std::string("Example:\n  ") + example->second);
  }
  app.footer("'dorvanectl help COMMAND' describes a command's arguments and gives an example.");
}

namespace {

// The long option names `app` and its chosen command take, "--json" and so on.
std::vector<std::string> OptionNames(const CLI::App& app, const CLI::App* command) {
  std::vector<std::string> names;
  for (const CLI::App* owner : {&app, command}) {
    if (owner == nullptr) continue;
    for (const CLI::Option* option : owner->get_options()) {
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    }
  }
  return names;
}

// "--jsn: no such option; did you mean '--json'?" for each unknown option.
std::string UnknownOptions(const CLI::App& app, const CLI::App* command,
                           const std::vector<std::string>& extras) {
  std::string text;
  for (const std::string& extra : extras) {
    if (extra.rfind("--", 0) != 0) continue;
    const std::string word = extra.substr(0, extra.find('='));
    const std::vector<std::string> close = ClosestNames(word, OptionNames(app, command));
    text += (text.empty() ? "" : "; ") + word + ": no such option";
    if (!close.empty()) text += "; did you mean " + Quoted(close) + "?";
  }
  return text;
}

}  // namespace

std::string ParseErrorMessage(const CLI::App& app, const CLI::ParseError& error) {
  const std::vector<CLI::App*> used = app.get_subcommands();
  const CLI::App* command = used.empty() ? nullptr : used.front();
  std::vector<std::string> extras = app.remaining();
  if (command != nullptr) {
    const std::vector<std::string> more = command->remaining();
    extras.insert(extras.end(), more.begin(), more.end());
  }
  const std::string unknown = dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr
                                  ? UnknownOptions(app, command, extras)
                                  : std::string();
  if (command != nullptr) {
    const std::string name = command->get_name();
    return name + ": " + (unknown.empty() ? error.what() : unknown) + " (see 'dorvanectl help " +
           name + "')";
  }
  if (!unknown.empty()) return unknown + " (see 'dorvanectl help')";
  const std::vector<std::string> left = app.remaining();
  if (!left.empty() && !left.front().empty() && left.front()[0] != '-') {
    return UnknownCommand(app, left.front());
  }
  if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) {
    return "a command is required: dorvanectl [OPTIONS] COMMAND ARGS... ('dorvanectl help' lists "
           "the commands)";
  }
  return error.what();
}

}  // namespace dorvane::ctl
