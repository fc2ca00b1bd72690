// zq-triage: reads the panics the daemon filed and tells what crashed, changing nothing.
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <mutex>
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

// From this many panics on, a terminal shows how far the run is.
constexpr size_t kProgressFrom = 100;
constexpr auto kProgressEvery = std::chrono::milliseconds(250);

// One line on standard error, rewritten in place: panics read, their rate and the time left.
// Only on a terminal: a log or a pipe gets nothing of it.
class Progress {
 public:
  explicit Progress(size_t total)
      : total_(total), shown_(total >= kProgressFrom && isatty(STDERR_FILENO) == 1) {
    if (!shown_) return;
    Show(0);  // at once, so that a long first panic does not leave the terminal blank
    thread_ = std::thread([this] {
      std::unique_lock<std::mutex> lock(mutex_);
      while (!cv_.wait_for(lock, kProgressEvery, [this] { return finished_; })) Show(done_);
    });
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Add() { ++done_; }

  // Erases the line, before the results are printed.
  ~Progress() {
    if (!shown_) return;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      finished_ = true;
    }
    cv_.notify_one();
    thread_.join();
    Write("\r\033[K");
  }

 private:
  static void Write(const std::string& text) {
    (void)!write(STDERR_FILENO, text.data(), text.size());  // a terminal gone is no reason to stop
  }

  void Show(size_t done) const {
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    std::array<char, 160> line{};
    if (done == 0 || seconds <= 0) {
      (void)std::snprintf(line.data(), line.size(), "zq-triage: %zu of %zu panics read", done,
                          total_);
    } else {
      double rate = static_cast<double>(done) / seconds;
      long left = std::lround(static_cast<double>(total_ - done) / rate);
      (void)std::snprintf(line.data(), line.size(),
                          "zq-triage: %zu of %zu panics read, %.0f a second, %ld:%02ld left", done,
                          total_, rate, left / 60, left % 60);
    }
    Write(std::string("\r") + line.data() + "\033[K");
  }

  const size_t total_;
  const bool shown_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::atomic<size_t> done_{0};
  std::mutex mutex_;
  std::condition_variable cv_;
  bool finished_ = false;
  std::thread thread_;
};

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
  // Each panic frees the megabytes it read. Kept by the allocator rather than handed back to the
  // kernel, they serve the next panic without faulting their pages in again.
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 256 << 20);
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
  const auto cannot_write = [&html] {
    std::cerr << "zq-triage: cannot write " << html << ": " << std::strerror(errno) << "\n";
    return 2;
  };
  // Opened before the reading, so that a FILE that cannot be written costs no wait.
  std::ofstream page;
  if (!html.empty()) {
    page.open(html, std::ios::binary | std::ios::trunc);
    if (!page) return cannot_write();
  }

  std::vector<triage::Panic> panics = triage::FindPanics(paths);
  {
    Progress progress(panics.size());
    std::atomic<size_t> next{0};
    std::vector<std::thread> workers;
    size_t cores = std::max(1U, std::thread::hardware_concurrency());
    for (size_t w = 0; w < std::min(cores, panics.size()); ++w) {
      workers.emplace_back([&panics, &next, &progress] {
        for (size_t i = next++; i < panics.size(); i = next++) {
          if (panics[i].error.empty()) Triage(panics[i]);
          progress.Add();
        }
      });
    }
    for (auto& worker : workers) worker.join();
  }

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
    if (!page) return cannot_write();
  }
  return unread == 0 ? 0 : 1;
}
