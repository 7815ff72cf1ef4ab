// dorvanectl: the command line of the WWAN Dorvane library.
//
//   dorvanectl [--json] [--log FILE] COMMAND ARGS...
//
// The library's own log lines go to FILE (none without --log). Exit status: 0
// when the operation succeeded, 1 when it failed, 2 for a usage error, 3 when
// there is no modem to talk to.
#include <windows.h>
#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "log/logger.h"
#include "mbim/mbim_channel.h"
#include "monitor/state_work.h"
#include "tools/dorvanectl/json.h"

namespace dorvane::ctl {
namespace {

enum ExitCode { kOk = 0, kFailed = 1, kUsageError = 2, kNoModem = 3 };

struct Options {
  bool json = false;
  bool hex = false;
  std::string log = "NUL";
  std::vector<std::string> args;  // the command and its arguments
};

const char kUsage[] =
    "usage: dorvanectl [--json] [--log FILE] COMMAND ARGS...\n"
    "  at COMMAND [--hex]    send one AT command to the modem (without CR LF) and\n"
    "                        print its answer; --hex adds the bytes in hex\n"
    "options:\n"
    "  --json                print one JSON object instead of text\n"
    "  --log FILE            write the library's log lines to FILE\n"
    "exit status: 0 success, 1 failure, 2 usage, 3 no modem\n";

int Usage(const char* problem = nullptr) {
  if (problem) std::fprintf(stderr, "dorvanectl: %s\n", problem);
  std::fputs(kUsage, stderr);
  return kUsageError;
}

void Print(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

int RunAt(const Options& o) {
  if (o.args.size() != 2) return Usage("at takes one command");
  CStateWork worker;
  if (!worker.CheckMBIM()) {
    worker.FreeMBIM();
    if (o.json) {
      Print(JsonObject().Add("result", false).Add("error", "no modem").str() + "\n");
    } else {
      std::fputs("dorvanectl: no WWAN modem found (no Mobile Broadband interface, or no "
                 "Mobile Broadband stack)\n", stderr);
    }
    return kNoModem;
  }
  std::string answer;
  const bool ok = worker.ExecuteCmd(o.args[1], answer);
  worker.FreeMBIM();  // on the thread that opened the channel
  std::string hex;
  AppendAnswerHex(reinterpret_cast<const unsigned char*>(answer.data()), answer.size(), hex);
  if (o.json) {
    JsonObject out;
    out.Add("result", ok).Add("output", answer);
    if (o.hex) out.Add("hex", hex);
    Print(out.str() + "\n");
  } else if (ok) {
    // The module's bytes as they came, CR LF included.
    std::fflush(stdout);
    _setmode(_fileno(stdout), _O_BINARY);
    Print(answer);
    if (o.hex) Print(hex + "\n");
  } else {
    std::fputs("dorvanectl: no good answer (the module answered with an error, or not in time)\n",
               stderr);
  }
  return ok ? kOk : kFailed;
}

int Run(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--json") {
      o.json = true;
    } else if (a == "--hex") {
      o.hex = true;
    } else if (a == "--log") {
      if (++i == argc) return Usage("--log needs a file");
      o.log = argv[i];
    } else if (a == "--help" || a == "-h") {
      std::fputs(kUsage, stdout);
      return kOk;
    } else {
      o.args.push_back(a);
    }
  }
  if (o.args.empty()) return Usage();
  Logger* log = Logger::GetInstance();
  log->SetLogPath(o.log);
  log->Enable(true);
  if (o.args[0] == "at") return RunAt(o);
  return Usage(("unknown command " + o.args[0]).c_str());
}

}  // namespace
}  // namespace dorvane::ctl

int main(int argc, char** argv) { return dorvane::ctl::Run(argc, argv); }
