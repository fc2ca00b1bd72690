#include "parser.h"

#include <openssl/evp.h>
#include <re2/re2.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>

namespace triage {
namespace {

// A kind of crash report: a word the line that opens it always holds, by which the lines between
// reports are passed over unread; the line that opens it; its title, a rewrite of that line where
// " in @" names the first guilty frame (dropped when there is none); the trailer it always ends
// with, so that one the log stops before was cut off (without one, the log must reach its call
// trace); the report's line that names the guilty function before pc, lr, RIP and the call trace
// do; the frame of its call trace that the guilty one is below (the interrupt a watchdog reports
// from); and whether it only continues a report already open (the Oops line after a fault, the
// panic after a report).
struct Format {
  const char* word;
  const char* opens;
  const char* title;
  const char* ends = nullptr;
  const char* names = nullptr;
  const char* below = nullptr;
  bool joins = false;
};

constexpr const char* kTrailer = R"(^---\[ end |^={40,}$)";  // oops_exit's, or a sanitizer's rule

// The interrupt entry a timer's report is raised from: what it interrupted is the culprit.
constexpr const char* kInterrupted = R"(el1_interrupt|el1_irq|asm_sysvec_\w+|asm_common_interrupt)";
// Who takes the lock a lockdep report is about: its first held-lock line, 4.x's form or later.
constexpr const char* kLockAt = R"(, at: (?:\[<X>\] )?([\w.$]+))";

const Format kFormats[] = {
    {"Unable", R"(^Unable to handle kernel (.*?) at virtual address)",
     R"(Unable to handle kernel \1 in @)", kTrailer},
    {"Internal", R"(^Internal error: ([^:\[]*?) ?[:\[])", R"(Internal error: \1 in @)", kTrailer,
     nullptr, nullptr, true},
    {"BUG:", "^BUG: kernel NULL pointer dereference", "BUG: kernel NULL pointer dereference in @",
     kTrailer},
    {"BUG:",
     R"(^BUG: unable to handle (page fault|kernel paging request|kernel NULL pointer dereference))",
     R"(BUG: unable to handle \1 in @)", kTrailer},
    {"protection", "^general protection fault", "general protection fault in @", kTrailer},
    {"BUG", R"(^kernel BUG at \S+:\d+!)", "kernel BUG in @", kTrailer},
    {"WARNING:", R"(^WARNING:(?: CPU: \d+ PID: \d+ at)? \S+:\d+ )", "WARNING in @", kTrailer,
     R"(^WARNING:(?: CPU: \d+ PID: \d+ at)? \S+:\d+ (?:at )?([\w.$]+))"},
    {"KASAN:", R"(^BUG: KASAN: ([\w-]+))", R"(BUG: KASAN: \1 in @)", kTrailer,
     R"(^BUG: KASAN: [\w-]+ in ([\w.$]+))"},
    {"KFENCE:", R"(^BUG: KFENCE: ([\w-]+(?: read| write)?))", R"(BUG: KFENCE: \1 in @)", kTrailer,
     R"(^BUG: KFENCE: [\w-]+(?: read| write)? in ([\w.$]+))"},
    {"UBSAN:", R"(^UBSAN: (.+?) in \S+:\d+)", R"(UBSAN: \1 in @)", kTrailer},
    {"lockup", "^(?:watchdog: )?BUG: soft lockup", "watchdog: BUG: soft lockup in @", nullptr,
     nullptr, kInterrupted},
    {"LOCKUP", R"(^(?:[\w ]+: )*Watchdog detected hard LOCKUP)", "watchdog: hard lockup in @",
     nullptr, nullptr, kInterrupted},
    {"INFO:", R"(^INFO: task .* blocked for more than \d+ seconds)", "INFO: task hung in @"},
    {"INFO:", R"(^(?:rcu: )?INFO: \w+ (?:self-)?detected stall)", "rcu detected stall in @",
     nullptr, nullptr, kInterrupted},
    {"WARNING:", "^WARNING: possible (?:circular locking dependency|recursive locking) detected",
     "possible deadlock in @", nullptr, kLockAt},
    {"WARNING:", "^WARNING: inconsistent lock state", "inconsistent lock state in @", nullptr,
     kLockAt},
    {"BUG:", "^BUG: sleeping function called from invalid context",
     "BUG: sleeping function called from invalid context in @"},
    {"syncing", "^Kernel panic - not syncing: (.*)", R"(Kernel panic - not syncing: \1)", nullptr,
     nullptr, nullptr, true},
};

// Frames that are the kernel reporting, checking, allocating, locking, copying or taking an
// exception or interrupt, never the culprit.
const char* const kSkipFrames[] = {
    R"(panic|die|__die|__die_body|die_kernel_fault|oops_\w+|__warn|warn_slowpath\w*|report_bug)",
    R"(dump_stack\w*|show_stack|dump_backtrace|show_regs|__show_regs|print_\w+|_?printk|vprintk\w*)",
    R"(\w*_backtrace|rcu_dump_cpu_stacks|check_cpu_stall|rcu_pending|rcu_sched_clock_irq)",
    R"(watchdog\w*|check_hung_\w+|hung_task\w*)",
    // Checkers that WARN or BUG on their caller's behalf.
    R"(_*refcount_\w+|kref_\w+|__list_\w+_valid\w*|_*might_\w+|__check_object_size|usercopy_\w+)",
    R"(_*kasan_\w+|__asan_\w+|_*kfence_\w+|_*ubsan_\w+|check_memory_region\w*)",
    // The allocator's entry points and free paths, where a sanitizer catches a caller's bad free.
    R"(_*kmalloc\w*|kzalloc\w*|krealloc\w*|kvmalloc\w*|kfree\w*|kvfree\w*|_*kmem_cache_\w+)",
    R"(_*slab_\w+|___cache_free|free_debug_processing|_*vfree|_*free_pages\w*|free_unref_page\w*)",
    R"(do_mem_abort|do_translation_fault|do_page_fault|do_bad_area|__do_kernel_fault|el[01]\w*)",
    R"(do_el0_\w+|\w*brk_handler|call_break_hook|do_debug_exception|handle_bug|exc_\w+|asm_exc_\w+)",
    R"(page_fault_oops|kernelmode_fixup_or_oops|no_context|_*bad_area\w*|do_error_trap|do_trap)",
    R"(gic_handle_irq|\w+_irq_handler|_*sysvec_\w+|asm_sysvec_\w+|_*irq_exit\w*|handle_\w+_irq)",
    R"(update_process_times|tick_\w+|_*hrtimer_\w+|_*handle_irq_event\w*|generic_handle_\w+)",
    R"(_raw_(?:spin|read|write)_\w+|do_raw_spin_\w+|queued_\w+_lock\w*|_*mutex_\w+)",
    R"(_*down_\w+|down|rwsem_\w+|lock_acquire|lock_release|__lock_acquire|lockdep_\w+)",
    R"(check_noncircular|check_prevs?_add|validate_chain|check_deadlock|mark_lock\w*|valid_state)",
    R"(_*schedule|schedule_\w+|io_schedule\w*|__switch_to|context_switch|_*wait_for_\w+)",
    R"(_*mem(?:cpy|move|set|cmp|chr|scan)\w*|_*str(?:n?cpy|n?cmp|n?cat|n?len|chr|rchr|str)\w*)",
    R"(_*copy_\w*user\w*|__arch_copy_\w+|raw_copy_\w+)",
};

std::string Alternation() {
  std::string any;
  for (const char* group : kSkipFrames) any += (any.empty() ? "" : "|") + std::string(group);
  return "^(?:" + any + ")$";
}

const RE2 kSkip(Alternation());
const RE2 kPrefix(
    R"(\s*(?:<\d+>|\[\s*\d+\.\d+\]|\[T\d+\]|\[C(\d+)\]|\((\d+)\)|\[\s*(\d+):([^\]]*)\]))");
const RE2 kAddress(R"(\b(?:0x[0-9a-fA-F]+|[0-9a-f]{8,})\b)");
const RE2 kRegister(R"(^(?:pc|lr) : ([\w.$]+)\+X/X|^RIP: \w+:([\w.$]+)\+X/X)");
const RE2 kTraceStart(R"(^Call [Tt]race:)");
const RE2 kTraceFrame(R"(^(?:\[<X>\] )?(\? )?([\w.$]+)\+X/X)");
const RE2 kTraceMark(R"(^</?[A-Z]+>$)");
const RE2 kReportEnd(kTrailer);
const RE2 kAccess(R"(^(Read|Write) of size|^#PF: \w+ (read|write|instruction fetch)|WnR = ([01]))");
const RE2 kCpuPid(R"(CPU: (\d+) (?:UID: \d+ )?PID: (\d+))");
const RE2 kComm(R"(Comm: (\S+))");
const RE2 kTaint(R"((?:Not tainted|Tainted: ([A-Z ]*?))\s+(\d+\.\d+\S*) #)");
const RE2 kRelease(R"(^(\d+\.\d+\S*) #\S+ (?:Not tainted|Tainted:))");
const RE2 kTitleNoise(R"(\+X/X|\bX\b|\b\d+\b)");
const RE2 kSpaces(R"(\s+)");
const RE2 kRecordFrame(R"((?:pc|lr) : ([\w.$]+)\+X/X)");
const RE2 kRecordPidCpu(R"(pid: (\d+),\s*cpu: (\d+))");

constexpr size_t kReportLines = 80;
constexpr size_t kFrames = 5;
constexpr size_t kSignatureFrames = 3;
constexpr size_t kAlso = 20;
constexpr size_t kLineLimit = 4096;  // the kernel prints at most 1 KiB a line; more is not a log
const std::string kReplacement = "\xEF\xBF\xBD";

// Appends |line| to |out|, NULs and invalid UTF-8 replaced; true when it is a line of text: 16
// bytes or more, none replaced, no control byte. Without |out|, only tells.
bool AppendText(std::string_view line, std::string* out) {
  bool text = line.size() >= 16;
  for (size_t i = 0; i < line.size();) {
    auto c = static_cast<unsigned char>(line[i]);
    size_t len = c < 0x80           ? 1
                 : (c >> 5) == 0x6  ? 2
                 : (c >> 4) == 0xE  ? 3
                 : (c >> 3) == 0x1E ? 4
                                    : 0;
    bool valid = len != 0 && i + len <= line.size() && c != 0 && c != 0xC0 && c != 0xC1;
    for (size_t k = 1; valid && k < len; ++k) {
      valid = (static_cast<unsigned char>(line[i + k]) & 0xC0) == 0x80;
    }
    if (c < 0x20 && c != '\t') text = false;
    if (!valid) text = false;
    if (out == nullptr && !text) return false;
    if (out == nullptr) {
      i += len;
    } else if (!valid) {
      *out += kReplacement;
      ++i;
    } else {
      out->append(line.substr(i, len));
      i += len;
    }
  }
  return text;
}

std::string_view WithoutCr(std::string_view raw) {
  if (!raw.empty() && raw.back() == '\r') raw.remove_suffix(1);
  return raw;
}

std::string Trim(std::string s) {
  RE2::GlobalReplace(&s, kSpaces, " ");
  size_t start = s.find_first_not_of(' ');
  size_t end = s.find_last_not_of(' ');
  return start == std::string::npos ? "" : s.substr(start, end - start + 1);
}

std::string TitleText(std::string s) {
  RE2::GlobalReplace(&s, kTitleNoise, "");
  return Trim(s);
}

// A crash report: its kind and its lines, the one that opens it first.
struct Report {
  const Format* format = nullptr;
  std::vector<Line> lines;
  const char* ends = nullptr;  // the trailer of the kind that opened it or joined it last
  bool tracing = false;        // its call trace began after that
  bool traced = false;         // and has a frame
};

struct Finding {
  std::string title, access;
  std::vector<std::string> frames;
};

using Part = const char* Format::*;
constexpr Part kParts[] = {&Format::opens, &Format::names, &Format::below};

// A format's expression |part|, compiled once; one that never matches where the format has none.
const RE2& Compiled(const Format& format, Part part = &Format::opens) {
  static const std::vector<std::unique_ptr<RE2>> compiled = [] {
    std::vector<std::unique_ptr<RE2>> all;
    for (const auto& f : kFormats) {
      for (Part p : kParts) all.push_back(std::make_unique<RE2>(f.*p != nullptr ? f.*p : "$^"));
    }
    return all;
  }();
  auto index = std::find(std::begin(kParts), std::end(kParts), part) - std::begin(kParts);
  return *compiled[std::size(kParts) * (&format - kFormats) + index];
}

const Format* Opens(const std::string& clean) {
  if (clean.empty()) return nullptr;
  for (const auto& format : kFormats) {
    if (RE2::PartialMatch(clean, Compiled(format))) return &format;
  }
  return nullptr;
}

void AddFrame(const std::string& frame, std::vector<std::string>& frames) {
  if (frame.empty() || frames.size() >= kFrames || RE2::FullMatch(frame, kSkip)) return;
  if (std::find(frames.begin(), frames.end(), frame) == frames.end()) frames.push_back(frame);
}

Finding Describe(const Report& report) {
  Finding found;
  const Format& format = *report.format;
  std::vector<std::string> named;
  std::vector<std::string> registers;
  std::vector<std::string> trace;
  bool in_trace = false;
  for (const auto& line : report.lines) {
    const std::string& clean = line.clean;
    std::string a;
    std::string b;
    std::string c;
    if (named.empty() && RE2::PartialMatch(clean, Compiled(format, &Format::names), &a)) {
      named.push_back(a);
    }
    if (RE2::PartialMatch(clean, kRegister, &a, &b)) registers.push_back(a + b);
    if (found.access.empty() && RE2::PartialMatch(clean, kAccess, &a, &b, &c)) {
      found.access = a + b + (c.empty() ? "" : c == "1" ? "write" : "read");
    }
    if (RE2::PartialMatch(clean, kTraceStart)) {
      in_trace = trace.empty();
    } else if (in_trace && RE2::PartialMatch(clean, kTraceFrame, &a, &b)) {
      if (a.empty()) trace.push_back(b);
    } else if (in_trace && !trace.empty() && !RE2::PartialMatch(clean, kTraceMark)) {
      in_trace = false;
    }
  }
  auto entry = std::find_if(trace.begin(), trace.end(), [&format](const std::string& frame) {
    return RE2::FullMatch(frame, Compiled(format, &Format::below));
  });
  if (entry != trace.end()) trace.erase(trace.begin(), entry + 1);
  for (const auto* source : {&named, &registers, &trace}) {
    for (const auto& frame : *source) AddFrame(frame, found.frames);
  }
  std::string title;
  RE2::Extract(report.lines.front().clean, Compiled(format), format.title, &title);
  size_t at = title.find(" in @");
  if (at != std::string::npos) {
    title.replace(at, std::string::npos, found.frames.empty() ? "" : " in " + found.frames[0]);
  }
  found.title = TitleText(title);
  std::transform(found.access.begin(), found.access.end(), found.access.begin(),
                 [](unsigned char ch) { return std::tolower(ch); });
  return found;
}

std::string Digest(const std::string& key) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> md{};
  unsigned int size = 0;
  EVP_Digest(key.data(), key.size(), md.data(), &size, EVP_sha256(), nullptr);
  std::string hex;
  for (unsigned int i = 0; i < 8 && i < size; ++i) {
    std::array<char, 3> byte{};
    (void)std::snprintf(byte.data(), byte.size(), "%02x", md[i]);
    hex += byte.data();
  }
  return hex;
}

void ReadFields(const Report& report, Panic& panic) {
  std::set<int> cpus;
  for (const auto& line : report.lines) {
    const std::string& text = line.text;
    long cpu = 0;
    long pid = 0;
    std::string taint;
    std::string release;
    if (!panic.pid && RE2::PartialMatch(text, kCpuPid, &cpu, &pid)) {
      panic.cpu = cpu;
      panic.pid = pid;
    }
    if (panic.comm.empty()) RE2::PartialMatch(text, kComm, &panic.comm);
    if (panic.kernel.empty() && RE2::PartialMatch(text, kTaint, &taint, &release)) {
      panic.tainted = Trim(taint);
      panic.kernel = release;
    }
    if (panic.kernel.empty()) RE2::PartialMatch(text, kRelease, &panic.kernel);
    if (line.cpu >= 0) cpus.insert(line.cpu);
    panic.excerpt.push_back(text);
  }
  while (!panic.excerpt.empty() && panic.excerpt.back().empty()) panic.excerpt.pop_back();
  auto prefixed = std::find_if(report.lines.begin(), report.lines.end(),
                               [](const Line& line) { return line.pid >= 0; });
  if (!panic.pid && prefixed != report.lines.end()) {
    panic.pid = prefixed->pid;
    if (panic.comm.empty()) panic.comm = prefixed->comm;
  }
  panic.corrupted = cpus.size() > 1;
  if (!panic.cpu && report.lines.front().cpu >= 0) panic.cpu = report.lines.front().cpu;
}

// Calls |each| with every line of |log| that |wanted| keeps, given its bytes, normalised; whether
// any line of the log was text.
template <typename Wanted, typename Each>
bool ForEachLine(std::string_view log, Wanted wanted, Each each) {
  bool any_text = false;
  for (size_t start = 0; start < log.size();) {
    size_t end = std::min(log.find('\n', start), log.size());
    std::string_view raw = log.substr(start, std::min(end - start, kLineLimit));
    if (wanted(start, start + raw.size())) {
      bool text = false;
      each(Normalise(raw, &text));
      any_text |= text;
    } else if (!any_text) {
      any_text = AppendText(WithoutCr(raw), nullptr);
    }
    start = end + 1;
  }
  return any_text;
}

// Where the words of kFormats occur in a log, found ahead of the line being read: a line none of
// them is in opens no report, and is not normalised.
class WordHits {
 public:
  explicit WordHits(std::string_view log) : log_(log) {
    for (const auto& format : kFormats) {
      if (std::find(words_.begin(), words_.end(), format.word) == words_.end()) {
        words_.emplace_back(format.word);
        next_.push_back(log.find(format.word));
      }
    }
  }

  // Whether one of the words starts in the bytes [|start|, |end|) of the log.
  bool Within(size_t start, size_t end) {
    bool within = false;
    for (size_t k = 0; k < words_.size(); ++k) {
      if (next_[k] < start) next_[k] = log_.find(words_[k], start);
      within = within || next_[k] < end;
    }
    return within;
  }

 private:
  std::string_view log_;
  std::vector<std::string_view> words_;
  std::vector<size_t> next_;  // where each word is next found, npos past its last
};

// The first report whole, and the titles of those after it.
struct Reports {
  Report first;
  std::vector<std::string> also;
  bool cut = false;  // the log ends before the first one's trailer, or its call trace
};

Reports FindReports(std::string_view log, bool& any_text) {
  Reports found;
  Report open;
  auto close = [&found, &open](bool log_ends) {
    if (open.format == nullptr) return;
    if (found.first.format == nullptr) {
      found.cut = log_ends && (open.ends != nullptr || !open.traced);
      found.first = std::move(open);
    } else if (found.also.size() < kAlso) {
      found.also.push_back(Describe(open).title);
    }
    open = Report{};
  };
  WordHits hits(log);
  auto wanted = [&open, &hits](size_t start, size_t end) {
    return open.format != nullptr || hits.Within(start, end);
  };
  any_text = ForEachLine(log, wanted, [&](Line line) {
    const Format* format = Opens(line.clean);
    if (open.format != nullptr) {
      if ((format == nullptr || format->joins) && open.lines.size() < kReportLines) {
        if (format != nullptr) {  // a join: its own trace is what is still to come
          open.ends = format->ends;
          open.tracing = false;
          open.traced = false;
        }
        open.traced = open.traced || (open.tracing && RE2::PartialMatch(line.clean, kTraceFrame));
        open.tracing = open.tracing || RE2::PartialMatch(line.clean, kTraceStart);
        bool ends = RE2::PartialMatch(line.clean, kReportEnd);
        open.lines.push_back(std::move(line));
        if (ends) close(false);
        return;
      }
      close(false);
    }
    if (format != nullptr && (!format->joins || found.first.format == nullptr)) {
      open = Report{format, {std::move(line)}, format->ends};
    }
  });
  close(true);
  return found;
}

void ReadRecord(Panic& panic) {
  auto all = [](size_t /*start*/, size_t /*end*/) { return true; };
  ForEachLine(panic.record, all, [&panic](const Line& line) {
    const std::string& text = line.text;
    auto value = [&text](const char* key, std::string& into) {
      if (text.rfind(key, 0) == 0) into = Trim(text.substr(std::char_traits<char>::length(key)));
    };
    value("Current Executing Process:", panic.process);
    value("Build Info:", panic.build);
    value("Exception Log Time:", panic.logged);
    if (text.rfind("KE", 0) == 0) panic.restart_reason = text;
  });
}

}  // namespace

Line Normalise(std::string_view raw, bool* is_text) {
  raw = WithoutCr(raw);
  Line line;
  bool text = AppendText(raw, &line.text);
  if (is_text != nullptr) *is_text = text;
  re2::StringPiece rest(line.text);
  std::string cpu_a;
  std::string cpu_b;
  std::string pid;
  std::string comm;
  auto number = [](const std::string& digits) {
    return static_cast<int>(std::min(std::strtol(digits.c_str(), nullptr, 10), 1L << 30));
  };
  while (RE2::Consume(&rest, kPrefix, &cpu_a, &cpu_b, &pid, &comm)) {
    if (!cpu_a.empty() || !cpu_b.empty()) line.cpu = number(cpu_a + cpu_b);
    if (!pid.empty()) {
      line.pid = number(pid);
      line.comm = comm;
    }
  }
  line.text = Trim(std::string(rest));
  line.clean = line.text;
  RE2::GlobalReplace(&line.clean, kAddress, "X");
  return line;
}

void Parse(Panic& panic) {
  ReadRecord(panic);
  if (!panic.error.empty()) return;
  if (panic.kmsg.empty()) {
    panic.error = panic.kmsg_member + " is empty";
    return;
  }
  bool any_text = false;
  Reports reports = FindReports(panic.kmsg, any_text);
  if (!any_text) {
    panic.error = panic.kmsg_member + " holds no line of text";
    return;
  }
  Finding first;
  if (reports.first.format == nullptr) {
    panic.from_record = true;
    std::string clean = Normalise(panic.restart_reason).clean;
    first.title = TitleText(clean.substr(0, clean.find(',')));
    re2::StringPiece rest(clean);
    std::string frame;
    while (RE2::FindAndConsume(&rest, kRecordFrame, &frame)) AddFrame(frame, first.frames);
    if (first.title.empty()) first.title = "no crash report and no exception record";
  } else {
    first = Describe(reports.first);
    panic.also = std::move(reports.also);
    ReadFields(reports.first, panic);
  }
  panic.title = first.title;
  std::string key = first.title + "\n" + first.access;
  for (size_t i = 0; i < first.frames.size() && i < kSignatureFrames; ++i) {
    key += "\n" + first.frames[i];
  }
  panic.signature = Digest(key);
  panic.corrupted = panic.corrupted || reports.cut || (!panic.from_record && first.frames.empty());
  panic.frames = std::move(first.frames);
  long pid = 0;
  long cpu = 0;
  if (!panic.pid && RE2::PartialMatch(panic.restart_reason, kRecordPidCpu, &pid, &cpu)) {
    panic.pid = pid;
    panic.cpu = panic.cpu.value_or(cpu);
  }
}

}  // namespace triage
