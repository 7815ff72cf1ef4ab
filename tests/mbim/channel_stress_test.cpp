// Thousands of AT commands through one channel while the simulator mixes every
// timing and fault it knows, at random: each command must end with the result
// the exchange's rules give for what happened to it, within its waits. And
// hundreds of channels torn down just as their late completions come, with a
// stack whose Unadvise does not wait for them: no sink may be touched after it
// is gone.
//
// The seed is printed; DORVANE_STRESS_SEED=N repeats a run, DORVANE_STRESS_COMMANDS=N
// changes the length of the first.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <mutex>
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
#include "util/mbnapi.h"

namespace dorvane {
namespace {

constexpr DWORD kWaitMs = 100;        // each completion wait of the channel under test
constexpr DWORD kMaxCommandSize = 48;  // the simulator's limit during the run
const HRESULT kNoSession = HRESULT_FROM_WIN32(ERROR_INVALID_STATE);

// What may happen to one command.
enum Kind {
  kNormal,       // the answer comes 0..20 ms after SetCommand returned
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

const char* const kKindNames[kKinds] = {
    "normal",    "early",     "late",      "never",     "twice",      "split",
    "wrong id",  "bad status", "empty",    "SetCommand fails", "too big", "open never",
    "open late", "open refused", "open fails", "session open", "close lost"};

// Relative frequencies: about a fifth of the commands run into a wait's time-out.
const int kWeights[kKinds] = {40, 4, 4, 3, 6, 6, 3, 3, 4, 4, 4, 2, 2, 3, 3, 5, 4};

// Whether a stale signal may be waiting on an event of the sink.
enum class Maybe { kNo, kMaybe, kYes };

struct Expected {
  std::set<DWORD> results;
  std::set<std::string> texts;
};

class ChannelStress : public testing::SimFixture {
 protected:
  void SetUp() override {
    SimFixture::SetUp();
    const char* env = std::getenv("DORVANE_STRESS_SEED");
    seed_ = env ? static_cast<unsigned>(std::strtoul(env, nullptr, 10))
                : static_cast<unsigned>(::GetTickCount() ^ ::GetCurrentProcessId());
    const char* count = std::getenv("DORVANE_STRESS_COMMANDS");
    commands_ = count ? std::atoi(count) : 2000;
    std::printf("channel stress: seed %u (DORVANE_STRESS_SEED=%u repeats it)\n", seed_, seed_);
    std::fflush(stdout);
    rng_.seed(seed_);
    ASSERT_TRUE(mbnsim::SetOption("DeliveryThreads", 3));
    ASSERT_TRUE(mbnsim::SetOption("MaxCommandSize", kMaxCommandSize));
    // Scripted answers of several lengths, bytes 0x80..0xFF among them.
    for (int i = 0; i < 8; ++i) {
      std::string answer = "\r\n+S" + std::to_string(i) + ": ";
      for (int b = 0; b < 3 + i * 7; ++b) answer.push_back(static_cast<char>(0x20 + (b * 37 + i) % 0xDF));
      answer += "\r\n\r\nOK\r\n";
      answers_.push_back(answer);
      mbnsim::SetReply("AT+S" + std::to_string(i), answer);
    }
  }

  // Sets the injections for `kind`, clearing those of the command before.
  void Arrange(Kind kind) {
    for (const char* call : {"SetCommand.Complete", "OpenCommandSession.Complete",
                             "CloseCommandSession.Complete", "SetCommand", "OpenCommandSession"}) {
      if (injected_.count(call)) mbnsim::Inject(call, "");
      if (delayed_.count(call)) mbnsim::SetDelay(call, 0);
    }
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
    switch (kind) {
      case kNormal: delay("SetCommand.Complete", Pick(0, 20)); break;
      case kEarly: inject("SetCommand.Complete", "early"); break;
      case kLate: delay("SetCommand.Complete", kWaitMs + Pick(60, 150)); break;
      case kNever: inject("SetCommand.Complete", "none"); break;
      case kTwice: inject("SetCommand.Complete", "twice"); break;
      case kSplit: inject("SetCommand.Complete", "split"); break;
      case kWrongId: inject("SetCommand.Complete", "wrongid"); break;
      case kBadStatus: inject("SetCommand.Complete", Pick(0, 1) ? "0x80004005" : "0x1"); break;
      case kEmpty: inject("SetCommand.Complete", "empty"); break;
      case kSetFails: inject("SetCommand", "0x80070015"); break;
      case kTooBig: break;
      case kOpenNever: inject("OpenCommandSession.Complete", "none"); break;
      case kOpenLate: delay("OpenCommandSession.Complete", kWaitMs + Pick(60, 150)); break;
      case kOpenRefused: inject("OpenCommandSession.Complete", "0x80004005"); break;
      case kOpenFails: inject("OpenCommandSession", "0x80070005"); break;
      case kSessionOpen: mbnsim::SetSessionOpen(0, true); break;
      case kCloseLost:
        if (Pick(0, 1)) {
          inject("CloseCommandSession.Complete", "none");
        } else {
          const DWORD ms = kWaitMs + Pick(60, 150);
          delay("CloseCommandSession.Complete", ms);
          late_close_until_ = ::GetTickCount() + ms + 300;
        }
        break;
      default: break;
    }
  }

  DWORD Pick(DWORD low, DWORD high) {
    return std::uniform_int_distribution<DWORD>(low, high)(rng_);
  }
  Kind PickKind() {
    std::discrete_distribution<int> d(std::begin(kWeights), std::end(kWeights));
    return static_cast<Kind>(d(rng_));
  }

  unsigned seed_ = 0;
  int commands_ = 0;
  std::mt19937 rng_;
  std::vector<std::string> answers_;
  std::set<std::string> injected_;
  std::set<std::string> delayed_;
  DWORD late_close_until_ = 0;  // a late close completion may still come until then
};

std::string Printable(const std::string& bytes) {
  std::string out = "\"";
  for (unsigned char c : bytes) {
    char cell[8];
    std::snprintf(cell, sizeof cell, c >= 0x20 && c < 0x7F && c != '\\' ? "%c" : "\\x%02X", c);
    out += cell;
  }
  return out + "\"";
}

std::string Printable(const std::set<std::string>& texts) {
  std::string out;
  for (const auto& t : texts) out += (out.empty() ? "" : " | ") + Printable(t);
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

  Maybe set_stale = Maybe::kNo;    // a set completion signalled with nobody waiting
  Maybe close_signal = Maybe::kNo;  // a close completion signalled with nobody waiting
  size_t left_pending = 0;
  int counts[kKinds] = {};
  int stale_wakes = 0;
  int timeouts = 0;
  const DWORD run_start = ::GetTickCount();

  for (int i = 0; i < commands_ && !HasFatalFailure(); ++i) {
    const Kind kind = PickKind();
    ++counts[kind];
    const size_t which = Pick(0, static_cast<DWORD>(answers_.size() - 1));
    std::string command = "AT+S" + std::to_string(which);
    if (kind == kTooBig) command += "=" + std::string(kMaxCommandSize - 8 + Pick(0, 20), 'x');
    const std::string answer = answers_[which];
    SCOPED_TRACE("seed " + std::to_string(seed_) + ", command " + std::to_string(i) + " (" +
                 kKindNames[kind] + ")");
    ASSERT_FALSE(mbnsim::SessionOpen(0)) << "the run leaves no session open";
    Arrange(kind);
    if (close_signal == Maybe::kNo && static_cast<LONG>(late_close_until_ - ::GetTickCount()) > 0) {
      close_signal = Maybe::kMaybe;
    }

    // What the exchange's rules make of it.
    const bool sets = kind != kOpenFails && kind != kSetFails && kind != kTooBig &&
                      kind != kOpenRefused;
    Expected e;
    if (kind == kOpenFails) {
      e.results = {0x80070005};
      e.texts = {""};
    } else if (!sets) {
      // SetCommand failed in a session this exchange opened: the close wait's
      // result, and the close completion (or a stale one) signals it.
      if (kind == kOpenRefused && close_signal != Maybe::kYes) {
        // Closing a session that never opened fails at once: nothing will come.
        e.results = close_signal == Maybe::kNo ? std::set<DWORD>{1} : std::set<DWORD>{0, 1};
      } else {
        e.results = {0};
      }
      e.texts = {""};
      ++left_pending;
    } else if (kind == kEarly || kind == kNever || kind == kWrongId || kind == kBadStatus) {
      e.results = {1};
      e.texts = {""};
    } else if (kind == kLate) {
      e.results = {1};
      e.texts = {"", answer};  // a completion that beats the clean-up is collected too
    } else if (kind == kEmpty) {
      e.results = {0};
      e.texts = {""};
    } else if (kind == kSplit) {
      e.results = {0};
      for (const auto& piece : Fragments(answer)) e.texts.insert(piece);
    } else {
      e.results = {0};
      e.texts = {answer};
    }
    // A stale set signal wakes the wait at once: an answer not (or not yet) there.
    if (sets && set_stale != Maybe::kNo) {
      e.results.insert(0);
      e.texts.insert("");
    }

    std::string text = "untouched";
    std::string hex;
    const DWORD start = ::GetTickCount();
    const DWORD result = channel->ExchangeCommand(command + "\r\n", text, hex);
    const DWORD took = ::GetTickCount() - start;

    if (!sets) text = text == "untouched" ? "" : text;  // not assigned when nothing was collected
    EXPECT_TRUE(e.results.count(result)) << "result " << result;
    EXPECT_TRUE(e.texts.count(text)) << "answer " << Printable(text) << ", expected one of "
                                     << Printable(e.texts);
    EXPECT_LE(took, 3 * kWaitMs + 500) << "bounded by its waits";
    if (result == 1) ++timeouts;
    if (result == 0 && sets && text.empty() && kind != kEmpty) ++stale_wakes;

    // What this command leaves behind for the next one.
    if (sets) {
      const bool signals = kind != kEarly && kind != kNever && kind != kWrongId &&
                           kind != kBadStatus && kind != kLate;
      if (kind == kLate) {
        set_stale = text.empty() ? Maybe::kNo : Maybe::kMaybe;
      } else if (!signals) {
        set_stale = Maybe::kNo;
      } else if (kind == kTwice || kind == kSplit || set_stale != Maybe::kNo) {
        set_stale = Maybe::kMaybe;
      } else {
        set_stale = Maybe::kNo;
      }
    }
    if (kind == kSessionOpen) {
      EXPECT_TRUE(mbnsim::SessionOpen(0)) << "left open as found";
      mbnsim::SetSessionOpen(0, false);
    } else if (kind == kOpenRefused) {
      // Whatever there was went to this close wait; only a late one may follow.
      close_signal = static_cast<LONG>(late_close_until_ - ::GetTickCount()) > 0 ? Maybe::kMaybe
                                                                                 : Maybe::kNo;
    } else if (kind == kOpenFails) {
      // nothing was opened or closed
    } else if (kind == kSetFails || kind == kTooBig) {
      // The close wait took one signal, its own close completion gave one: a
      // stale signal is left only if one was there before, and not even then
      // when the completion came before the wait began: setting an event that
      // is set already leaves one signal, not two.
      if (close_signal == Maybe::kYes) close_signal = Maybe::kMaybe;
    } else if (kind == kCloseLost) {
      // its close completion may still come while a later close wait runs
      close_signal = close_signal == Maybe::kYes ? Maybe::kYes : Maybe::kMaybe;
    } else {
      close_signal = Maybe::kYes;  // its own close completion, unawaited on success
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
  for (int k = 0; k < kKinds; ++k) std::printf("  %-17s %5d\n", kKindNames[k], counts[k]);
  if (HasFailure()) std::printf("channel stress FAILED: seed %u\n", seed_);
}

// The sink's own lines: a completion is running in it while one of them is
// written.
bool SinkLine(const std::string& message) {
  return message.rfind("On", 0) == 0 || message == "Set event" || message == "SafeArrayAccessData";
}

// Another client of the stack, sending AT commands on the second interface
// until `stop` is set. Its completions reach every advised sink, the channel's
// too (which finds no entry for them), so that completions are running in the
// channel's sink when its teardown comes.
void OtherClient(const std::atomic<bool>& stop) {
  const bool com = SUCCEEDED(::CoInitializeEx(nullptr, COINIT_MULTITHREADED));
  {
    ComPtr<IMbnDeviceServicesManager> manager;
    ComPtr<IMbnDeviceServicesContext> context;
    ComPtr<IMbnDeviceService> service;
    ScopedBstr interface_id(AnsiToWide(mbnsim::DefaultInterface(1).interface_id).c_str());
    ScopedBstr service_id(AnsiToWide(kAtDeviceServiceId).c_str());
    ScopedSafeArray command(::SafeArrayCreateVector(VT_UI1, 0, 4));
    void* bytes = nullptr;
    if (SUCCEEDED(::CoCreateInstance(CLSID_MbnDeviceServicesManager, nullptr, CLSCTX_ALL,
                                     IID_IMbnDeviceServicesManager, manager.put_void())) &&
        SUCCEEDED(manager->GetDeviceServicesContext(interface_id.get(), context.put())) &&
        SUCCEEDED(context->GetDeviceService(service_id.get(), service.put())) &&
        command.get() != nullptr && SUCCEEDED(::SafeArrayAccessData(command.get(), &bytes))) {
      std::memcpy(bytes, "AT\r\n", 4);
      ::SafeArrayUnaccessData(command.get());
      while (!stop.load()) {
        ULONG id = 0;
        service->SetCommand(1, command.get(), &id);
        ::SwitchToThread();
      }
    }
  }
  if (com) ::CoUninitialize();
}

// Busy threads, four per processor, that take the processors for a moment
// when asked, as a loaded machine does: a delivery thread inside the sink is
// then held up at some point of its call, and the teardown may overtake it.
class Contention {
 public:
  Contention() {
    const unsigned count = 4 * std::max(1u, std::thread::hardware_concurrency());
    for (unsigned i = 0; i < count; ++i) threads_.emplace_back([this] { Run(); });
  }
  ~Contention() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      quit_ = true;
    }
    changed_.notify_all();
    for (std::thread& thread : threads_) thread.join();
  }
  Contention(const Contention&) = delete;
  Contention& operator=(const Contention&) = delete;

  // Every thread spins for the next `ms` milliseconds.
  void Burst(DWORD ms) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      until_ = Clock::now() + std::chrono::milliseconds(ms);
      ++burst_;
    }
    changed_.notify_all();
  }

 private:
  using Clock = std::chrono::steady_clock;

  void Run() {
    unsigned seen = 0;
    for (;;) {
      Clock::time_point until;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] { return quit_ || burst_ != seen; });
        if (quit_) return;
        seen = burst_;
        until = until_;
      }
      while (Clock::now() < until) {
      }
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  bool quit_ = false;         // guarded by mutex_
  unsigned burst_ = 0;        // guarded by mutex_
  Clock::time_point until_;   // guarded by mutex_
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
  constexpr int kTeardowns = 300;
  ASSERT_TRUE(mbnsim::SetOption("UnadviseWaits", 0));
  ASSERT_TRUE(mbnsim::SetOption("DeliveryThreads", mbnsim::kMaxDeliveryThreads));
  mbnsim::SetInterfaces({mbnsim::DefaultInterface(0), mbnsim::DefaultInterface(1)});
  mbnsim::SetSessionOpen(1, true);  // the other client's
  WorkerOptions options;
  options.mbim_wait_ms = kTeardownWaitMs;
  CStateWork worker(options);
  Contention contention;
  // Which of the channel's completions comes late, about as its wait runs out,
  // and in which shape.
  struct Late {
    const char* call;
    const char* inject;  // "" for one plain completion
  };
  const Late kLate[] = {{"SetCommand.Complete", ""}, {"SetCommand.Complete", "split"},
                        {"SetCommand.Complete", "twice"}, {"OpenCommandSession.Complete", ""}};
  int met = 0;  // teardowns that found a completion running in the sink
  const Late* before = nullptr;
  const DWORD run_start = ::GetTickCount();
  for (int i = 0; i < kTeardowns && !HasFatalFailure(); ++i) {
    const Late& late = kLate[Pick(0, static_cast<DWORD>(std::size(kLate)) - 1)];
    SCOPED_TRACE("seed " + std::to_string(seed_) + ", teardown " + std::to_string(i) + " (" +
                 late.call + " " + late.inject + ")");
    if (before != nullptr) {
      mbnsim::Inject(before->call, "");
      mbnsim::SetDelay(before->call, 0);
    }
    before = &late;
    ASSERT_TRUE(mbnsim::Inject(late.call, late.inject));
    mbnsim::SetDelay(late.call, kTeardownWaitMs - 2 + Pick(0, 6));
    mbnsim::SetDelay("CloseCommandSession.Complete", Pick(0, 2));
    ClearLog();

    ASSERT_TRUE(worker.CheckMBIM());
    std::atomic<bool> stop{false};
    std::thread other(OtherClient, std::cref(stop));
    std::string text;
    std::string hex;
    worker.channel()->ExchangeCommand("AT+S" + std::to_string(Pick(0, 7)) + "\r\n", text, hex);
    contention.Burst(Pick(5, 15));
    worker.FreeMBIM();
    stop = true;
    other.join();
    WaitIdle();  // every completion has returned: the log is complete

    const auto msgs = messages();
    ASSERT_EQ(1, testing::CountOf(msgs, "Close event"));
    const int closed = testing::IndexOf(msgs, "Close event");
    int unadvised = -1;
    for (size_t at = 0; at < msgs.size() && unadvised < 0; ++at) {
      if (msgs[at].rfind("Unadvise:Event done", 0) == 0) unadvised = static_cast<int>(at);
    }
    ASSERT_GE(unadvised, 0);
    ASSERT_GT(closed, unadvised) << "destroyed before its teardown";
    for (size_t at = static_cast<size_t>(closed) + 1; at < msgs.size(); ++at) {
      EXPECT_FALSE(SinkLine(msgs[at])) << "after the sink was destroyed: " << msgs[at];
    }
    bool inside = false;
    for (size_t at = static_cast<size_t>(unadvised) + 1; at < static_cast<size_t>(closed); ++at) {
      inside = inside || SinkLine(msgs[at]);
    }
    met += inside ? 1 : 0;
  }
  const DWORD run_ms = ::GetTickCount() - run_start;
  ExpectNothingLeft();
  std::printf("channel stress: %d teardowns in %.1f s, %d with a completion in the sink\n",
              kTeardowns, run_ms / 1000.0, met);
  EXPECT_GT(met, 0) << "no teardown met a completion: the run proved nothing";
  if (HasFailure()) std::printf("channel stress FAILED: seed %u\n", seed_);
}

}  // namespace
}  // namespace dorvane
