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

// How long the channel waits for each completion (the worker's default).
const DWORD kAtWaitMs = WorkerOptions().mbim_wait_ms;

// Why no answer came, from the exchange's result.
std::string NoAnswer(DWORD exchange) {
  char text[160];
  if (exchange == 1) {
    std::snprintf(text, sizeof text, "no answer came from the module within %lu s (exchange result 1)",
                  static_cast<unsigned long>(kAtWaitMs / 1000));
  } else {
    std::snprintf(text, sizeof text, "no answer came from the module: the exchange failed with 0x%08lX",
                  static_cast<unsigned long>(exchange));
  }
  return text;
}

int RunAt(const Common& common, const AtArgs& args) {
  if (args.command.find_first_not_of(" \t") == std::string::npos) {
    return Fail(common, kUsageError, "at: the AT command is empty (nothing was sent)");
  }
  CStateWork worker;
  if (!worker.CheckMBIM()) {
    worker.FreeMBIM();
    return Fail(common, kNoModem,
                "no WWAN modem found (no Mobile Broadband interface, or no Mobile Broadband stack)",
                {{"result", false}});
  }
  const CStateWork::CmdAnswer answer = worker.SendCmd(args.command);
  worker.FreeMBIM();  // on the thread that opened the channel

  // What ExecuteCmd would have left in its result: the answer when it is
  // good, the caller's text (--preset) when none came; a bad answer is shown.
  const std::string output = answer.exchange == 0 ? answer.text : Initial(common);
  std::string hex;
  AppendAnswerHex(reinterpret_cast<const unsigned char*>(answer.text.data()), answer.text.size(), hex);
  nlohmann::json object = {{"result", answer.good}, {"exchange", answer.exchange}, {"output", Text(output)}};
  if (args.hex) object["hex"] = hex;

  if (answer.exchange != 0) return Fail(common, kGaveUp, NoAnswer(answer.exchange), object);
  if (!common.json) {
    // The module's bytes as they came (blanks removed), CR LF included.
    PrintRaw(answer.text);
    if (args.hex) PrintRaw(hex + "\n");
  }
  if (!answer.good) {
    return Fail(common, kFailed,
                answer.text.empty() ? "no good answer: the module's answer is empty"
                                    : "no good answer: the module answered with an error",
                object);
  }
  if (common.json) PrintJson(object);
  return kOk;
}

}  // namespace

void AddAtCommands(CLI::App& app, Common& common) {
  auto args = std::make_shared<AtArgs>();
  CLI::App* at = app.add_subcommand(
      "at", "send one AT command (without CR LF) to the modem and print its answer, also an "
            "error answer (exit 1); exit 4 when no answer comes");
  at->add_option("command", args->command, "the AT command, for example AT+CGMI (not empty)")
      ->required();
  at->add_flag("--hex", args->hex, "also print the answer's bytes in hex");
  at->callback([&common, args] { common.exit_code = RunAt(common, *args); });
}

}  // namespace dorvane::ctl
