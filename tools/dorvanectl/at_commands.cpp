// dorvanectl at: one AT command to the modem over the MBIM device service.
#include <cstdio>

#include "mbim/mbim_channel.h"
#include "monitor/state_work.h"
#include "tools/dorvanectl/ctl.h"

namespace dorvane::ctl {

namespace {

struct AtArgs {
  std::string command;
  bool hex = false;
};

int RunAt(const Common& common, const AtArgs& args) {
  CStateWork worker;
  if (!worker.CheckMBIM()) {
    worker.FreeMBIM();
    if (common.json) {
      PrintJson({{"result", false}, {"error", "no modem"}});
    } else {
      std::fputs("dorvanectl: no WWAN modem found (no Mobile Broadband interface, or no "
                 "Mobile Broadband stack)\n", stderr);
    }
    return kNoModem;
  }
  std::string answer = Initial(common);
  const bool ok = worker.ExecuteCmd(args.command, answer);
  worker.FreeMBIM();  // on the thread that opened the channel
  std::string hex;
  AppendAnswerHex(reinterpret_cast<const unsigned char*>(answer.data()), answer.size(), hex);
  if (common.json) {
    nlohmann::json out = {{"result", ok}, {"output", Text(answer)}};
    if (args.hex) out["hex"] = hex;
    PrintJson(out);
  } else if (ok) {
    // The module's bytes as they came, CR LF included.
    PrintRaw(answer);
    if (args.hex) PrintRaw(hex + "\n");
  } else {
    std::fputs("dorvanectl: no good answer (the module answered with an error, or not in time)\n",
               stderr);
  }
  return ok ? kOk : kFailed;
}

}  // namespace

void AddAtCommands(CLI::App& app, Common& common) {
  auto args = std::make_shared<AtArgs>();
  CLI::App* at = app.add_subcommand(
      "at", "send one AT command (without CR LF) to the modem and print its answer");
  at->add_option("command", args->command, "the AT command, for example AT+CGMI")->required();
  at->add_flag("--hex", args->hex, "also print the answer's bytes in hex");
  at->callback([&common, args] { common.exit_code = RunAt(common, *args); });
}

}  // namespace dorvane::ctl
