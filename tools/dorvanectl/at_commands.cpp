// dorvanectl at: one AT command to the modem over the MBIM device service.
#include <cstdio>

#include "mbim/mbim_channel.h"
#include "monitor/state_work.h"
#include "tools/dorvanectl/answer.h"
#include "tools/dorvanectl/ctl.h"

namespace dorvane::ctl {

namespace {

struct AtArgs {
  std::string command;
  bool hex = false;
  bool raw = false;
};

// How long the channel waits for each completion (the worker's default).
const DWORD kAtWaitMs = WorkerOptions().mbim_wait_ms;

std::string Hresult(HRESULT hr) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(hr));
  return text;
}

std::string WithinTheWait() {
  return "within " + std::to_string(kAtWaitMs / 1000) + " s";
}

// The answer's lines, as the text form shows them: one "answer:" line each,
// the empty lines between them left out.
std::vector<std::string> AnswerLines(const std::string& text) {
  std::vector<std::string> lines;
  std::string line;
  for (const char c : text + "\n") {
    if (c != '\r' && c != '\n') {
      line += c;
    } else if (!line.empty()) {
      lines.push_back(line);
      line.clear();
    }
  }
  return lines;
}

// Why the exchange brought no answer that can be judged, and the exit status
// for it; the empty text when an answer came. The channel's result alone
// cannot tell: after a failed step it is the close wait's.
struct Trouble {
  std::string why;
  int status = kFailed;
  HRESULT exchange = S_OK;  // the first failing step's result
};

Trouble WhatWentWrong(const CStateWork::CmdAnswer& answer) {
  const ExchangeReport& r = answer.report;
  const HRESULT none = CrMbimServicesEvents::kNoCompletion;
  Trouble t;
  t.exchange = r.step != nullptr ? r.hr : static_cast<HRESULT>(answer.exchange);
  const std::string step = r.step != nullptr ? r.step : "";
  // An open completion releases the waiter whatever it carries, and the
  // exchange goes on: a session that did not open fails later steps.
  const bool open_failed = r.opened && r.open_status != none && FAILED(r.open_status);
  if (open_failed && !step.empty()) {
    t.why = "the command session could not be opened: its completion carried " +
            Hresult(r.open_status) + " (" + step + " then failed with " + Hresult(r.hr) + ")";
    t.exchange = r.open_status;
  } else if (step == "SetCommand") {
    t.why = "the stack refused the command: SetCommand failed with " + Hresult(r.hr);
    if (r.hr == E_INVALIDARG) t.why += " (a command must be shorter than the device service's maximum size)";
  } else if (step == "OpenCommandSession") {
    t.why = "the command session could not be opened: OpenCommandSession failed with " + Hresult(r.hr);
  } else if (step == "SetCommandTimeout") {
    if (r.set_status != none && r.set_status != S_OK) {
      t.why = "the module's answer came with the status " + Hresult(r.set_status) + " and no data";
    } else if (r.set_status == S_OK && r.set_unmatched) {
      t.why = "an answer came " + WithinTheWait() + ", but for another request";
    } else {
      t.why = "no answer came from the module " + WithinTheWait() + " (exchange result 1)";
      t.status = kGaveUp;
    }
  } else if (!step.empty()) {
    t.why = "the exchange failed at " + step + " with " + Hresult(r.hr);
  } else if (answer.exchange != 0) {
    t.why = "the exchange failed with " + Hresult(static_cast<HRESULT>(answer.exchange));
  }
  return t;
}

int RunAt(const Common& common, const AtArgs& args) {
  if (args.command.find_first_not_of(" \t") == std::string::npos) {
    return Fail(common, kUsageError, "at: the AT command is empty (nothing was sent)");
  }
  CStateWork worker;
  if (!worker.CheckMBIM()) {
    worker.FreeMBIM();
    return Fail(common, kNoModem,
                "at: no WWAN modem found (no Mobile Broadband interface, or no Mobile Broadband stack)",
                {{"result", false}});
  }
  const CStateWork::CmdAnswer answer = worker.SendCmd(args.command);
  worker.FreeMBIM();  // on the thread that opened the channel

  const Trouble trouble = WhatWentWrong(answer);
  // What ExecuteCmd would have left in its result: the answer when it is
  // good, the caller's text (--preset) when none came; a bad answer is shown.
  const std::string output = answer.exchange == 0 ? answer.text : Initial(common);
  Answer out(common, "at");
  const DWORD exchange = static_cast<DWORD>(trouble.exchange);
  out.Result(answer.good).Value("exchange", exchange,
                                exchange <= 1 ? std::to_string(exchange) : Hresult(trouble.exchange));
  out.JsonMember("output", Text(output));
  for (const std::string& line : AnswerLines(output)) out.TextLine("answer", Shown(line));
  if (args.hex) {
    out.Value("hex", HexBytes(reinterpret_cast<const unsigned char*>(answer.raw.data()), answer.raw.size()));
  }
  if (args.raw) out.Field("raw", answer.raw);
  if (!trouble.why.empty()) {
    out.Failed(trouble.why);
  } else if (!answer.good) {
    out.Failed(answer.text.empty() ? "no good answer: the module's answer is empty"
                                   : "no good answer: the module answered with an error");
  }
  const ExchangeReport& r = answer.report;
  const bool opened = r.opened && (r.open_status == CrMbimServicesEvents::kNoCompletion ||
                                   SUCCEEDED(r.open_status));
  if (opened && r.close_wait_ran_out && r.close_status == CrMbimServicesEvents::kNoCompletion) {
    out.Failed("the command session was not closed " + WithinTheWait());
  } else if (opened && r.close_status != CrMbimServicesEvents::kNoCompletion &&
             FAILED(r.close_status)) {
    out.Failed("the command session could not be closed: its completion carried " + Hresult(r.close_status));
  }
  const int status = out.Finish(answer.good);
  return trouble.status == kGaveUp && !trouble.why.empty() ? kGaveUp : status;
}

}  // namespace

void AddAtCommands(CLI::App& app, Common& common) {
  auto args = std::make_shared<AtArgs>();
  CLI::App* at = app.add_subcommand(
      "at", "send one AT command (without CR LF) to the modem and print its answer, also an "
            "error answer (exit 1); exit 4 when no answer comes");
  at->add_option("command", args->command, "the AT command, for example AT+CGMI (not empty)")
      ->required();
  at->add_flag("--hex", args->hex, "also the answer's bytes as they came, two hex digits each");
  at->add_flag("--raw", args->raw, "also the answer as it came, blanks kept");
  at->callback([&common, args] { common.exit_code = RunAt(common, *args); });
}

}  // namespace dorvane::ctl
