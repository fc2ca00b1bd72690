#include "journal.h"

#include <android/log.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>

#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>

namespace host {
namespace {

constexpr char kDefaultJournal[] = "/dev/__journal__";
// logcat's buffer names, indexed by log_id_t.
constexpr const char* kBufferNames[] = {"main",  "radio", "events",   "system",
                                        "crash", "stats", "security", "kernel"};

const char* BufferName(int buffer_id) {
  // LOG_ID_DEFAULT (-1) is where liblog sends a record that names no buffer.
  if (buffer_id < 0 || buffer_id >= static_cast<int>(std::size(kBufferNames))) return "main";
  return kBufferNames[buffer_id];
}

char PriorityLetter(int priority) {
  if (priority <= ANDROID_LOG_VERBOSE) return 'V';
  if (priority >= ANDROID_LOG_FATAL) return 'F';
  return "VDIWE"[priority - ANDROID_LOG_VERBOSE];
}

int64_t MonotonicNs() {
  struct timespec ts = {};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

// The journal named by HOST_JOURNAL is created on demand; the sandbox's is bound in place, so a
// missing /dev/__journal__ means there is no journal, not that one should be made.
android::base::unique_fd OpenJournal() {
  const char* named = getenv("HOST_JOURNAL");
  const int flags = O_WRONLY | O_APPEND | O_CLOEXEC | (named != nullptr ? O_CREAT : 0);
  return android::base::unique_fd(
      TEMP_FAILURE_RETRY(open(named != nullptr ? named : kDefaultJournal, flags, 0644)));
}

std::string Head(const char* ev) {
  return android::base::StringPrintf("{\"ev\":\"%s\",\"pid\":%d,\"mono_ns\":%lld", ev, getpid(),
                                     static_cast<long long>(MonotonicNs()));
}

std::string Field(const char* key, const char* value) {
  return android::base::StringPrintf(",\"%s\":\"%s\"", key,
                                     JournalEscape(value != nullptr ? value : "").c_str());
}

// One write per record: O_APPEND then keeps records of several processes whole.
bool Append(const std::string& record) {
  android::base::unique_fd fd = OpenJournal();
  if (fd.get() < 0) return false;
  return TEMP_FAILURE_RETRY(write(fd.get(), record.data(), record.size())) ==
         static_cast<ssize_t>(record.size());
}

}  // namespace

std::string JournalEscape(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    switch (byte) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (byte < 0x20 || byte >= 0x80) {
          out += android::base::StringPrintf("\\u%04x", byte);
        } else {
          out += c;
        }
    }
  }
  return out;
}

std::optional<std::string> JournalUnescape(std::string_view body) {
  std::string out;
  for (size_t i = 0; i < body.size(); ++i) {
    const auto c = static_cast<unsigned char>(body[i]);
    if (c < 0x20 || c >= 0x80 || c == '"') return std::nullopt;
    if (c != '\\') {
      out += body[i];
      continue;
    }
    if (++i == body.size()) return std::nullopt;
    const std::string_view escapes = "\"\\/bfnrt";
    const std::string_view bytes = "\"\\/\b\f\n\r\t";
    if (const size_t at = escapes.find(body[i]); at != std::string_view::npos) {
      out += bytes[at];
      continue;
    }
    if (body[i] != 'u' || i + 4 >= body.size()) return std::nullopt;
    size_t code = 0;
    for (const char digit : body.substr(i + 1, 4)) {
      const size_t value = std::string_view("0123456789abcdefABCDEF").find(digit);
      if (value == std::string_view::npos) return std::nullopt;
      code = code * 16 + (value < 16 ? value : value - 6);
    }
    if (code > 0xff) return std::nullopt;
    out += static_cast<char>(code);
    i += 4;
  }
  return out;
}

void JournalLog(int buffer_id, int priority, const char* tag, const char* msg) {
  const std::string record = Head("log") + Field("buf", BufferName(buffer_id)) +
                             Field("prio", std::string(1, PriorityLetter(priority)).c_str()) +
                             Field("tag", tag) + Field("msg", msg) + "}\n";
  if (!Append(record)) {
    (void)fprintf(stderr, "%c/%s(%d): %s\n", PriorityLetter(priority), tag != nullptr ? tag : "",
                  getpid(), msg != nullptr ? msg : "");
  }
}

void JournalPropertyGet(const char* name, const char* value) {
  Append(Head("get") + Field("name", name) + Field("value", value) + "}\n");
}

void JournalPropertySet(const char* name, const char* value, bool ok) {
  Append(Head("set") + Field("name", name) + Field("value", value) +
         ",\"ok\":" + (ok ? "true" : "false") + "}\n");
}

}  // namespace host
