#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "logger/log_handler.h"

namespace jx {
namespace testing {

// Routes every log record to memory for the lifetime of the object and lowers
// the minimum level so that nothing is gated away; restores both on exit.
class LogCapture {
public:
    struct Record {
        logging::LogLevel level;
        std::string source;  // empty when the record has no source
        std::string file;
        int line;
        std::string message;
    };

    explicit LogCapture(logging::LogLevel minLevel = logging::JXLOG_DEBUG);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Record> Records() const;
    // The records whose message equals `message` exactly.
    std::vector<Record> WithMessage(const std::string& message) const;
    void Clear();

private:
    mutable std::mutex m_mtx;
    std::vector<Record> m_records;
    logging::LogLevel m_savedLevel;
    logging::LogHandler m_savedHandler;
};

}  // namespace testing
}  // namespace jx
