// The foundations every other unit stands on: log records and their back
// end, the observer registry and watch handles. The zlib wrapper's limits are
// the hostile rows of the watcher's test and the decompression fuzzer's
// properties.

#include <atomic>
#include <regex>

#include <gtest/gtest.h>

#include "connection/read_window.h"
#include "tests/support/fake_connection.h"
#include "tests/support/support.h"

namespace jx {
namespace {

using namespace logging;
const ConstSourcePtr g_source = MakeSource("ferrow.test");

int Touch(int& counter) { return ++counter; }

// Below the minimum nothing is even formatted; one record's format does not
// leak into the next.
TEST(LogTest, RecordsReachTheHandlerOrStandardErrorWholeAndNeverVanish) {
    testing::LogCapture capture(JXLOG_INFO);
    int evaluated = 0;
    JXLOG(JXLOG_WARNING, g_source) << std::hex << 255 << ' ' << Touch(evaluated);
    JXLOG(JXLOG_DEBUG, g_source) << "below " << Touch(evaluated);
    JXLOG(JXLOG_ERROR, ConstSourcePtr()) << 255;  // the previous record's format did not leak
    EXPECT_EQ(evaluated, 1);
    ASSERT_EQ(capture.Records().size(), 2u);
    EXPECT_EQ(capture.Records()[0].message + "/" + capture.Records()[0].source + "/" + capture.Records()[1].message, "ff 1/ferrow.test/255");
    EXPECT_EQ(ParseLogLevel("Warning"), JXLOG_WARNING);
    for (const char* garbage : {"", "verbose", "-1", "12x", "99999999999"}) EXPECT_FALSE(ParseLogLevel(garbage)) << garbage;

    // A handler that throws loses no record (it goes to standard error);
    // one that logs does not deadlock (its own record goes there too).
    ::testing::internal::CaptureStderr();
    LogHandler previous = SetLogHandler([](const LogRecord& r) {
        if (r.message == "throws") throw 7;
        JXLOG(JXLOG_WARNING, g_source) << "handler saw it";
    });
    JXLOG(JXLOG_INFO, g_source) << "throws";
    JXLOG(JXLOG_INFO, g_source) << "logs";
    SetLogHandler(previous);
    const std::string text = ::testing::internal::GetCapturedStderr();
    const std::string stamp = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z )";
    EXPECT_TRUE(std::regex_match(text, std::regex("ferrow: log handler threw; record follows\n" + stamp +
                                                  R"(INFO ferrow\.test foundation_test\.cpp:\d+ throws\n)" + stamp +
                                                  R"(WARNING ferrow\.test .*handler saw it\n)"))) << text;
}

struct Listener {
    virtual ~Listener() = default;
    virtual void OnEvent(int value) = 0;
};
struct FunctionListener : Listener {
    explicit FunctionListener(std::function<void(int)> fn) : fn(std::move(fn)) {}
    void OnEvent(int value) override { fn(value); }
    std::function<void(int)> fn;
};
struct Subject : ObservableImpl<Listener> {
    void Notify(int value) { NotifyObservers(&Listener::OnEvent, value); }
};

// Observers are called in registration order from a snapshot, dead ones
// skipped; a removal from inside a notification returns at once, one from
// another thread waits for it; a throwing observer ends the notification.
TEST(ObservableTest, NotifiesInOrderFromASnapshotAndRemovalWaitsOnlyForOtherThreads) {
    Subject subject;
    std::vector<int> journal;  // written by the notifying thread only
    std::atomic<bool> entered{false}, released{false}, removed{false};
    std::shared_ptr<Listener> gone = std::make_shared<FunctionListener>([&](int) { journal.push_back(-1); }), first;
    first = std::make_shared<FunctionListener>([&](int v) {
        journal.push_back(v);
        if (v == 3) throw std::runtime_error("observer failed");
        subject.UnregisterRaw(first.get());  // returns at once: this thread is the notifier
        entered = true;
        testing::PollUntil([&] { return released.load(); }, std::chrono::seconds(10));
    });
    const auto second = std::make_shared<FunctionListener>([&](int v) { journal.push_back(10 * v); });
    subject.RegisterShared(first);
    subject.RegisterWeak(gone);
    subject.RegisterShared(second);
    gone.reset();
    std::thread notifier([&] { subject.Notify(1); });
    ASSERT_TRUE(testing::PollUntil([&] { return entered.load(); }, std::chrono::seconds(10)));
    std::thread remover([&] { subject.UnregisterShared(second), removed = true; });
    EXPECT_FALSE(testing::PollUntil([&] { return removed.load(); }, std::chrono::milliseconds(200)));
    released = true;
    notifier.join();
    remover.join();
    subject.RegisterShared(first);
    EXPECT_THROW(subject.Notify(3), std::runtime_error);
    EXPECT_EQ(journal, (std::vector<int>{1, 10, 3}));  // the snapshot still called the removed second
}

TEST(WatchHandleTest, CancelInsideTheWatchRunsTheLastCompletionAfterItAndMoveAssignmentReleasesWithoutCancelling) {
    using Context = ferrow::Connection::WatchContext;
    using Access = testing::FakeConnection;
    const testing::FakeConnection conn;
    std::vector<std::string> journal;
    ferrow::Connection::WatchHandle handle;
    std::shared_ptr<Context> ctx;
    ctx = std::make_shared<Context>(conn, [&](int, int, String path) {
        journal.push_back(path);
        ctx->Invalidate([&] { journal.push_back("replaced"); });
        handle.Cancel([&] { journal.push_back("completion"); });
        journal.push_back("returns");
    });
    handle = Access::MakeWatchHandle(ctx);
    auto older = std::make_shared<Context>(conn, [&](int, int, String path) { journal.push_back(path); });
    ferrow::Connection::WatchHandle moved = Access::MakeWatchHandle(older);
    moved = Access::MakeWatchHandle(std::make_shared<Context>(conn, nullptr));
    Access::InvokeWatch(*older, ZOO_CHANGED_EVENT, ZOO_CONNECTED_STATE, "/older");  // released, not cancelled
    Access::InvokeWatch(*ctx, ZOO_CHANGED_EVENT, ZOO_CONNECTED_STATE, "/a");
    Access::InvokeWatch(*ctx, ZOO_CHANGED_EVENT, ZOO_CONNECTED_STATE, "/b");
    EXPECT_EQ(journal, (std::vector<std::string>{"/older", "/a", "returns", "completion"}));
}

// The reads on the wire follow the distance, not the server's queue: the
// window doubles every round trip while answers find no queue ahead, and
// stays at its floor while they do; issuing stops while the answers limit is
// reached and resumes once half of them are delivered.
TEST(ReadWindowTest, GrowsWithTheRoundTripNotWithAQueueAndStopsAtTheAnswersLimit) {
    using std::chrono::microseconds;
    auto roundTrips = [](ferrow::details::ReadWindow& window, int trips, microseconds first, microseconds others) {
        for (int trip = 0; trip < trips; ++trip) {
            const size_t size = window.Window();
            for (size_t i = 0; i < size; ++i) {
                ASSERT_TRUE(window.MayIssue());
                window.Issued();
            }
            for (size_t i = 0; i < size; ++i) {
                window.Answered(trip == 0 && i == 0 ? first : others, true);
                window.Delivered();
            }
        }
    };
    ferrow::details::ReadWindow far(128, 1024);
    roundTrips(far, 3, microseconds(20000), microseconds(20100));
    EXPECT_EQ(far.Window(), 1024u);
    ferrow::details::ReadWindow near(128, 1024);
    roundTrips(near, 3, microseconds(100), microseconds(3000));
    EXPECT_EQ(near.Window(), 128u + 1) << "grown by the first answer alone, which found no queue";

    ferrow::details::ReadWindow slow(4, 2);
    for (int i = 0; i < 4; ++i) slow.Issued();
    slow.Answered(microseconds(100), false);
    slow.Answered(microseconds(100), false);
    EXPECT_FALSE(slow.MayIssue());
    EXPECT_TRUE(slow.Delivered());
    EXPECT_TRUE(slow.MayIssue());
}

}  // namespace
}  // namespace jx
