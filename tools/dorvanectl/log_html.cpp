#include "tools/dorvanectl/log_html.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>

namespace dorvane::logread {

namespace {

// The drawing's geometry, in SVG units (one per CSS pixel).
constexpr double kLeft = 130, kWidth = 1000, kLaneHeight = 26, kLaneGap = 12, kTop = 10;
constexpr int kLanes = 6;  // service, modem, SIM, suspend/resume, registry, errors
const char* const kLaneNames[kLanes] = {"Service", "Modem", "SIM", "Suspend/resume", "Registry", "Errors"};

// Colours of the SIM segments, one per SIM in the order first seen.
const char* const kSimColours[] = {"#8e24aa", "#f9a825", "#00838f", "#6d4c41", "#d81b60", "#7cb342"};

size_t Utf8Length(const std::string& s, size_t at) {
  const unsigned char c = static_cast<unsigned char>(s[at]);
  const size_t n = c > 0xF4 ? 0 : c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 ? 2 : 0;
  if (n == 0 || at + n > s.size()) return 0;
  for (size_t i = 1; i < n; ++i) {
    if ((static_cast<unsigned char>(s[at + i]) & 0xC0) != 0x80) return 0;
  }
  const unsigned char c1 = static_cast<unsigned char>(s[at + 1]);
  if ((c == 0xE0 && c1 < 0xA0) || (c == 0xED && c1 > 0x9F) || (c == 0xF0 && c1 < 0x90) ||
      (c == 0xF4 && c1 > 0x8F)) {
    return 0;  // overlong, surrogate or beyond U+10FFFF
  }
  return n;
}

const char* HowItEnded(const Summary::Run& run) {
  switch (run.how) {
    case Summary::RunEnd::kStopped: return "stopped";
    case Summary::RunEnd::kRestarted: return "ended without a stop line (at its last line)";
    case Summary::RunEnd::kLogEnds: return "running when the log ends";
  }
  return "";
}

std::string Number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", value);
  return text;
}

class Page {
 public:
  Page(const Summary& summary, const HtmlInput& input) : s_(summary), in_(input) {
    const std::optional<int64_t> since = s_.window.since_ms(), until = s_.window.until_ms();
    t0_ = in_.first.known ? in_.first.Ms() : 0;
    t1_ = in_.last.known ? in_.last.Ms() : 0;
    if (since) t0_ = std::max(t0_, *since);
    if (until) t1_ = std::min(t1_, *until);
    if (since && !in_.first.known) t0_ = *since;
    if (t1_ <= t0_) t1_ = t0_ + 1000;
  }

  std::string Render() {
    out_ += "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n<title>";
    out_ += "Dorvane log: " + HtmlText(Files()) + "</title>\n<style>\n" + Style() + "</style></head>\n<body>\n";
    out_ += "<h1>WWAN Dorvane log</h1>\n<p class=\"files\">" + HtmlText(Files()) + "</p>\n";
    out_ += "<p>" + Period() + "</p>\n";
    Timeline();
    Tables();
    out_ += "</body></html>\n";
    return out_;
  }

 private:
  std::string Files() const {
    std::string files;
    for (const std::string& f : in_.files) files += (files.empty() ? "" : ", ") + f;
    return files;
  }

  std::string Period() const {
    std::string text = std::to_string(in_.records) + " records, " + std::to_string(in_.unreadable_lines) +
                       " unreadable lines. ";
    if (!in_.first.known) return text + "No timed line.";
    return text + "From " + TimeText(in_.first, in_.year) + " to " + TimeText(in_.last, in_.year) + " (" +
           LengthText(in_.last.Ms() - in_.first.Ms()) + ").";
  }

  static std::string Style() {
    return "body{font-family:sans-serif;margin:16px;color:#212121;background:#fff}\n"
           "h1{font-size:20px}h2{font-size:16px;margin-top:24px}\n"
           "table{border-collapse:collapse;font-size:13px}\n"
           "td,th{border:1px solid #bdbdbd;padding:3px 8px;text-align:left;vertical-align:top}\n"
           "th{background:#eeeeee}td.n{text-align:right}\n"
           "svg text{font-family:sans-serif;font-size:12px;fill:#424242}\n"
           ".files{font-family:monospace;font-size:12px}\n";
  }

  double X(int64_t ms) const {
    const double f = static_cast<double>(std::clamp(ms, t0_, t1_) - t0_) / static_cast<double>(t1_ - t0_);
    return kLeft + f * kWidth;
  }
  static double LaneY(int lane) { return kTop + lane * (kLaneHeight + kLaneGap); }

  // A bar from `from` to `to` in `lane`, at least a pixel wide.
  void Bar(int lane, const char* cls, const std::string& colour, int64_t from, int64_t to,
           const std::string& title, const std::string& data) {
    const double x0 = X(from), x1 = std::max(X(to), x0 + 1.0);
    svg_ += "<rect class=\"" + std::string(cls) + "\" x=\"" + Number(x0) + "\" y=\"" + Number(LaneY(lane) + 3) +
            "\" width=\"" + Number(x1 - x0) + "\" height=\"" + Number(kLaneHeight - 6) + "\" fill=\"" + colour +
            "\"" + data + "><title>" + HtmlText(title) + "</title></rect>\n";
  }

  // A mark: a triangle pointing down (suspend) or up (resume), a diamond
  // (registry), or a tick (error), with its log line as the title.
  void Mark(const Summary::Mark& m) {
    std::string shape, colour, cls = KindName(m.kind);
    const double x = X(m.at.time.Ms());
    const double y = LaneY(3), h = kLaneHeight;
    auto p = [](double a, double b) { return Number(a) + "," + Number(b) + " "; };
    switch (m.kind) {
      case Kind::kSuspend:
        shape = "<polygon points=\"" + p(x - 6, y + 4) + p(x + 6, y + 4) + p(x, y + h - 4) + "\"";
        colour = "#5e35b1";
        break;
      case Kind::kResume:
        shape = "<polygon points=\"" + p(x - 6, y + h - 4) + p(x + 6, y + h - 4) + p(x, y + 4) + "\"";
        colour = "#00897b";
        break;
      case Kind::kRegistryChange: {
        const double c = LaneY(4) + h / 2;
        shape = "<polygon points=\"" + p(x, c - 8) + p(x + 6, c) + p(x, c + 8) + p(x - 6, c) + "\"";
        colour = "#ef6c00";
        break;
      }
      case Kind::kError:
        shape = "<rect x=\"" + Number(x - 1.5) + "\" y=\"" + Number(LaneY(5) + 3) + "\" width=\"3\" height=\"" +
                Number(h - 6) + "\"";
        colour = "#c62828";
        break;
      default:
        return;
    }
    svg_ += "<g class=\"mark " + cls + "\" data-line=\"" + std::to_string(m.at.line) + "\">" + shape +
            " fill=\"" + colour + "\"/><title>" + HtmlText(m.original) + "</title></g>\n";
  }

  std::string Where(const Summary::Point& p) const {
    return (p.file < in_.files.size() ? in_.files[p.file] : std::string("?")) + ":" + std::to_string(p.line);
  }

  void Timeline() {
    const double height = LaneY(kLanes) + 30;
    svg_ += "<svg id=\"timeline\" xmlns=\"http://www.w3.org/2000/svg\" width=\"" + Number(kLeft + kWidth + 20) +
            "\" height=\"" + Number(height) + "\" viewBox=\"0 0 " + Number(kLeft + kWidth + 20) + " " +
            Number(height) + "\">\n";
    for (int lane = 0; lane < kLanes; ++lane) {
      svg_ += "<text x=\"8\" y=\"" + Number(LaneY(lane) + kLaneHeight / 2 + 4) + "\">" + kLaneNames[lane] + "</text>\n";
      svg_ += "<rect class=\"lane\" x=\"" + Number(kLeft) + "\" y=\"" + Number(LaneY(lane)) + "\" width=\"" +
              Number(kWidth) + "\" height=\"" + Number(kLaneHeight) + "\" fill=\"#f5f5f5\"/>\n";
    }
    if (!in_.errors_only) Lanes();
    for (const Summary::Mark& m : s_.marks.items) {
      if (!in_.errors_only || m.kind == Kind::kError) Mark(m);
    }
    // The axis: the two ends and three times between.
    const double axis = LaneY(kLanes) + 2;
    for (int i = 0; i <= 4; ++i) {
      const int64_t t = t0_ + (t1_ - t0_) * i / 4;
      Stamp at = StampAt(t);
      const char* anchor = i == 0 ? "start" : i == 4 ? "end" : "middle";
      svg_ += "<text class=\"tick\" x=\"" + Number(X(t)) + "\" y=\"" + Number(axis + 14) + "\" text-anchor=\"" +
              anchor + "\">" + HtmlText(TimeText(at, in_.year).substr(0, in_.year ? 16 : 11)) + "</text>\n";
    }
    svg_ += "</svg>\n";
    out_ += svg_;
    if (s_.marks.dropped || s_.runs.dropped) {
      out_ += "<p>Not drawn: " + std::to_string(s_.marks.dropped + s_.runs.dropped) +
              " happenings beyond the first " + std::to_string(Summary::kMaxListed) +
              " of a kind; narrow the period with --since and --until.</p>\n";
    }
  }

  // The stamp of a moment between the first and last records: found from the
  // first record's year count and the calendar (for the axis only).
  Stamp StampAt(int64_t ms) const {
    Stamp s = in_.first;
    if (!s.known) return s;
    const int64_t days = ms / 86400000;
    int64_t rest = ms % 86400000;
    // Civil date of `days` (days from 1970-01-01).
    int64_t z = days + 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const int64_t doe = z - era * 146097;
    const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const int64_t mp = (5 * doy + 2) / 153;
    const int64_t d = doy - (153 * mp + 2) / 5 + 1;
    const int64_t m = mp < 10 ? mp + 3 : mp - 9;
    const int64_t y = yoe + era * 400 + (m <= 2);
    s.year = static_cast<int>(y - 2001);
    s.month = static_cast<int>(m);
    s.day = static_cast<int>(d);
    s.hour = static_cast<int>(rest / 3600000);
    rest %= 3600000;
    s.minute = static_cast<int>(rest / 60000);
    s.second = static_cast<int>(rest % 60000 / 1000);
    s.millisecond = static_cast<int>(rest % 1000);
    return s;
  }

  // The service, modem and SIM lanes, from the runs and the marks in time order.
  void Lanes() {
    for (const Summary::Run& run : s_.runs.items) {
      const int64_t from = run.start && run.start->time.known ? run.start->time.Ms() : t0_;
      const int64_t to = run.end && run.end->time.known ? run.end->time.Ms() : t1_;
      std::string title = "Service run: ";
      title += run.start ? TimeText(run.start->time, in_.year) + " (" + Where(*run.start) + ")" : "before the log";
      title += " to " + (run.end ? TimeText(run.end->time, in_.year) : std::string("?"));
      title += std::string(", ") + HowItEnded(run);
      if (run.Ms() >= 0) title += " (" + LengthText(run.Ms()) + ")";
      Bar(0, "run", "#2e7d32", from, to, title, "");
    }
    // Presence of the modem and the SIM: opened by an arrival or a SIM read,
    // closed by a removal or the end of the run they are in.
    struct Change {
      int64_t ms;
      int what;  // 0 run end, 1 removal, 2 arrival, 3 SIM read
      const Summary::Mark* mark;
    };
    std::vector<Change> changes;
    for (const Summary::Run& run : s_.runs.items) {
      if (run.end && run.end->time.known) changes.push_back({run.end->time.Ms(), 0, nullptr});
    }
    for (const Summary::Mark& m : s_.marks.items) {
      if (!m.at.time.known) continue;
      if (m.kind == Kind::kModemRemoval) changes.push_back({m.at.time.Ms(), 1, &m});
      if (m.kind == Kind::kModemArrival) changes.push_back({m.at.time.Ms(), 2, &m});
      if (m.kind == Kind::kSim) changes.push_back({m.at.time.Ms(), 3, &m});
    }
    std::stable_sort(changes.begin(), changes.end(),
                     [](const Change& a, const Change& b) { return a.ms < b.ms; });
    std::optional<std::pair<int64_t, const Summary::Mark*>> modem, sim;
    std::map<std::string, size_t> sim_colour;
    auto close_modem = [&](int64_t at, const std::string& how) {
      if (!modem) return;
      Bar(1, "modem", "#1565c0", modem->first, at, "Modem present from " + modem->second->original + how, "");
      modem.reset();
    };
    auto close_sim = [&](int64_t at) {
      if (!sim) return;
      const std::string& id = sim->second->detail;
      const size_t colour = sim_colour.emplace(id, sim_colour.size()).first->second;
      Bar(2, "sim", kSimColours[colour % std::size(kSimColours)], sim->first, at,
          "SIM, home provider " + id + ": " + sim->second->original, " data-sim=\"" + HtmlText(id) + "\"");
      sim.reset();
    };
    for (const Change& c : changes) {
      if (c.what <= 1) {
        close_modem(c.ms, c.what == 0 ? " to the end of the run" : " to " + c.mark->original);
        close_sim(c.ms);
      } else {
        if (!modem) modem = std::make_pair(c.ms, c.mark);
        if (c.what == 3) {
          if (sim && sim->second->detail != c.mark->detail) close_sim(c.ms);
          if (!sim) sim = std::make_pair(c.ms, c.mark);
        }
      }
    }
    close_modem(t1_, " to the end of the log");
    close_sim(t1_);
  }

  void Tables() {
    const int y = in_.year;
    if (!in_.errors_only) {
      out_ += "<h2>Service runs</h2>\n<table id=\"runs\"><tr><th>Start</th><th>End</th><th>Length</th><th>How it ended</th></tr>\n";
      for (const Summary::Run& run : s_.runs.items) {
        out_ += "<tr><td>" + (run.start ? HtmlText(TimeText(run.start->time, y)) : std::string("before the log")) +
                "</td><td>" + (run.end ? HtmlText(TimeText(run.end->time, y)) : std::string("?")) +
                "</td><td class=\"n\">" +
                (run.Ms() >= 0 ? LengthText(run.Ms()) : std::string("?")) + "</td><td>" + HowItEnded(run) +
                "</td></tr>\n";
      }
      out_ += "</table>\n<h2>SIMs</h2>\n<table id=\"sims\"><tr><th>ICCID</th><th>Home provider</th><th>Read</th><th>First</th><th>Last</th></tr>\n";
      for (const Summary::Sim& sim : s_.sims) {
        out_ += "<tr><td>" + HtmlText(sim.iccid) + "</td><td>" + HtmlText(sim.mccmnc) + "</td><td class=\"n\">" +
                std::to_string(sim.count) + "</td><td>" + HtmlText(TimeText(sim.first.time, y)) + "</td><td>" +
                HtmlText(TimeText(sim.last.time, y)) + "</td></tr>\n";
      }
      out_ += "</table>\n";
    }
    out_ += "<h2>Errors</h2>\n<table id=\"errors\"><tr><th>Lines</th><th>Text</th><th>First</th><th>Last</th><th>First at</th></tr>\n";
    for (const Summary::Error& e : s_.errors) {
      out_ += "<tr><td class=\"n\">" + std::to_string(e.count) + "</td><td>" + HtmlText(e.text) + "</td><td>" +
              HtmlText(TimeText(e.first.time, y)) + "</td><td>" + HtmlText(TimeText(e.last.time, y)) +
              "</td><td>" + HtmlText(Where(e.first)) + "</td></tr>\n";
    }
    if (s_.other_errors) {
      out_ += "<tr><td class=\"n\">" + std::to_string(s_.other_errors) + "</td><td colspan=\"4\">lines of further texts</td></tr>\n";
    }
    out_ += "</table>\n";
    if (in_.errors_only) return;
    out_ += "<h2>Counts</h2>\n<table id=\"counts\"><tr><th>Happening</th><th>Count</th></tr>\n";
    for (int k = 0; k < kKindCount; ++k) {
      out_ += std::string("<tr><td>") + KindName(static_cast<Kind>(k)) + "</td><td class=\"n\">" +
              std::to_string(s_.counts[k]) + "</td></tr>\n";
    }
    out_ += "</table>\n";
  }

  const Summary& s_;
  const HtmlInput& in_;
  int64_t t0_ = 0, t1_ = 0;
  std::string out_;
  std::string svg_;
};

}  // namespace

std::string HtmlText(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 0x80) {
      const size_t n = Utf8Length(text, i);
      if (n == 0) {
        char cell[8];
        std::snprintf(cell, sizeof cell, "\\x%02X", c);
        out += cell;
        ++i;
      } else {
        out.append(text, i, n);
        i += n;
      }
      continue;
    }
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      default:
        if ((c < 0x20 && c != '\n' && c != '\t') || c == 0x7F) {
          char cell[8];
          std::snprintf(cell, sizeof cell, "\\x%02X", c);
          out += cell;
        } else {
          out += static_cast<char>(c);
        }
    }
    ++i;
  }
  return out;
}

std::string RenderHtml(const Summary& summary, const HtmlInput& input) {
  return Page(summary, input).Render();
}

}  // namespace dorvane::logread
