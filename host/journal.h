// The workstation's log daemon: a JSON Lines journal that log records and property accesses
// are appended to, at /dev/__journal__ or the file that HOST_JOURNAL names.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace host {

// |bytes| as the body of a JSON string: '"', '\' and bytes below 0x20 escaped as JSON does,
// bytes from 0x80 written as \u00XX, so that decoding as Latin-1 gives back |bytes| exactly.
std::string JournalEscape(std::string_view bytes);

// The bytes of a JSON string body written by JournalEscape, \u00XX read as the byte XX; nullopt
// when |body| is not valid JSON or holds a character above U+00FF.
std::optional<std::string> JournalUnescape(std::string_view body);

// Appends a log record of liblog buffer |buffer_id| and priority |priority|. When the journal
// cannot be opened the record goes to standard error in logcat's brief form instead.
void JournalLog(int buffer_id, int priority, const char* tag, const char* msg);

// Appends the property read of |name| that returned |value|.
void JournalPropertyGet(const char* name, const char* value);

// Appends the property write of |value| to |name|, and whether it was stored.
void JournalPropertySet(const char* name, const char* value, bool ok);

}  // namespace host
