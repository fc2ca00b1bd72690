// liblog's logd transport for the workstation: Debian's liblog drops what it would send to
// logd, so the records go to the journal instead. Defined in the executable, this symbol takes
// precedence over liblog's own for libbase's LogdLogger.
#include <android/log.h>

#include "journal.h"

extern "C" void __android_log_logd_logger(const struct __android_logger_data* logger_data,
                                          const char* msg) {
  host::JournalLog(logger_data->buffer_id, logger_data->priority, logger_data->tag, msg);
}
