#include "html.h"

#include <time.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "writer.h"

namespace triage {
namespace {

constexpr size_t kNamedGroups = 8;  // the chart names the most frequent groups; the rest: "other"
constexpr size_t kGroupsOpen = 20;  // group sections shown open, the later ones folded
constexpr size_t kGroupRows = 50;   // rows of the groups table before the rest are folded
constexpr size_t kPanicRows = 10;   // rows of a group's panics before the rest are folded
constexpr long kSecondsPerDay = 86400;

// A colour per named group, then grey for "other": a qualitative palette, each distinct on white.
constexpr const char* kColours[kNamedGroups + 1] = {"#4e79a7", "#f28e2b", "#e15759",
                                                    "#76b7b2", "#59a14f", "#edc948",
                                                    "#b07aa1", "#9c755f", "#bab0ac"};

// The chart's frame, in the units of the SVG's viewBox, which text sizes share.
constexpr double kWidth = 960;
constexpr double kHeight = 300;
constexpr double kLeft = 56;
constexpr double kRight = 16;
constexpr double kTop = 12;
constexpr double kBottom = 48;
constexpr double kLabelWidth = 96;  // room under the axis for one "YYYY-MM-DD"

constexpr const char* kStyle = R"(
:root { color-scheme: light; }
body { font: 14px/1.45 system-ui, sans-serif; color: #1f2328; max-width: 1200px;
       margin: 24px auto; padding: 0 16px; }
h1 { font-size: 22px; margin: 0 0 4px; }
h2 { font-size: 18px; margin: 32px 0 8px; padding-bottom: 4px; border-bottom: 1px solid #d0d7de; }
h3 { font-size: 15px; display: inline; }
a { color: #0a5cb8; text-decoration: none; }
a:hover { text-decoration: underline; }
table { border-collapse: collapse; width: 100%; table-layout: fixed; }
th, td { text-align: left; vertical-align: top; padding: 4px 8px; border-bottom: 1px solid #eaeef2;
         overflow-wrap: anywhere; }
th { background: #f6f8fa; font-weight: 600; white-space: nowrap; }
td.time { white-space: nowrap; }
.n { text-align: right; font-variant-numeric: tabular-nums; }
code, pre, .mono { font-family: ui-monospace, monospace; font-size: 12.5px; }
pre { background: #f6f8fa; border: 1px solid #d0d7de; border-radius: 4px; padding: 8px;
      overflow-x: auto; margin: 4px 0 0; }
mark { background: #fff1a8; display: inline-block; min-width: 100%; }
.meta, .note, .empty { color: #57606a; }
.empty { font-style: italic; }
details.group { margin: 12px 0; padding: 8px 12px; border: 1px solid #d0d7de; border-radius: 6px; }
details.group > summary { cursor: pointer; }
details.more > summary { cursor: pointer; color: #0a5cb8; margin: 6px 0; }
svg.chart { width: 100%; height: auto; display: block; }
svg.chart text { font: 12px system-ui, sans-serif; fill: #57606a; }
svg.chart .grid { stroke: #eaeef2; }
svg.chart .axis { stroke: #57606a; }
ul.legend { list-style: none; padding: 0; margin: 8px 0; columns: 2 360px; }
ul.legend li { margin: 2px 0; break-inside: avoid; }
.swatch { display: inline-block; width: 12px; height: 12px; border-radius: 2px; margin-right: 6px;
          vertical-align: -1px; }
)";

// |text| as HTML text or a quoted attribute's value: archives are hostile input.
std::string Escape(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string Dash(const std::string& text) {
  return text.empty() ? std::string("-") : Escape(text);
}

// "1 panic", "2 panics".
std::string Counted(size_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string Number(double value) {
  std::array<char, 32> text{};
  (void)std::snprintf(text.data(), text.size(), "%.1f", value);
  return text.data();
}

// The day of an archive's |time|, "YYYY-MM-DD HH:MM:SS", as days since 1970; none without one.
std::optional<long> DayOf(const std::string& time) {
  std::tm tm{};
  if (time.size() < 10 || strptime(time.substr(0, 10).c_str(), "%Y-%m-%d", &tm) == nullptr) {
    return std::nullopt;
  }
  return static_cast<long>(timegm(&tm) / kSecondsPerDay);
}

std::string DayName(long day) {
  const time_t at = day * kSecondsPerDay;
  std::tm tm{};
  gmtime_r(&at, &tm);
  std::array<char, 32> text{};
  (void)std::strftime(text.data(), text.size(), "%Y-%m-%d", &tm);
  return text.data();
}

// The step between the count axis's ticks: 1, 2 or 5 times a power of ten, five steps at most.
size_t TickStep(size_t most) {
  for (size_t power = 1;; power *= 10) {
    for (size_t times : {1, 2, 5}) {
      if (most <= times * power * 5) return times * power;
    }
  }
}

// The builds of a group's earliest and latest panic that name one.
std::pair<std::string, std::string> FirstAndLastBuild(const Group& group) {
  const Panic* first = nullptr;
  const Panic* last = nullptr;
  for (const Panic* p : group.panics) {
    if (p->build.empty()) continue;
    if (first == nullptr || p->time < first->time) first = p;
    if (last == nullptr || p->time >= last->time) last = p;
  }
  if (first == nullptr) return {};
  return {first->build, last->build};
}

// The excerpt's line that names the title's guilty frame as a whole word, else its first.
size_t TitleLine(const Panic& panic) {
  if (panic.frames.empty()) return 0;
  const std::string& frame = panic.frames[0];
  auto word = [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.' || c == '$';
  };
  for (size_t i = 0; i < panic.excerpt.size(); ++i) {
    const std::string& line = panic.excerpt[i];
    for (size_t at = line.find(frame); at != std::string::npos; at = line.find(frame, at + 1)) {
      const size_t end = at + frame.size();
      if ((at == 0 || !word(line[at - 1])) && (end == line.size() || !word(line[end]))) return i;
    }
  }
  return 0;
}

// A table whose rows after the first |shown| go in a fold, laid out only when opened, so that a
// page of 10,000 panics stays quick. |head| opens the table; |row| writes row |i|.
template <typename WriteRow>
void FoldedTable(std::ostream& out, const std::string& head, size_t rows, size_t shown,
                 const char* noun, WriteRow row) {
  out << head << "<tbody>\n";
  for (size_t i = 0; i < std::min(rows, shown); ++i) row(i);
  out << "</tbody></table>\n";
  if (rows <= shown) return;
  out << "<details class=\"more\"><summary>" << Counted(rows - shown, std::string("more ") + noun)
      << "</summary>\n"
      << head << "<tbody>\n";
  for (size_t i = shown; i < rows; ++i) row(i);
  out << "</tbody></table></details>\n";
}

void WriteGroupsTable(const std::vector<Group>& groups, std::ostream& out) {
  if (groups.empty()) {
    out << "<p class=\"empty\">No panic could be read.</p>\n";
    return;
  }
  const std::string head =
      "<table class=\"groups\"><colgroup><col style=\"width:5em\"><col><col style=\"width:5.5em\">"
      "<col style=\"width:24%\"><col style=\"width:12.5em\"><col style=\"width:12.5em\"></colgroup>"
      "<thead><tr><th class=\"n\">Count</th><th>Title</th><th class=\"n\">Phones</th>"
      "<th>Builds, first and last</th><th>First</th><th>Last</th></tr></thead>";
  FoldedTable(out, head, groups.size(), kGroupRows, "group", [&](size_t i) {
    const Group& g = groups[i];
    const Panic& example = *g.panics.front();
    const auto [first_build, last_build] = FirstAndLastBuild(g);
    std::string builds = Dash(first_build);
    if (last_build != first_build) builds += "<br>to " + Escape(last_build);
    if (g.builds.size() > 2) builds += " (" + std::to_string(g.builds.size()) + " builds)";
    const std::string signature = Escape(example.signature);
    out << "<tr data-group=\"" << signature << "\"><td class=\"n\">" << g.panics.size()
        << "</td><td><a href=\"#g-" << signature << "\">" << Escape(example.title)
        << "</a></td><td class=\"n\">" << g.phones.size() << "</td><td class=\"mono\">" << builds
        << "</td><td class=\"time\">" << Dash(g.first) << "</td><td class=\"time\">" << Dash(g.last)
        << "</td></tr>\n";
  });
}

void WriteChart(const std::vector<Group>& groups, std::ostream& out) {
  const size_t named = std::min(groups.size(), kNamedGroups);
  std::map<long, std::vector<size_t>> days;  // per day, each named group's panics, "other" last
  size_t undated = 0;
  for (size_t g = 0; g < groups.size(); ++g) {
    for (const Panic* p : groups[g].panics) {
      const std::optional<long> day = DayOf(p->time);
      if (!day) {
        ++undated;
        continue;
      }
      std::vector<size_t>& counts = days[*day];
      counts.resize(named + 1);
      ++counts[std::min(g, named)];
    }
  }
  if (days.empty()) {
    out << "<p class=\"empty\">No panic read has a time in its archive's name: nothing to chart."
           "</p>\n";
    return;
  }
  size_t most = 0;
  for (const auto& [day, counts] : days) {
    size_t total = 0;
    for (size_t count : counts) total += count;
    most = std::max(most, total);
  }
  const size_t step = TickStep(most);
  const size_t top = (most + step - 1) / step * step;
  const long first = days.begin()->first;
  const long span = days.rbegin()->first - first + 1;
  const double plot_width = kWidth - kLeft - kRight;
  const double plot_height = kHeight - kTop - kBottom;
  const double bottom = kTop + plot_height;
  const double slot = plot_width / static_cast<double>(span);
  const double bar = std::max(slot * 0.8, 1.0);
  auto y = [&](size_t count) {
    return bottom - plot_height * static_cast<double>(count) / static_cast<double>(top);
  };

  out << "<svg class=\"chart\" viewBox=\"0 0 " << kWidth << ' ' << kHeight
      << "\" role=\"img\" aria-label=\"Panics per day, stacked by group\">\n";
  for (size_t v = 0; v <= top; v += step) {
    out << "<line class=\"grid\" x1=\"" << kLeft << "\" x2=\"" << kWidth - kRight << "\" y1=\""
        << Number(y(v)) << "\" y2=\"" << Number(y(v)) << "\"/><text x=\"" << kLeft - 8 << "\" y=\""
        << Number(y(v) + 4) << "\" text-anchor=\"end\">" << v << "</text>\n";
  }
  const long every = std::max(1L, static_cast<long>(std::ceil(kLabelWidth / slot)));
  for (long d = 0; d < span; d += every) {
    const double x = kLeft + slot * (static_cast<double>(d) + 0.5);
    out << "<line class=\"axis\" x1=\"" << Number(x) << "\" x2=\"" << Number(x) << "\" y1=\""
        << bottom << "\" y2=\"" << bottom + 4 << "\"/><text x=\"" << Number(x) << "\" y=\""
        << bottom + 18 << "\" text-anchor=\"middle\">" << DayName(first + d) << "</text>\n";
  }
  out << "<line class=\"axis\" x1=\"" << kLeft << "\" x2=\"" << kWidth - kRight << "\" y1=\""
      << bottom << "\" y2=\"" << bottom << "\"/>\n<line class=\"axis\" x1=\"" << kLeft << "\" x2=\""
      << kLeft << "\" y1=\"" << kTop << "\" y2=\"" << bottom << "\"/>\n"
      << "<text x=\"" << kLeft + plot_width / 2 << "\" y=\"" << kHeight - 6
      << "\" text-anchor=\"middle\">day of the archive's time</text>\n"
      << "<text transform=\"translate(14 " << kTop + plot_height / 2
      << ") rotate(-90)\" text-anchor=\"middle\">panics</text>\n";
  for (const auto& [day, counts] : days) {
    const double x = kLeft + slot * static_cast<double>(day - first) + (slot - bar) / 2;
    size_t below = 0;
    for (size_t s = 0; s <= named; ++s) {
      if (counts[s] == 0) continue;
      const std::string group = s < named ? Escape(groups[s].panics.front()->signature) : "other";
      const std::string name = s < named ? Escape(groups[s].panics.front()->title) : "other groups";
      out << "<rect data-group=\"" << group << "\" data-day=\"" << DayName(day) << "\" x=\""
          << Number(x) << "\" y=\"" << Number(y(below + counts[s])) << "\" width=\"" << Number(bar)
          << "\" height=\"" << Number(y(below) - y(below + counts[s])) << "\" fill=\""
          << kColours[s] << "\"><title>" << DayName(day) << ": " << counts[s] << ", " << name
          << "</title></rect>\n";
      below += counts[s];
    }
  }
  out << "</svg>\n<ul class=\"legend\">\n";
  size_t others = 0;
  for (size_t g = 0; g < groups.size(); ++g) {
    if (g >= named) {
      others += groups[g].panics.size();
      continue;
    }
    const Panic& example = *groups[g].panics.front();
    out << "<li><span class=\"swatch\" style=\"background:" << kColours[g]
        << "\"></span><a href=\"#g-" << Escape(example.signature) << "\">" << Escape(example.title)
        << "</a> (" << groups[g].panics.size() << ")</li>\n";
  }
  if (others > 0) {
    out << "<li><span class=\"swatch\" style=\"background:" << kColours[named]
        << "\"></span>other: " << Counted(groups.size() - named, "group") << " (" << others
        << ")</li>\n";
  }
  out << "</ul>\n";
  if (undated > 0) {
    out << "<p class=\"note\">" << Counted(undated, "panic")
        << " with no time in the archive's name, not charted.</p>\n";
  }
}

void WriteGroup(const Group& group, bool open, std::ostream& out) {
  const Panic& example = *group.panics.front();
  out << "<details class=\"group\" id=\"g-" << Escape(example.signature) << "\""
      << (open ? " open" : "") << "><summary><h3>" << Escape(example.title)
      << "</h3> <span class=\"meta\">" << Counted(group.panics.size(), "panic") << " on "
      << Counted(group.phones.size(), "phone")
      << "</span></summary>\n<p class=\"meta\">Signature <code>" << Escape(example.signature)
      << "</code>";
  if (!example.frames.empty()) {
    out << ", guilty frames";
    for (const auto& frame : example.frames) out << " <code>" << Escape(frame) << "</code>";
  }
  out << "</p>\n";

  std::vector<const Panic*> panics = group.panics;  // the newest first
  std::stable_sort(panics.begin(), panics.end(),
                   [](const Panic* a, const Panic* b) { return a->time > b->time; });
  const std::string head =
      "<table class=\"panics\"><colgroup><col style=\"width:12em\"><col style=\"width:24em\">"
      "<col style=\"width:12.5em\"><col></colgroup><thead><tr><th>Phone</th><th>Archive</th>"
      "<th>Time</th><th>Restart reason</th></tr></thead>";
  FoldedTable(out, head, panics.size(), kPanicRows, "panic", [&](size_t i) {
    const Panic& p = *panics[i];
    out << "<tr><td>" << Dash(p.phone) << "</td><td class=\"mono\" title=\"" << Escape(p.path)
        << "\">" << Dash(p.archive) << "</td><td class=\"time\">" << Dash(p.time)
        << "</td><td class=\"mono\">" << Dash(p.restart_reason) << "</td></tr>\n";
  });

  // A whole report reads better than a cut one, when the group has one.
  auto shown = std::find_if(panics.begin(), panics.end(),
                            [](const Panic* p) { return !p->excerpt.empty() && !p->corrupted; });
  if (shown == panics.end()) {
    shown = std::find_if(panics.begin(), panics.end(),
                         [](const Panic* p) { return !p->excerpt.empty(); });
  }
  if (shown == panics.end()) {
    out << "<p class=\"note\">The kernel log holds no crash report: the title is the exception "
           "record's.</p>\n";
  } else {
    const Panic& p = **shown;
    out << "<p class=\"meta\">The report in <span class=\"mono\" title=\"" << Escape(p.path)
        << "\">" << Escape(p.archive) << "</span> (" << Escape(p.kmsg_member) << ") of "
        << Escape(p.phone) << (p.corrupted ? ", cut off or mixed with other lines" : "")
        << ", the line naming the culprit marked:</p>\n<pre>";
    const size_t marked = TitleLine(p);
    for (size_t i = 0; i < p.excerpt.size(); ++i) {
      out << (i == marked ? "<mark>" : "") << Escape(p.excerpt[i]) << (i == marked ? "</mark>" : "")
          << '\n';
    }
    out << "</pre>\n";
  }
  out << "</details>\n";
}

}  // namespace

void WriteHtml(const std::vector<Panic>& panics, std::ostream& out) {
  const std::vector<Group> groups = GroupPanics(panics);
  std::vector<const Panic*> unread;
  std::set<std::string> phones;
  std::string first;
  std::string last;
  for (const auto& p : panics) {
    if (!p.error.empty()) {
      unread.push_back(&p);
      continue;
    }
    phones.insert(p.phone);
  }
  for (const auto& g : groups) {
    if (!g.first.empty() && (first.empty() || g.first < first)) first = g.first;
    last = std::max(last, g.last);
  }
  const size_t read = panics.size() - unread.size();

  out << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
      << "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
      << "<title>zq-triage: " << read << " panics in " << groups.size() << " groups</title>\n"
      << "<style>" << kStyle << "</style></head><body>\n<h1>Kernel panics</h1>\n<p class=\"meta\">"
      << Counted(read, "panic") << " read in " << Counted(groups.size(), "group") << " from "
      << Counted(phones.size(), "phone");
  if (!first.empty()) out << ", filed from " << first << " to " << last;
  out << "; " << unread.size() << " could not be read.</p>\n<h2>Groups</h2>\n";
  WriteGroupsTable(groups, out);
  out << "<h2>Panics per day</h2>\n";
  WriteChart(groups, out);
  if (!groups.empty()) out << "<h2>Each group</h2>\n";
  for (size_t i = 0; i < groups.size(); ++i) WriteGroup(groups[i], i < kGroupsOpen, out);
  if (!unread.empty()) {
    out << "<h2>Could not be read</h2>\n";
    const std::string head =
        "<table class=\"unread\"><colgroup><col><col style=\"width:40%\"></colgroup>"
        "<thead><tr><th>Path</th><th>Why</th></tr></thead>";
    FoldedTable(out, head, unread.size(), kPanicRows, "panic", [&](size_t i) {
      out << "<tr><td class=\"mono\">" << Escape(unread[i]->path) << "</td><td>"
          << Escape(unread[i]->error) << "</td></tr>\n";
    });
  }
  out << "</body></html>\n";
}

}  // namespace triage
