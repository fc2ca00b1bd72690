#include "log_types.h"

// Definition order is construction order: the records below are built from the tables above.
const std::string kLogTypeNames[kLogTypeCount] = {"boot", "crash", "rescue", "ota", "panic"};
const std::string kLogTags[kLogTypeCount] = {"[Boot]", "[Crash]", "[Rescue]", "[Ota]", "[Panic]"};

const std::string kLogkitDir = "/data/logkit/";  // part of the layout, used by nobody
const std::string kZqLogRoot = "/mnt/vendor/zq_log/";

const std::string kLogPrefixes[kLogTypeCount] = {"ZQboot_", "ZQcrash_", "ZQrescue_", "ZQota_",
                                                 "ZQpanic_"};

LogType kLogTypes[kLogTypeCount] = {
    {false, 10, 0, kLogPrefixes[0], kZqLogRoot + "boot_log/", "", ""},  // boot keeps twice as many
    {true, 5, 0, kLogPrefixes[1], kZqLogRoot + "crash_log/", "", ""},
    {true, 5, 0, kLogPrefixes[2], kZqLogRoot + "rescue_log/", "", ""},
    {false, 5, 0, kLogPrefixes[3], kZqLogRoot + "ota_log/", "", ""},
    {true, 5, 0, kLogPrefixes[4], kZqLogRoot + "panic_log/", "", ""},
};

const std::string kEmptyPath;  // part of the layout, used by nobody

const std::string gDumpCollectDir = "/data/vendor/dump_collect/";
std::string gPanicLogDir = "/data/vendor/dump_collect/panic_log";
std::string gCurrentTimestamp = "1970-01-01-00-00-00";

bool gCbtFileExists = false;
