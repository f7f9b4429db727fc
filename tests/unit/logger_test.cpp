#include "logger/logger.h"

#include <exception>
#include <iomanip>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "logger/log_handler.h"
#include "tests/support/log_capture.h"

namespace jx {
namespace logging {
namespace {

using testing::LogCapture;

const ConstSourcePtr g_testSource = MakeSource("ferrow.test");

int Touch(int& counter) { return ++counter; }

TEST(LogRecordTest, StatementAtTheMinimumIsWrittenAndOneStepBelowEvaluatesNothing) {
    LogCapture capture(JXLOG_WARNING);
    int evaluated = 0;
    JXLOG(JXLOG_WARNING, g_testSource) << "equal " << Touch(evaluated);
    JXLOG(static_cast<LogLevel>(JXLOG_WARNING - 1), g_testSource) << "below " << Touch(evaluated);
    JXLOG(JXLOG_INFO_SEARCH, g_testSource) << "below " << Touch(evaluated);

    EXPECT_EQ(evaluated, 1);
    const std::vector<LogCapture::Record> records = capture.Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, JXLOG_WARNING);
    EXPECT_EQ(records[0].message, "equal 1");
}

TEST(LogRecordTest, EveryRecordCarriesIdDecodeTypeSourceFileAndLine) {
    LogCapture capture;  // restores the level and handler when the test ends
    std::vector<String> seen;
    SetLogHandler([&seen](const LogRecord& r) {
        seen.push_back(std::to_string(r.id) + " " + std::to_string(r.decodeType) + " " +
                       (r.source ? r.source->Name() : String("<none>")) + " " + r.filename + ":" +
                       std::to_string(r.lineNumber) + " " + r.message);
    });
    const int line = __LINE__ + 1;
    JXLOG(JXLOG_ERROR, g_testSource) << "sourced";
    JXLOG(JXLOG_ERROR, ConstSourcePtr()) << "unsourced";
    JXLOG(JXLOG_ERROR, g_testSource);

    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0], "0 1 ferrow.test " __FILE__ ":" + std::to_string(line) + " sourced");
    EXPECT_EQ(seen[1], "0 1 <none> " __FILE__ ":" + std::to_string(line + 1) + " unsourced");
    EXPECT_EQ(seen[2], "0 1 ferrow.test " __FILE__ ":" + std::to_string(line + 2) + " ") << "nothing streamed";
}

TEST(LogRecordTest, EachThreadReusesOneStreamThatIsEmptyBetweenRecords) {
    LogCapture capture;
    IPStringStream* const stream = &GetThreadLocalStream();
    JXLOG(JXLOG_INFO, g_testSource) << "first";
    EXPECT_EQ(&GetThreadLocalStream(), stream);
    EXPECT_TRUE(stream->str().empty());
    JXLOG(JXLOG_INFO, g_testSource) << "second";
    EXPECT_TRUE(stream->str().empty());

    IPStringStream* other = nullptr;
    std::thread([&other] { other = &GetThreadLocalStream(); }).join();
    EXPECT_NE(other, stream);

    const std::vector<LogCapture::Record> records = capture.Records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].message, "first");
    EXPECT_EQ(records[1].message, "second");
}

TEST(LogRecordTest, FormattingOfOneRecordDoesNotLeakIntoTheNext) {
    LogCapture capture;
    JXLOG(JXLOG_INFO, g_testSource) << std::hex << std::showbase << std::setprecision(2) << 255 << ' '
                                    << 3.14159;
    JXLOG(JXLOG_INFO, g_testSource) << 255 << ' ' << 3.14159;

    const std::vector<LogCapture::Record> records = capture.Records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].message, "0xff 3.1");
    EXPECT_EQ(records[1].message, "255 3.14159");
}

struct LogsWhenStreamed {};

std::ostream& operator<<(std::ostream& os, LogsWhenStreamed) {
    JXLOG(JXLOG_INFO, g_testSource) << "inner";
    return os;
}

TEST(LogRecordTest, NestedRecordTakesTheOuterTextSoFarAndTheOuterKeepsOnlyTheRest) {
    LogCapture capture;
    JXLOG(JXLOG_INFO, g_testSource) << "outer-before " << LogsWhenStreamed() << "outer-after";

    const std::vector<LogCapture::Record> records = capture.Records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].message, "outer-before inner");
    EXPECT_EQ(records[1].message, "outer-after");
}

struct LogsOnDestruction {
    ~LogsOnDestruction() {
        JXLOG(JXLOG_ERROR, g_testSource) << "unwinding=" << std::uncaught_exceptions();
    }
};

TEST(LogRecordTest, RecordWrittenDuringStackUnwindingIsEmitted) {
    LogCapture capture;
    try {
        LogsOnDestruction guard;
        throw std::runtime_error("unwind");
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(capture.WithMessage("unwinding=1").size(), 1u);
}

}  // namespace
}  // namespace logging
}  // namespace jx
