// A thousand AT commands through one channel while the simulator mixes every
// timing and fault it knows, at random: each command must end with the result
// the exchange's rules give for what happened to it, within its waits. And
// 150 channels torn down just as their late completions come,
// with a stack whose Unadvise does not wait for them: no sink may be touched
// after it is gone.
//
// Every delay is a fraction or multiple of the channel's wait, kept short so
// that the many time-outs stay cheap. The seed is printed; DORVANE_STRESS_SEED=N
// repeats a run, DORVANE_STRESS_COMMANDS=N changes the length of the first.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "mbim/mbim_channel.h"
#include "monitor/state_work.h"
#include "support/log_reader.h"
#include "support/simulator.h"
#include "tools/mbnsim/scenario.h"
#include "util/com_ptr.h"
#include "util/scoped_handle.h"
#include "util/mbnapi.h"

namespace dorvane {
namespace {

constexpr DWORD kWaitMs = 100;         // each completion wait of the channel under test
constexpr DWORD kMaxCommandSize = 48;  // the simulator's limit during the run

// What may happen to one command, and how often (about a fifth run into a
// wait's time-out).
enum Kind {
  kNormal,       // the answer comes 0..kWaitMs/10 after SetCommand returned
  kEarly,        // before SetCommand returned: no entry carries the id yet
  kLate,         // well after the set wait ran out
  kNever,        // the module never answers
  kTwice,        // the answer twice, same request id
  kSplit,        // the answer in three fragments, same request id
  kWrongId,      // the completion names the request before
  kBadStatus,    // E_FAIL or S_FALSE, no data
  kEmpty,        // S_OK without bytes
  kSetFails,     // SetCommand itself fails
  kTooBig,       // the payload is at or over the maximum command size
  kOpenNever,    // the open completion never comes
  kOpenLate,     // ... or comes after the open wait
  kOpenRefused,  // the open completes with a failure: no session, SetCommand refused
  kOpenFails,    // OpenCommandSession itself fails
  kSessionOpen,  // someone else has the session open already
  kCloseLost,    // the close completion never comes or comes late
  kKinds
};
const struct {
  const char* name;
  int weight;
} kKindInfo[kKinds] = {
    {"normal", 40},      {"early", 4},      {"late", 4},       {"never", 3},       {"twice", 6},
    {"split", 6},        {"wrong id", 3},   {"bad status", 3}, {"empty", 4},
    {"SetCommand fails", 4}, {"too big", 4}, {"open never", 2}, {"open late", 2},
    {"open refused", 3}, {"open fails", 3}, {"session open", 5}, {"close lost", 4}};

// Whether a stale signal may be waiting on an event of the sink.
enum class Maybe { kNo, kMaybe, kYes };

class ChannelStress : public testing::SimFixture {
 protected:
  void SetUp() override {
    SimFixture::SetUp();
    const char* env = std::getenv("DORVANE_STRESS_SEED");
    seed_ = env ? static_cast<unsigned>(std::strtoul(env, nullptr, 10))
                : static_cast<unsigned>(::GetTickCount() ^ ::GetCurrentProcessId());
    const char* count = std::getenv("DORVANE_STRESS_COMMANDS");
    commands_ = count ? std::atoi(count) : 1000;
    std::printf("channel stress: seed %u (DORVANE_STRESS_SEED=%u repeats it)\n", seed_, seed_);
    std::fflush(stdout);
    rng_.seed(seed_);
    ASSERT_TRUE(mbnsim::SetOption("DeliveryThreads", 3));
    ASSERT_TRUE(mbnsim::SetOption("MaxCommandSize", kMaxCommandSize));
    // Scripted answers of several lengths, bytes 0x80..0xFF among them.
    for (int i = 0; i < 8; ++i) {
      std::string answer = "\r\n+S" + std::to_string(i) + ": ";
      for (int b = 0; b < 3 + i * 7; ++b)
        answer.push_back(static_cast<char>(0x20 + (b * 37 + i) % 0xDF));
      answers_.push_back(answer + "\r\n\r\nOK\r\n");
      mbnsim::SetReply("AT+S" + std::to_string(i), answers_.back());
    }
  }
  void TearDown() override {
    if (HasFailure()) std::printf("channel stress FAILED: seed %u\n", seed_);
  }

  // Sets the injections for `kind`, clearing those of the command before.
  void Arrange(Kind kind) {
    for (const std::string& call : injected_) mbnsim::Inject(call, "");
    for (const std::string& call : delayed_) mbnsim::SetDelay(call, 0);
    injected_.clear();
    delayed_.clear();
    auto inject = [this](const char* call, const char* what) {
      ASSERT_TRUE(mbnsim::Inject(call, what));
      injected_.insert(call);
    };
    auto delay = [this](const char* call, DWORD ms) {
      mbnsim::SetDelay(call, ms);
      delayed_.insert(call);
    };
    const DWORD late = Pick(2 * kWaitMs, 3 * kWaitMs);  // long after the wait, whatever the load
    switch (kind) {
      case kNormal: delay("SetCommand.Complete", Pick(0, kWaitMs / 10)); break;
      case kEarly: inject("SetCommand.Complete", "early"); break;
      case kLate: delay("SetCommand.Complete", late); break;
      case kNever: inject("SetCommand.Complete", "none"); break;
      case kTwice: inject("SetCommand.Complete", "twice"); break;
      case kSplit: inject("SetCommand.Complete", "split"); break;
      case kWrongId: inject("SetCommand.Complete", "wrongid"); break;
      case kBadStatus: inject("SetCommand.Complete", Pick(0, 1) ? "0x80004005" : "0x1"); break;
      case kEmpty: inject("SetCommand.Complete", "empty"); break;
      case kSetFails: inject("SetCommand", "0x80070015"); break;
      case kOpenNever: inject("OpenCommandSession.Complete", "none"); break;
      case kOpenLate: delay("OpenCommandSession.Complete", late); break;
      case kOpenRefused: inject("OpenCommandSession.Complete", "0x80004005"); break;
      case kOpenFails: inject("OpenCommandSession", "0x80070005"); break;
      case kSessionOpen: mbnsim::SetSessionOpen(0, true); break;
      case kCloseLost:
        if (Pick(0, 1)) {
          inject("CloseCommandSession.Complete", "none");
        } else {
          delay("CloseCommandSession.Complete", late);
          late_close_until_ = ::GetTickCount() + late + 300;
        }
        break;
      default: break;
    }
  }
  bool LateCloseMayCome() const {
    return static_cast<LONG>(late_close_until_ - ::GetTickCount()) > 0;
  }

  DWORD Pick(DWORD low, DWORD high) {
    return std::uniform_int_distribution<DWORD>(low, high)(rng_);
  }
  std::string Trace(const char* what, int i, const std::string& kind) const {
    return "seed " + std::to_string(seed_) + ", " + what + " " + std::to_string(i) + " (" + kind +
           ")";
  }

  unsigned seed_ = 0;
  int commands_ = 0;
  std::mt19937 rng_;
  std::vector<std::string> answers_;
  std::set<std::string> injected_;
  std::set<std::string> delayed_;
  DWORD late_close_until_ = 0;  // a late close completion may still come until then
};

std::string Printable(const std::set<std::string>& texts) {
  std::string out;
  for (const auto& text : texts) {
    out += out.empty() ? "\"" : " | \"";
    for (unsigned char c : text) {
      char cell[8];
      std::snprintf(cell, sizeof cell, c >= 0x20 && c < 0x7F && c != '\\' ? "%c" : "\\x%02X", c);
      out += cell;
    }
    out += "\"";
  }
  return out;
}

// The fragments of a split answer, as the simulator cuts it.
std::vector<std::string> Fragments(const std::string& answer) {
  std::vector<std::string> pieces;
  size_t at = 0;
  for (size_t i = 0; i < 3; ++i) {
    const size_t size = (answer.size() - at) / (3 - i);
    pieces.push_back(answer.substr(at, size));
    at += size;
  }
  return pieces;
}

TEST_F(ChannelStress, EveryCommandEndsAsTheRulesSayUnderRandomTimingsAndFaults) {
  WorkerOptions options;
  options.mbim_wait_ms = kWaitMs;
  CStateWork worker(options);
  ASSERT_TRUE(worker.CheckMBIM());
  CMbimChannel* channel = worker.channel();
  std::vector<int> weights;
  for (const auto& info : kKindInfo) weights.push_back(info.weight);
  std::discrete_distribution<int> pick_kind(weights.begin(), weights.end());

  Maybe set_stale = Maybe::kNo;     // a set completion signalled with nobody waiting
  Maybe close_signal = Maybe::kNo;  // a close completion signalled with nobody waiting
  size_t left_pending = 0;
  int counts[kKinds] = {};
  int stale_wakes = 0;
  int timeouts = 0;
  const DWORD run_start = ::GetTickCount();

  for (int i = 0; i < commands_ && !HasFatalFailure(); ++i) {
    const Kind kind = static_cast<Kind>(pick_kind(rng_));
    ++counts[kind];
    const size_t which = Pick(0, static_cast<DWORD>(answers_.size() - 1));
    std::string command = "AT+S" + std::to_string(which);
    if (kind == kTooBig) command += "=" + std::string(kMaxCommandSize - 8 + Pick(0, 20), 'x');
    const std::string answer = answers_[which];
    SCOPED_TRACE(Trace("command", i, kKindInfo[kind].name));
    ASSERT_FALSE(mbnsim::SessionOpen(0)) << "the run leaves no session open";
    Arrange(kind);
    if (close_signal == Maybe::kNo && LateCloseMayCome()) close_signal = Maybe::kMaybe;

    // What the exchange's rules make of it.
    const bool sets =
        kind != kOpenFails && kind != kSetFails && kind != kTooBig && kind != kOpenRefused;
    std::set<DWORD> results = {0};
    std::set<std::string> texts = {""};
    if (kind == kOpenFails) {
      results = {0x80070005};
    } else if (!sets) {
      // SetCommand failed in a session this exchange opened: the close wait's
      // result, and the close completion (or a stale one) signals it. Closing
      // a session that never opened fails at once: nothing will come.
      if (kind == kOpenRefused && close_signal != Maybe::kYes) {
        results = close_signal == Maybe::kNo ? std::set<DWORD>{1} : std::set<DWORD>{0, 1};
      }
      ++left_pending;
    } else if (kind == kEarly || kind == kNever || kind == kWrongId || kind == kBadStatus) {
      results = {1};
    } else if (kind == kLate) {
      results = {1};
      texts = {"", answer};  // a completion that beats the clean-up is collected too
    } else if (kind == kSplit) {
      texts = {};
      for (const auto& piece : Fragments(answer)) texts.insert(piece);
    } else if (kind != kEmpty) {
      texts = {answer};
    }
    // A stale set signal wakes the wait at once: an answer not (or not yet) there.
    if (sets && set_stale != Maybe::kNo) {
      results.insert(0);
      texts.insert("");
    }

    std::string text = "untouched";
    std::string hex;
    const DWORD start = ::GetTickCount();
    const DWORD result = channel->ExchangeCommand(command + "\r\n", text, hex);
    const DWORD took = ::GetTickCount() - start;

    if (!sets && text == "untouched") text = "";  // not assigned when nothing was collected
    EXPECT_TRUE(results.count(result)) << "result " << result;
    EXPECT_TRUE(texts.count(text))
        << "answer " << Printable({text}) << ", expected one of " << Printable(texts);
    EXPECT_LE(took, 3 * kWaitMs + 500) << "bounded by its waits";
    if (result == 1) ++timeouts;
    if (result == 0 && sets && text.empty() && kind != kEmpty) ++stale_wakes;

    // What this command leaves behind for the next one.
    if (kind == kLate) {
      set_stale = text.empty() ? Maybe::kNo : Maybe::kMaybe;
    } else if (kind == kEarly || kind == kNever || kind == kWrongId || kind == kBadStatus) {
      set_stale = Maybe::kNo;  // no signal came, and the wait took any stale one
    } else if (sets && (kind == kTwice || kind == kSplit || set_stale != Maybe::kNo)) {
      set_stale = Maybe::kMaybe;
    } else if (sets) {
      set_stale = Maybe::kNo;
    }
    if (kind == kSessionOpen) {
      EXPECT_TRUE(mbnsim::SessionOpen(0)) << "left open as found";
      mbnsim::SetSessionOpen(0, false);
    } else if (kind == kOpenRefused) {
      // Whatever there was went to this close wait; only a late one may follow.
      close_signal = LateCloseMayCome() ? Maybe::kMaybe : Maybe::kNo;
    } else if (kind == kSetFails || kind == kTooBig) {
      // The close wait took one signal, its own close completion gave one: a
      // stale signal is left only if one was there before, and not even then
      // when the completion came before the wait began: setting an event that
      // is set already leaves one signal, not two.
      if (close_signal == Maybe::kYes) close_signal = Maybe::kMaybe;
    } else if (kind == kCloseLost) {
      // its close completion may still come while a later close wait runs
      if (close_signal != Maybe::kYes) close_signal = Maybe::kMaybe;
    } else if (kind != kOpenFails) {  // which opened and closed nothing
      close_signal = Maybe::kYes;     // its own close completion, unawaited on success
    }
  }
  const DWORD run_ms = ::GetTickCount() - run_start;

  WaitIdle();
  const auto pending = channel->pending();
  EXPECT_EQ(left_pending, pending->size())
      << "entries stay only for commands whose SetCommand failed";
  worker.FreeMBIM();
  EXPECT_EQ(0u, pending->size()) << "the teardown empties the list";
  ExpectNothingLeft();
  std::printf("channel stress: %d commands in %.1f s, %d timed out, %d woken by a stale signal\n",
              commands_, run_ms / 1000.0, timeouts, stale_wakes);
  for (int k = 0; k < kKinds; ++k) std::printf("  %-17s %5d\n", kKindInfo[k].name, counts[k]);
}

// The sink's own lines: a completion is running in it while one of them is
// written.
bool SinkLine(const std::string& message) {
  return message.rfind("On", 0) == 0 || message == "Set event" || message == "SafeArrayAccessData";
}

// Another client of the stack, sending AT commands on the second interface
// while it is on. Its completions reach every advised sink, the channel's too
// (which finds no entry for them), so that completions are running in the
// channel's sink when its teardown comes.
class OtherClient {
 public:
  OtherClient() : thread_([this] { Run(); }) {}
  ~OtherClient() {
    quit_ = true;
    thread_.join();
  }
  // Returns once the client has started, or stopped, sending.
  void Send(bool on) {
    on_ = on;
    while (sending_ != on) ::SwitchToThread();
  }

 private:
  void Run() {
    const bool com = SUCCEEDED(::CoInitializeEx(nullptr, COINIT_MULTITHREADED));
    {
      ComPtr<IMbnDeviceServicesManager> manager;
      ComPtr<IMbnDeviceServicesContext> context;
      ComPtr<IMbnDeviceService> service;
      ScopedBstr interface_id(AnsiToWide(mbnsim::DefaultInterface(1).interface_id).c_str());
      ScopedBstr service_id(AnsiToWide(kAtDeviceServiceId).c_str());
      ScopedSafeArray command(::SafeArrayCreateVector(VT_UI1, 0, 4));
      void* bytes = nullptr;
      const bool ready =
          SUCCEEDED(::CoCreateInstance(CLSID_MbnDeviceServicesManager, nullptr, CLSCTX_ALL,
                                       IID_IMbnDeviceServicesManager, manager.put_void())) &&
          SUCCEEDED(manager->GetDeviceServicesContext(interface_id.get(), context.put())) &&
          SUCCEEDED(context->GetDeviceService(service_id.get(), service.put())) &&
          SUCCEEDED(::SafeArrayAccessData(command.get(), &bytes));
      if (ready) {
        std::memcpy(bytes, "AT\r\n", 4);
        ::SafeArrayUnaccessData(command.get());
      }
      EXPECT_TRUE(ready);
      for (ULONG id = 0; !quit_;) {
        sending_ = on_.load();
        if (!sending_) {
          ::Sleep(1);
        } else if (ready) {
          service->SetCommand(1, command.get(), &id);
          ::SwitchToThread();
        }
      }
    }
    if (com) ::CoUninitialize();
  }

  std::atomic<bool> on_{false};
  std::atomic<bool> sending_{false};
  std::atomic<bool> quit_{false};
  std::thread thread_;
};

// Busy threads, four per processor, that take the processors for a moment
// when asked, as a loaded machine does: a delivery thread inside the sink is
// then held up at some point of its call, and the teardown may overtake it.
class Contention {
 public:
  Contention() {
    for (unsigned i = 0; i < 4 * std::max(1u, std::thread::hardware_concurrency()); ++i) {
      threads_.emplace_back([this] {
        while (::WaitForSingleObject(go_.get(), INFINITE) == WAIT_OBJECT_0 && !quit_) {
          while (static_cast<LONG>(until_ - ::GetTickCount()) > 0) {
          }
        }
      });
    }
  }
  ~Contention() {
    quit_ = true;
    Burst(0);
    for (std::thread& thread : threads_) thread.join();
  }
  // Every thread spins for the next `ms` milliseconds.
  void Burst(DWORD ms) {
    until_ = ::GetTickCount() + ms;
    ::ReleaseSemaphore(go_.get(), static_cast<LONG>(threads_.size()), nullptr);
  }

 private:
  UniqueHandle go_{::CreateSemaphoreA(nullptr, 0, 1 << 20, nullptr)};
  std::atomic<bool> quit_{false};
  std::atomic<DWORD> until_{0};
  std::vector<std::thread> threads_;
};

// A stack whose Unadvise does not wait for the completions under way, and a
// channel torn down as its late completion comes, while another client's
// completions keep its sink busy: whichever thread releases the sink last, no
// sink line may follow its "Close event", and nothing may be left or released
// twice. Without a reference held by each completion the teardown frees the
// sink under a running one, which then writes after "Close event" or faults.
TEST_F(ChannelStress, NoSinkIsTouchedAfterItsTeardownWhenUnadviseDoesNotWait) {
  constexpr DWORD kTeardownWaitMs = 5;  // the service's 5 s, shortened
  constexpr int kTeardowns = 150;
  ASSERT_TRUE(mbnsim::SetOption("UnadviseWaits", 0));
  ASSERT_TRUE(mbnsim::SetOption("DeliveryThreads", mbnsim::kMaxDeliveryThreads));
  mbnsim::SetInterfaces({mbnsim::DefaultInterface(0), mbnsim::DefaultInterface(1)});
  mbnsim::SetSessionOpen(1, true);  // the other client's
  WorkerOptions options;
  options.mbim_wait_ms = kTeardownWaitMs;
  CStateWork worker(options);
  Contention contention;
  // Which of the channel's completions comes late, about as its wait runs out,
  // and in which shape ("" for one plain completion).
  const std::pair<const char*, const char*> kLate[] = {{"SetCommand.Complete", ""},
                                                       {"SetCommand.Complete", "split"},
                                                       {"SetCommand.Complete", "twice"},
                                                       {"OpenCommandSession.Complete", ""}};
  int met = 0;  // teardowns that found a completion running in the sink
  const char* before = nullptr;
  const DWORD run_start = ::GetTickCount();
  {
    OtherClient other;
    for (int i = 0; i < kTeardowns && !HasFatalFailure(); ++i) {
      const auto& [call, shape] = kLate[Pick(0, static_cast<DWORD>(std::size(kLate)) - 1)];
      SCOPED_TRACE(Trace("teardown", i, std::string(call) + " " + shape));
      if (before != nullptr) {
        mbnsim::Inject(before, "");
        mbnsim::SetDelay(before, 0);
      }
      before = call;
      ASSERT_TRUE(mbnsim::Inject(call, shape));
      mbnsim::SetDelay(call, kTeardownWaitMs - 2 + Pick(0, 6));
      mbnsim::SetDelay("CloseCommandSession.Complete", Pick(0, 2));
      ClearLog();

      ASSERT_TRUE(worker.CheckMBIM());
      other.Send(true);
      std::string text;
      std::string hex;
      worker.channel()->ExchangeCommand("AT+S" + std::to_string(Pick(0, 7)) + "\r\n", text, hex);
      contention.Burst(Pick(5, 15));
      worker.FreeMBIM();
      other.Send(false);
      WaitIdle();  // every completion has returned: the log is complete

      const auto msgs = messages();
      ASSERT_EQ(1, testing::CountOf(msgs, "Close event"));
      const int closed = testing::IndexOf(msgs, "Close event");
      const auto unadvised = std::find_if(msgs.begin(), msgs.end(), [](const std::string& m) {
        return m.rfind("Unadvise:Event done", 0) == 0;
      });
      ASSERT_LT(unadvised - msgs.begin(), closed) << "destroyed before its teardown";
      for (auto at = msgs.begin() + closed + 1; at != msgs.end(); ++at) {
        EXPECT_FALSE(SinkLine(*at)) << "after the sink was destroyed: " << *at;
      }
      met += std::any_of(unadvised, msgs.begin() + closed, SinkLine) ? 1 : 0;
    }
  }
  ExpectNothingLeft();
  std::printf("channel stress: %d teardowns in %.1f s, %d with a completion in the sink\n",
              kTeardowns, (::GetTickCount() - run_start) / 1000.0, met);
  EXPECT_GT(met, 0) << "no teardown met a completion: the run proved nothing";
}

}  // namespace
}  // namespace dorvane
