#pragma once

// The logging back end's public controls: the minimum level and the handler
// that receives every finished record.

#include <functional>
#include <optional>
#include <string_view>

#include "logger/logger.h"

namespace jx {
namespace logging {

// One finished record as the handler sees it. The references are valid only
// for the duration of the handler call.
struct LogRecord {
    LogLevel level;
    unsigned int id;
    DecodeType decodeType;
    const ConstSourcePtr& source;  // may be empty
    const char* filename;
    int lineNumber;
    const String& message;
};

// Receives records; called from whatever thread finished the record, with
// the back end's handler lock held, so calls never overlap and none runs
// after SetLogHandler has replaced it. A record the handler writes itself
// goes to the default writer (standard error); it must not call
// SetLogHandler, which would wait for that lock.
using LogHandler = std::function<void(const LogRecord&)>;

// Replaces the handler; an empty handler restores the default, which writes
// one line per record to standard error. Returns the previous handler (empty
// when it was the default).
LogHandler SetLogHandler(LogHandler handler);

// Sets g_minLogLevel (JXLOG_WARNING until set, unless the environment
// variable FERROW_LOG_LEVEL names a level); takes effect for the next
// statement on every thread.
void SetMinimumLoggingLevel(LogLevel level);

// "debug", "info", "warning", "error", "critical" (any case) or a decimal
// number; nothing for anything else.
std::optional<LogLevel> ParseLogLevel(std::string_view text);

// The name printed for a level: DEBUG, INFO, ..., or the number when the
// level has no name.
String LevelName(LogLevel level);

// The default handler's line for a record, without the trailing newline:
// "2026-11-21T10:00:00.123456Z INFO ferrow.service file.cpp:42 message".
String FormatRecord(const LogRecord& record);

}  // namespace logging
}  // namespace jx
