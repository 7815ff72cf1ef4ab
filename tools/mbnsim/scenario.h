// The simulated modem's scenario: what the Mobile Broadband simulator answers.
//
// The scenario lives in the registry under HKLM\SOFTWARE\Dorvane\MbnSim, so that
// every process of a Wine prefix (or a Windows machine) sees the same modem: the
// service that loads the simulator, a test in the same process, and the control
// program mbnsimctl. A change takes effect at the simulator's next call, also
// while the service runs.
//
//   HKLM\SOFTWARE\Dorvane\MbnSim
//     Interfaces\0, 1, ...   one key per interface, in array order:
//                            InterfaceID, ReadyState (DWORD), ICCID, SubscriberID,
//                            HomeProviderID, HomeProviderName, RegisteredProviderID,
//                            and Inject\<call> for failures of that interface only
//     Inject\<call>          a failure of every object (the calls are listed in
//                            calls.h): "0x80004005" (an HRESULT
//                            to return), "null" (succeed, hand out a null pointer),
//                            for GetInterfaces also "wrongtype" and "nullelement";
//                            for a completion (<call>.Complete) "none" (it never
//                            comes), an HRESULT (its status; the session does
//                            not change), "wrongid" (the id of the request before),
//                            "empty" (no answer bytes), "early" (delivered before
//                            the call returns), "twice" (delivered two times),
//                            "split" (the answer in three fragments, one
//                            completion each, same request id)
//     Replies\<COMMAND>      the answer bytes for an AT command, instead of the
//                            built-in responder's
//     Delay\<call>           milliseconds the call takes before it answers; for
//                            <call>.Complete, how long after the call the
//                            completion is delivered
//     Options                DeliveryThreads (DWORD, default 2): threads that
//                            deliver events and completions, concurrently;
//                            MaxCommandSize (DWORD, default 4096);
//                            UnadviseWaits (DWORD, default 1): 0 makes Unadvise
//                            return while a call into the sink still runs
//     Events                 Seq (DWORD) and E<seq> = "arrival <id>" / "removal <id>"
//
//   HKLM\SOFTWARE\Dorvane\MbnSimState   what the simulator records as it runs:
//     Sessions\<interface id> Open, Opens, Closes of the AT command session
//     LastCommand            ID, Type, Bytes, Count of the last SetCommand
//     Counters\<pid>         what each process did wrong or left behind, and the
//                            interface events delivered to its sinks
#pragma once

#include <windows.h>
#include <wtypes.h>

#include <string>
#include <vector>

#include "tools/mbnsim/calls.h"

namespace mbnsim {

struct InterfaceInfo {
  std::string interface_id;
  DWORD ready_state = 1;  // MBN_READY_STATE_INITIALIZED
  std::string iccid;
  std::string subscriber_id;
  std::string home_provider_id;
  std::string home_provider_name;
  std::string registered_provider_id;
};

// The text fields of an interface by their registry value names; the one
// number, ReadyState, is a DWORD value of its own.
struct TextField {
  const char* name;
  std::string InterfaceInfo::*member;
};
inline const TextField kTextFields[] = {
    {"InterfaceID", &InterfaceInfo::interface_id},
    {"ICCID", &InterfaceInfo::iccid},
    {"SubscriberID", &InterfaceInfo::subscriber_id},
    {"HomeProviderID", &InterfaceInfo::home_provider_id},
    {"HomeProviderName", &InterfaceInfo::home_provider_name},
    {"RegisteredProviderID", &InterfaceInfo::registered_provider_id}};
inline constexpr char kReadyStateField[] = "ReadyState";

// Every field's name, as SetField takes them.
std::vector<std::string> InterfaceFieldNames();

// A modem as it comes out of the box: the n-th default interface. Interfaces
// from 256 on repeat the ids of those before.
InterfaceInfo DefaultInterface(int n);

struct Injection {
  enum Kind {
    kNone, kFail, kNull, kWrongType, kNullElement,
    // Completions only:
    kNoCompletion, kWrongId, kEmpty, kEarly, kTwice, kSplit
  };
  Kind kind = kNone;
  HRESULT hr = S_OK;
};

// The words an injection may be instead of an HRESULT, and the CallTrait a call
// needs to honour each ("" clears and is no word).
struct InjectionWord {
  const char* text;
  Injection::Kind kind;
  unsigned needs;
};
inline constexpr InjectionWord kInjectionWords[] = {
    {"null", Injection::kNull, kTakesNull},
    {"wrongtype", Injection::kWrongType, kTakesArrayShapes},
    {"nullelement", Injection::kNullElement, kTakesArrayShapes},
    {"none", Injection::kNoCompletion, kCompletion},
    {"wrongid", Injection::kWrongId, kCompletion},
    {"empty", Injection::kEmpty, kCompletion},
    {"early", Injection::kEarly, kCompletion},
    {"twice", Injection::kTwice, kCompletion},
    {"split", Injection::kSplit, kCompletion}};

// Whether `call` honours an injection of `kind`: every call an HRESULT (and
// kNone), the words only the calls with their trait.
bool CallTakes(Call call, Injection::Kind kind);

// Per-process counters of the client's mistakes and leftovers.
struct Counters {
  DWORD live_objects = 0;   // handed out and not yet released
  DWORD advised_sinks = 0;  // advised and not yet unadvised
  DWORD bad_releases = 0;   // Release on an object whose count was already 0
  DWORD bad_unadvises = 0;  // Unadvise with a cookie this point never gave out
  DWORD pending_completions = 0;  // deliveries (events, completions) queued, not yet made
  // Not leftovers: how many interface events the process's sinks were given.
  DWORD arrivals_delivered = 0;
  DWORD removals_delivered = 0;
};

struct Event {
  enum Kind { kArrival, kRemoval };
  Kind kind = kArrival;
  std::string interface_id;
};

// -- reading (the simulator) ---------------------------------------------------
std::vector<InterfaceInfo> ReadInterfaces();
// The index of the interface with this id, or -1 if it is gone.
int FindInterface(const std::string& interface_id, InterfaceInfo* info);
// The injection for `call` on interface `index` (-1: objects of no interface);
// an interface's own injection wins over the global one.
Injection ReadInjection(Call call, int index = -1);
// The command session of the AT device service of interface `index`.
bool SessionOpen(int index);
void SetSessionOpen(int index, bool open);
// How often sessions were opened and closed on interface `index`.
void SessionCounts(int index, DWORD* opens, DWORD* closes);

// An AT command as replies are keyed: CR, LF and blanks around it removed,
// upper case.
std::string NormaliseCommand(const std::string& payload);

// The scripted answer for an AT command, if one is set.
bool ReadReply(const std::string& command, std::string* bytes);

struct SentCommand {
  DWORD command_id = 0;
  VARTYPE type = VT_EMPTY;  // of the payload array
  std::string bytes;
  DWORD count = 0;  // commands sent since the reset
};
void RecordCommand(const SentCommand& sent);
bool ReadLastCommand(SentCommand* sent);

// Milliseconds that `call` is to take (0 when none is set).
DWORD ReadDelay(Call call);
// A value under Options, or `fallback` when it is not set.
DWORD ReadOption(const std::string& name, DWORD fallback);
// The options by name, as SetOption takes them.
inline constexpr const char* kOptionNames[] = {"DeliveryThreads", "MaxCommandSize",
                                               "UnadviseWaits"};
inline constexpr DWORD kDefaultDeliveryThreads = 2;
inline constexpr DWORD kMaxDeliveryThreads = 16;
inline constexpr DWORD kDefaultMaxCommandSize = 4096;
inline constexpr DWORD kDefaultUnadviseWaits = 1;
DWORD EventSeq();
bool ReadEvent(DWORD seq, Event* event);
void PublishCounters(DWORD pid, const Counters& counters);

// -- control (tests, mbnsimctl) ------------------------------------------------
// Forgets interfaces, injections, delays, replies, the last command and
// counters; keeps the event sequence going.
void Reset();
void SetInterfaces(const std::vector<InterfaceInfo>& interfaces);
bool SetField(int index, const std::string& field, const std::string& value);
// `what`: an HRESULT ("0x8000FFFF"), "null", "wrongtype", "nullelement",
// "none", "wrongid", "empty", "early", "twice", "split", or "" to clear.
bool Inject(const std::string& call, const std::string& what, int index = -1);
// Sets the answer bytes for an AT command; empty `bytes` clears it.
void SetReply(const std::string& command, const std::string& bytes);

// Makes `call` answer `ms` milliseconds late (0 clears).
void SetDelay(const std::string& call, DWORD ms);
// Sets an option (DeliveryThreads, MaxCommandSize, UnadviseWaits); false for
// an unknown name.
bool SetOption(const std::string& name, DWORD value);
// Forgets an option, so that its default holds again.
bool ClearOption(const std::string& name);
// Adds an interface at the end and announces its arrival.
void Arrive(const InterfaceInfo& info);
// Announces the removal of interface `index` and takes it away.
bool Remove(int index);
bool ReadCounters(DWORD pid, Counters* counters);
std::vector<std::pair<DWORD, Counters>> AllCounters();

// Parses an injection text; false when it is none of the accepted forms.
bool ParseInjection(const std::string& text, Injection* out);

}  // namespace mbnsim
