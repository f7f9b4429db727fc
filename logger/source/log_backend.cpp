// The logging back end: the minimum level, the replaceable handler and the
// default handler that writes one line per record to standard error.

#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>

#include "logger/log_handler.h"
#include "logger/logger.h"

namespace jx {
namespace logging {

// Constant-initialised, so statements that run during static initialisation
// of other units see INFO until the environment has been read.
// Warnings and worse: a library writes nothing into its host program's
// standard error unless something is wrong.
std::atomic<LogLevel> g_minLogLevel{JXLOG_WARNING};
bool g_toggleableDebugControl = false;
const std::uint32_t g_defaultConfigFlags = 95;

namespace {

// Created on first use and never destroyed, so records written during static
// destruction still find a handler and a mutex.
struct HandlerState {
    std::mutex mtx;
    LogHandler handler;  // guarded by mtx; empty means the default handler
};

HandlerState& State() {
    static HandlerState* state = new HandlerState;
    return *state;
}

// True while this thread runs a custom handler: a record the handler writes
// itself goes to the default handler instead of deadlocking.
thread_local bool t_inHandler = false;

void WriteLine(const String& line) {
    String out = line;
    out.push_back('\n');
    const char* p = out.data();
    size_t left = out.size();
    while (left > 0) {
        const ssize_t n = ::write(STDERR_FILENO, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;  // standard error is gone; nothing better to do
        p += n;
        left -= static_cast<size_t>(n);
    }
}

const char* BaseName(const char* path) {
    if (path == nullptr) return "-";
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p)
        if (*p == '/') base = p + 1;
    return base;
}

struct EnvironmentLevel {
    EnvironmentLevel() {
        const char* text = std::getenv("FERROW_LOG_LEVEL");
        if (text == nullptr || *text == '\0') return;
        if (std::optional<LogLevel> level = ParseLogLevel(text)) {
            g_minLogLevel.store(*level);
        } else {
            WriteLine(String("ferrow: ignoring FERROW_LOG_LEVEL='") + text +
                      "' (use debug, info, warning, error, critical or a number)");
        }
    }
} const g_environmentLevel;

}  // namespace

LogLevel GetMinimumLoggingLevel() { return g_minLogLevel.load(); }

void SetMinimumLoggingLevel(LogLevel level) { g_minLogLevel.store(level); }

std::optional<LogLevel> ParseLogLevel(std::string_view text) {
    String lower;
    for (char c : text) lower.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    if (lower == "debug") return JXLOG_DEBUG;
    if (lower == "info") return JXLOG_INFO;
    if (lower == "warning" || lower == "warn") return JXLOG_WARNING;
    if (lower == "error") return JXLOG_ERROR;
    if (lower == "critical") return JXLOG_CRITICAL;
    if (lower.empty() || lower.size() > 9) return std::nullopt;
    std::uint32_t value = 0;
    for (char c : lower) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + static_cast<std::uint32_t>(c - '0');
    }
    return static_cast<LogLevel>(value);
}

String LevelName(LogLevel level) {
    switch (level) {
        case JXLOG_DEBUG: return "DEBUG";
        case JXLOG_INFO: return "INFO";
        case JXLOG_INFO_LOCAL: return "INFO_LOCAL";
        case JXLOG_INFO_SEARCH: return "INFO_SEARCH";
        case JXLOG_WARNING: return "WARNING";
        case JXLOG_ERROR: return "ERROR";
        case JXLOG_CRITICAL: return "CRITICAL";
        case JXLOG_WALL: return "WALL";
    }
    return std::to_string(static_cast<std::uint32_t>(level));
}

String FormatRecord(const LogRecord& record) {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const std::time_t seconds = system_clock::to_time_t(now);
    const auto micros = duration_cast<microseconds>(now.time_since_epoch()).count() % 1000000;
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02dT%02d:%02d:%02d.%06lldZ", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                  static_cast<long long>(micros));
    String line = stamp;
    line += ' ';
    line += LevelName(record.level);
    line += ' ';
    line += record.source ? record.source->Name() : String("-");
    line += ' ';
    line += BaseName(record.filename);
    line += ':';
    line += std::to_string(record.lineNumber);
    line += ' ';
    line += record.message;
    return line;
}

LogHandler SetLogHandler(LogHandler handler) {
    HandlerState& state = State();
    std::lock_guard<std::mutex> lock(state.mtx);
    std::swap(state.handler, handler);
    return handler;
}

void ForceLockHandlers() {
    // Waits for a handler replacement in progress, so that a record is never
    // handed to a handler that is being swapped out. A handler's own records
    // skip it: this thread already holds the handler lock.
    if (t_inHandler) return;
    HandlerState& state = State();
    std::lock_guard<std::mutex> lock(state.mtx);
}

void LogMessage(LogLevel level, unsigned int id, DecodeType decodeType, const ConstSourcePtr& source,
                const char* filename, int lineNumber, const String& message, const String& /*handlerName*/) {
    const LogRecord record{level, id, decodeType, source, filename, lineNumber, message};
    if (t_inHandler) {
        WriteLine(FormatRecord(record));
        return;
    }
    HandlerState& state = State();
    std::lock_guard<std::mutex> lock(state.mtx);
    if (!state.handler) {
        WriteLine(FormatRecord(record));
        return;
    }
    // A record must never vanish and logging must never throw: if the
    // application's handler fails, the record goes to standard error.
    t_inHandler = true;
    try {
        state.handler(record);
    } catch (...) {
        WriteLine("ferrow: log handler threw; record follows");
        WriteLine(FormatRecord(record));
    }
    t_inHandler = false;
}

}  // namespace logging
}  // namespace jx
