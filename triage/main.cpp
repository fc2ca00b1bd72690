// zq-triage: reads the panics the daemon filed and tells what crashed, changing nothing.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "html.h"
#include "parser.h"
#include "reader.h"
#include "writer.h"

namespace {

constexpr const char* kUsage =
    "usage: zq-triage [--json] [--html FILE] [--stdin] PATH...\n"
    "Reads the panics under each PATH (ZQpanic_<N>_<time>.tar.gz archives, their folders, pulled\n"
    "log partitions, any folder holding them) and prints one line per kind of crash, the most\n"
    "frequent first, then the panics that could not be read.\n"
    "  --json       one JSON object per panic per line instead\n"
    "  --html FILE  also write FILE, a page of the groups, panics per day and each group's\n"
    "               panics and report, that opens from disk\n"
    "  --stdin      read more paths from standard input, one a line\n"
    "Exit status: 0 every panic was read, 1 some could not be, 2 usage error or FILE could not\n"
    "be written.\n";

int Usage(const std::string& why) {
  std::cerr << "zq-triage: " << why << "\n" << kUsage;
  return 2;
}

void Triage(triage::Panic& panic) {
  try {
    triage::ReadPanic(panic);
    triage::Parse(panic);
  } catch (const std::exception& e) {
    panic.error = std::string("cannot be read: ") + e.what();
  }
  // What was read is not kept past its parse, so that memory does not grow with the input.
  std::string().swap(panic.kmsg);
  std::string().swap(panic.record);
}

}  // namespace

int main(int argc, char** argv) {
  bool json = false;
  bool from_stdin = false;
  std::string html;
  std::vector<std::string> paths;
  bool options = true;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];  // NOLINT(cppcoreguidelines-pro-bounds-pointer-arithmetic)
    if (options && arg == "--") {
      options = false;
    } else if (options && arg == "--json") {
      json = true;
    } else if (options && arg == "--html") {
      if (++i < argc) html = argv[i];  // NOLINT(cppcoreguidelines-pro-bounds-pointer-arithmetic)
      if (html.empty()) return Usage("--html needs a FILE");
    } else if (options && arg == "--stdin") {
      from_stdin = true;
    } else if (options && (arg == "-h" || arg == "--help")) {
      std::cout << kUsage;
      return 0;
    } else if (options && arg.size() > 1 && arg[0] == '-') {
      return Usage("unknown option " + arg);
    } else {
      paths.push_back(arg);
    }
  }
  if (from_stdin) {
    for (std::string line; std::getline(std::cin, line);) {
      if (!line.empty()) paths.push_back(line);
    }
  }
  if (paths.empty()) return Usage(from_stdin ? "no path on standard input" : "no PATH given");
  // Opened before the reading, so that a FILE that cannot be written costs no wait.
  std::ofstream page;
  if (!html.empty()) {
    page.open(html, std::ios::binary | std::ios::trunc);
    if (!page) {
      std::cerr << "zq-triage: cannot write " << html << ": " << std::strerror(errno) << "\n";
      return 2;
    }
  }

  std::vector<triage::Panic> panics = triage::FindPanics(paths);
  std::atomic<size_t> next{0};
  std::vector<std::thread> workers;
  size_t cores = std::max(1U, std::thread::hardware_concurrency());
  for (size_t w = 0; w < std::min(cores, panics.size()); ++w) {
    workers.emplace_back([&panics, &next] {
      for (size_t i = next++; i < panics.size(); i = next++) {
        if (panics[i].error.empty()) Triage(panics[i]);
      }
    });
  }
  for (auto& worker : workers) worker.join();

  size_t unread = std::count_if(panics.begin(), panics.end(),
                                [](const triage::Panic& p) { return !p.error.empty(); });
  if (json) {
    triage::WriteJson(panics, std::cout);
    std::cerr << "zq-triage: " << panics.size() - unread << " panics read, " << unread
              << " could not be read\n";
  } else {
    triage::WriteTable(panics, std::cout);
  }
  if (!html.empty()) {
    triage::WriteHtml(panics, page);
    page.close();
    if (!page) {
      std::cerr << "zq-triage: cannot write " << html << ": " << std::strerror(errno) << "\n";
      return 2;
    }
  }
  return unread == 0 ? 0 : 1;
}
