#include "writer.h"

#include <algorithm>
#include <iomanip>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>

namespace triage {
namespace {

using Json = nlohmann::ordered_json;

template <typename T>
Json OrNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json(nullptr);
}

Json OrNull(const std::string& value) {
  return value.empty() ? Json(nullptr) : Json(value);
}

constexpr size_t kTitleWidth = 72;

std::string Cell(std::string text, size_t width) {
  if (text.size() > width) text = text.substr(0, width - 3) + "...";
  return text;
}

}  // namespace

void WriteJson(const std::vector<Panic>& panics, std::ostream& out) {
  for (const auto& p : panics) {
    Json row;
    row["path"] = p.path;
    row["archive"] = p.archive;
    row["number"] = OrNull(p.number);
    row["time"] = OrNull(p.time);
    row["phone"] = p.phone;
    row["error"] = OrNull(p.error);
    row["title"] = OrNull(p.title);
    row["from_record"] = p.from_record;
    row["signature"] = OrNull(p.signature);
    row["frames"] = p.frames;
    row["kernel"] = OrNull(p.kernel);
    row["cpu"] = OrNull(p.cpu);
    row["pid"] = OrNull(p.pid);
    row["comm"] = OrNull(p.comm);
    row["tainted"] = OrNull(p.tainted);
    row["corrupted"] = p.corrupted;
    row["cut_bytes"] = p.cut_bytes;
    row["also"] = p.also;
    row["restart_reason"] = OrNull(p.restart_reason);
    row["build"] = OrNull(p.build);
    row["process"] = OrNull(p.process);
    row["logged"] = OrNull(p.logged);
    row["kmsg"] = OrNull(p.kmsg_member);
    row["excerpt"] = p.excerpt;
    out << row.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
  }
}

std::vector<Group> GroupPanics(const std::vector<Panic>& panics) {
  std::map<std::string, Group> groups;
  for (const auto& p : panics) {
    if (!p.error.empty()) continue;
    Group& g = groups[p.signature];
    g.panics.push_back(&p);
    if (!p.time.empty() && (g.first.empty() || p.time < g.first)) g.first = p.time;
    if (!p.time.empty() && p.time > g.last) g.last = p.time;
    g.phones.insert(p.phone);
    if (!p.build.empty()) g.builds.insert(p.build);
  }
  std::vector<Group> order;
  order.reserve(groups.size());
  for (auto& [signature, group] : groups) order.push_back(std::move(group));
  std::stable_sort(order.begin(), order.end(), [](const Group& a, const Group& b) {
    return a.panics.size() > b.panics.size();
  });
  return order;
}

void WriteTable(const std::vector<Panic>& panics, std::ostream& out) {
  std::vector<Group> groups = GroupPanics(panics);
  std::vector<const Panic*> unread;
  for (const auto& p : panics) {
    if (!p.error.empty()) unread.push_back(&p);
  }
  size_t title_width = 5;
  for (const auto& g : groups) {
    title_width = std::max(title_width, std::min(kTitleWidth, g.panics[0]->title.size()));
  }
  auto dash = [](const std::string& s) { return s.empty() ? std::string("-") : s; };
  out << std::left << std::setw(6) << "COUNT" << std::setw(static_cast<int>(title_width) + 2)
      << "TITLE" << std::setw(21) << "FIRST" << std::setw(21) << "LAST" << std::setw(8) << "PHONES"
      << std::setw(8) << "BUILDS"
      << "EXAMPLE\n";
  for (const auto& g : groups) {
    const Panic& example = *g.panics.front();
    out << std::setw(6) << g.panics.size() << std::setw(static_cast<int>(title_width) + 2)
        << Cell(example.title, title_width) << std::setw(21) << dash(g.first) << std::setw(21)
        << dash(g.last) << std::setw(8) << g.phones.size() << std::setw(8) << g.builds.size()
        << example.path << '\n';
  }
  if (!unread.empty()) {
    out << "\nCould not be read:\n";
    for (const auto* p : unread) out << "  " << p->path << ": " << p->error << '\n';
  }
  const size_t read = panics.size() - unread.size();
  out << "\n"
      << read << (read == 1 ? " panic" : " panics") << " read in " << groups.size()
      << (groups.size() == 1 ? " group, " : " groups, ") << unread.size() << " could not be read\n";
}

}  // namespace triage
