#include "tests/support/log_capture.h"

namespace jx {
namespace testing {

LogCapture::LogCapture(logging::LogLevel minLevel) : m_savedLevel(logging::GetMinimumLoggingLevel()) {
    m_savedHandler = logging::SetLogHandler([this](const logging::LogRecord& r) {
        std::lock_guard<std::mutex> lock(m_mtx);
        m_records.push_back({r.level, r.source ? r.source->Name() : std::string(), r.filename, r.lineNumber, r.message});
    });
    logging::SetMinimumLoggingLevel(minLevel);
}

LogCapture::~LogCapture() {
    logging::SetMinimumLoggingLevel(m_savedLevel);
    logging::SetLogHandler(m_savedHandler);
}

std::vector<LogCapture::Record> LogCapture::Records() const {
    std::lock_guard<std::mutex> lock(m_mtx);
    return m_records;
}

std::vector<LogCapture::Record> LogCapture::WithMessage(const std::string& message) const {
    std::vector<Record> out;
    for (const Record& r : Records())
        if (r.message == message) out.push_back(r);
    return out;
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_records.clear();
}

}  // namespace testing
}  // namespace jx
