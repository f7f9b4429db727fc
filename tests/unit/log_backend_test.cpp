#include "logger/log_handler.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <iomanip>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"

namespace jx {
namespace logging {
namespace {

const ConstSourcePtr g_testSource = MakeSource("ferrow.test");

// Points standard error at a temporary file until Finish(), which restores it
// and returns what was written. Also puts back the default handler and the
// INFO minimum for its lifetime, restoring the previous ones afterwards.
class StderrCapture {
public:
    StderrCapture()
        : m_savedLevel(GetMinimumLoggingLevel()),
          m_savedHandler(SetLogHandler(LogHandler())),
          m_file(std::tmpfile()),
          m_savedFd(::dup(STDERR_FILENO)) {
        SetMinimumLoggingLevel(JXLOG_INFO);
        ::dup2(::fileno(m_file), STDERR_FILENO);
    }
    ~StderrCapture() {
        Finish();
        std::fclose(m_file);
        SetLogHandler(m_savedHandler);
        SetMinimumLoggingLevel(m_savedLevel);
    }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    std::string Finish() {
        if (m_savedFd >= 0) {
            ::dup2(m_savedFd, STDERR_FILENO);
            ::close(m_savedFd);
            m_savedFd = -1;
        }
        std::string text;
        std::rewind(m_file);
        char buf[4096];
        for (size_t n; (n = std::fread(buf, 1, sizeof buf, m_file)) > 0;) text.append(buf, n);
        return text;
    }

private:
    LogLevel m_savedLevel;
    LogHandler m_savedHandler;
    std::FILE* m_file;
    int m_savedFd;
};

// One line of the default handler, split into its fields. `ok` is false when
// the line is not "<stamp> <level> <source> <file>:<line> <message>" with a
// stamp shaped like 2024-01-31T23:59:59.123456Z.
struct ParsedLine {
    bool ok = false;
    std::string stamp, level, source, location, message;
};

ParsedLine Parse(const std::string& text) {
    static const std::regex shape(R"(^(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z) (\S+) (\S+) (\S+:\d+) (.*)$)");
    std::smatch m;
    if (!std::regex_match(text, m, shape)) return {};
    return {true, m[1], m[2], m[3], m[4], m[5]};
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

TEST(LogBackendTest, SetLogHandlerReturnsThePreviousHandlerAndEmptyRestoresStandardError) {
    StderrCapture stderrCapture;
    std::vector<String> first;
    std::vector<String> second;
    EXPECT_FALSE(SetLogHandler([&first](const LogRecord& r) { first.push_back(r.message); }));
    JXLOG(JXLOG_INFO, g_testSource) << "to first";

    LogHandler previous = SetLogHandler([&second](const LogRecord& r) { second.push_back(r.message); });
    JXLOG(JXLOG_INFO, g_testSource) << "to second";
    ASSERT_TRUE(previous);
    SetLogHandler(previous);
    JXLOG(JXLOG_INFO, g_testSource) << "first again";

    EXPECT_TRUE(SetLogHandler(LogHandler()));
    JXLOG(JXLOG_INFO, g_testSource) << "to stderr";
    const std::vector<std::string> lines = Lines(stderrCapture.Finish());

    EXPECT_EQ(first, (std::vector<String>{"to first", "first again"}));
    EXPECT_EQ(second, (std::vector<String>{"to second"}));
    ASSERT_EQ(lines.size(), 1u);
    const ParsedLine line = Parse(lines[0]);
    EXPECT_TRUE(line.ok) << lines[0];
    EXPECT_EQ(line.level + " " + line.source + " " + line.message, "INFO ferrow.test to stderr");
}

TEST(LogBackendTest, FormatRecordWritesUtcMicrosecondsLevelSourceBaseNameLineAndMessage) {
    // A zone far from UTC exposes a local-time stamp.
    const char* savedTz = std::getenv("TZ");
    const std::string savedTzValue = savedTz ? savedTz : "";
    ::setenv("TZ", "Asia/Kathmandu", 1);
    ::tzset();
    const ConstSourcePtr none;
    const std::time_t before = std::time(nullptr);
    const String sourced = FormatRecord({JXLOG_WARNING, 0, JXLOG_DECODE_AS_KV, g_testSource, "/a/b/file.cpp", 42, "hello world"});
    const String unsourced = FormatRecord({static_cast<LogLevel>(7), 0, JXLOG_DECODE_AS_KV, none, "file.cpp", 7, "hello world"});
    const std::time_t after = std::time(nullptr);
    if (savedTz) ::setenv("TZ", savedTzValue.c_str(), 1); else ::unsetenv("TZ");
    ::tzset();

    const ParsedLine line = Parse(sourced);
    ASSERT_TRUE(line.ok) << sourced;
    EXPECT_EQ(line.level, "WARNING");
    EXPECT_EQ(line.source, "ferrow.test");
    EXPECT_EQ(line.location, "file.cpp:42");
    EXPECT_EQ(line.message, "hello world");
    std::tm utc{};
    std::istringstream(line.stamp) >> std::get_time(&utc, "%Y-%m-%dT%H:%M:%S");
    const std::time_t stamped = ::timegm(&utc);
    EXPECT_GE(stamped, before);
    EXPECT_LE(stamped, after);

    const ParsedLine other = Parse(unsourced);
    ASSERT_TRUE(other.ok) << unsourced;
    EXPECT_EQ(other.level, "7");
    EXPECT_EQ(other.source, "-");
    EXPECT_EQ(other.location, "file.cpp:7");
}

TEST(LogBackendTest, ParseLogLevelAcceptsNamesInAnyCaseAndNumbersOnly) {
    EXPECT_EQ(ParseLogLevel("debug"), JXLOG_DEBUG);
    EXPECT_EQ(ParseLogLevel("INFO"), JXLOG_INFO);
    EXPECT_EQ(ParseLogLevel("Warning"), JXLOG_WARNING);
    EXPECT_EQ(ParseLogLevel("error"), JXLOG_ERROR);
    EXPECT_EQ(ParseLogLevel("CRITICAL"), JXLOG_CRITICAL);
    EXPECT_EQ(ParseLogLevel("17"), JXLOG_INFO_SEARCH);
    EXPECT_EQ(ParseLogLevel("7"), static_cast<LogLevel>(7));
    for (const char* garbage : {"", "verbose", "-1", "12x", " 10", "99999999999"})
        EXPECT_FALSE(ParseLogLevel(garbage)) << '"' << garbage << '"';
}

TEST(LogBackendTest, LinesFromManyThreadsNeverInterleave) {
    constexpr int kThreads = 4;
    constexpr int kRecords = 200;
    const std::string padding(300, 'x');
    StderrCapture stderrCapture;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &padding] {
            for (int i = 0; i < kRecords; ++i) JXLOG(JXLOG_INFO, g_testSource) << "t" << t << " n" << i << " " << padding;
        });
    }
    for (std::thread& thread : threads) thread.join();
    const std::vector<std::string> lines = Lines(stderrCapture.Finish());

    std::set<std::string> seen;
    for (const std::string& text : lines) {
        const ParsedLine line = Parse(text);
        ASSERT_TRUE(line.ok) << text;
        EXPECT_EQ(line.level + " " + line.source, "INFO ferrow.test");
        EXPECT_EQ(line.location.compare(0, 21, "log_backend_test.cpp:"), 0) << text;
        const size_t tail = line.message.find(' ', line.message.find(' ') + 1);
        ASSERT_NE(tail, std::string::npos) << text;
        EXPECT_EQ(line.message.substr(tail + 1), padding) << text;
        seen.insert(line.message.substr(0, tail));
    }
    EXPECT_EQ(lines.size(), static_cast<size_t>(kThreads * kRecords));
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kRecords));
}

TEST(LogBackendTest, HandlerThatLogsSendsItsOwnRecordToStandardErrorWithoutDeadlock) {
    StderrCapture stderrCapture;
    std::vector<String> handled;
    SetLogHandler([&handled](const LogRecord& r) {
        handled.push_back(r.message);
        JXLOG(JXLOG_WARNING, g_testSource) << "handler saw " << r.message;
    });
    JXLOG(JXLOG_INFO, g_testSource) << "outer";
    const std::vector<std::string> lines = Lines(stderrCapture.Finish());

    EXPECT_EQ(handled, (std::vector<String>{"outer"}));
    ASSERT_EQ(lines.size(), 1u);
    const ParsedLine line = Parse(lines[0]);
    EXPECT_TRUE(line.ok) << lines[0];
    EXPECT_EQ(line.level, "WARNING");
    EXPECT_EQ(line.message.substr(line.message.size() - 17), "handler saw outer");
}

TEST(LogBackendTest, HandlerThatThrowsLosesNoRecordAndStaysInstalled) {
    StderrCapture stderrCapture;
    int calls = 0;
    SetLogHandler([&calls](const LogRecord& r) {
        ++calls;
        if (r.message == "std") throw std::runtime_error("handler failed");
        if (r.message == "int") throw 7;
    });
    JXLOG(JXLOG_INFO, g_testSource) << "std";
    JXLOG(JXLOG_INFO, g_testSource) << "int";
    JXLOG(JXLOG_INFO, g_testSource) << "fine";
    const std::string text = stderrCapture.Finish();

    EXPECT_EQ(calls, 3);
    EXPECT_NE(text.find(" INFO ferrow.test log_backend_test.cpp:"), std::string::npos) << text;
    EXPECT_NE(text.find(" std\n"), std::string::npos) << text;
    EXPECT_NE(text.find(" int\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("fine"), std::string::npos) << text;
}

}  // namespace
}  // namespace logging
}  // namespace jx
