#pragma once

// Waiting for conditions nothing signals, and capturing log records.

#include <chrono>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "logger/log_handler.h"

namespace jx {
namespace testing {

// Calls `holds()` every `interval` until it returns true; false once
// `timeout` has passed without that.
template <typename Predicate>
bool PollUntil(Predicate holds, std::chrono::milliseconds timeout,
               std::chrono::milliseconds interval = std::chrono::milliseconds(10)) {
    const auto until = std::chrono::steady_clock::now() + timeout;
    while (!holds()) {
        if (std::chrono::steady_clock::now() >= until) return false;
        std::this_thread::sleep_for(interval);
    }
    return true;
}

// Whether thread `tid` of this process is asleep (blocked in a wait), as
// /proc shows it.
inline bool ThreadSleeps(long tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    const std::string line((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const std::size_t paren = line.rfind(')');
    return paren != std::string::npos && paren + 2 < line.size() && line[paren + 2] == 'S';
}

// Routes every log record to memory for the lifetime of the object and sets
// the minimum level; restores both on exit. Records may come from any thread.
class LogCapture {
public:
    struct Record {
        logging::LogLevel level;
        std::string source;  // empty when the record has no source
        std::string message;
    };

    explicit LogCapture(logging::LogLevel minLevel = logging::JXLOG_DEBUG) : m_savedLevel(logging::GetMinimumLoggingLevel()) {
        m_savedHandler = logging::SetLogHandler([this](const logging::LogRecord& r) {
            std::lock_guard<std::mutex> lock(m_mtx);
            m_records.push_back({r.level, r.source ? r.source->Name() : std::string(), r.message});
        });
        logging::SetMinimumLoggingLevel(minLevel);
    }
    ~LogCapture() {
        logging::SetMinimumLoggingLevel(m_savedLevel);
        logging::SetLogHandler(m_savedHandler);
    }
    LogCapture(const LogCapture&) = delete;  // installed as the handler by address
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Record> Records() const {
        std::lock_guard<std::mutex> lock(m_mtx);
        return m_records;
    }
    // How many records have exactly this message (and level, when given).
    size_t Count(const std::string& message, int level = -1) const {
        size_t n = 0;
        for (const Record& r : Records()) n += r.message == message && (level < 0 || static_cast<int>(r.level) == level);
        return n;
    }

private:
    mutable std::mutex m_mtx;  // guards m_records
    std::vector<Record> m_records;
    logging::LogLevel m_savedLevel;
    logging::LogHandler m_savedHandler;
};

}  // namespace testing
}  // namespace jx
