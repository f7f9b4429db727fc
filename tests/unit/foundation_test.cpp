// The foundations every other unit stands on: log records and their back
// end, the observer registry, watch handles and the zlib wrapper.

#include <atomic>
#include <regex>

#include <gtest/gtest.h>

#include "ferrow/zlib.h"
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

TEST(ObservableTest, NotifiesLiveSlotsInOrderAndRemovalFromACallbackReturnsAtOnce) {
    Subject subject;
    std::vector<std::string> journal;
    auto recorder = [&journal](std::string name) {
        return std::make_shared<FunctionListener>([&journal, name](int v) { journal.push_back(name + std::to_string(v)); });
    };
    std::shared_ptr<Listener> weak = recorder("weak"), gone = recorder("gone"), remover;
    remover = std::make_shared<FunctionListener>([&](int v) {
        journal.push_back("remover" + std::to_string(v));
        subject.UnregisterWeak(weak);
        subject.UnregisterRaw(remover.get());
    });
    subject.RegisterShared(nullptr);
    subject.RegisterShared(remover);
    subject.RegisterShared(recorder("strong"));
    subject.RegisterWeak(weak);
    subject.RegisterWeak(gone);
    gone.reset();
    subject.Notify(1);  // the snapshot taken before the removals is still called
    subject.Notify(2);
    EXPECT_EQ(journal, (std::vector<std::string>{"remover1", "strong1", "weak1", "strong2"}));
}

TEST(ObservableTest, RemovalWaitsForANotificationOnAnotherThreadAndAThrowingObserverStopsOnlyItsOwn) {
    Subject subject;
    std::atomic<bool> entered{false}, released{false}, removed{false};
    auto blocker = std::make_shared<FunctionListener>([&](int v) {
        if (v != 1) throw std::runtime_error("observer failed");
        entered = true;
        testing::PollUntil([&] { return released.load(); }, std::chrono::seconds(10));
        EXPECT_FALSE(removed);
    });
    subject.RegisterShared(blocker);
    std::thread notifier([&] { subject.Notify(1); });
    ASSERT_TRUE(testing::PollUntil([&] { return entered.load(); }, std::chrono::seconds(10)));
    std::thread remover([&] { subject.UnregisterShared(blocker), removed = true; });
    EXPECT_FALSE(testing::PollUntil([&] { return removed.load(); }, std::chrono::milliseconds(200)));
    released = true;
    notifier.join();
    remover.join();
    subject.RegisterShared(blocker);
    EXPECT_THROW(subject.Notify(2), std::runtime_error);
}

TEST(WatchHandleTest, CancelInsideTheWatchRunsTheLastCompletionAfterItAndMoveAssignmentReleasesWithoutCancelling) {
    using Context = ferrow::Connection::WatchContext;
    struct Access : ferrow::Connection {
        using ferrow::Connection::InvokeWatch;
        using ferrow::Connection::MakeWatchHandle;
    };
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

TEST(ZlibTest, DecompressionIgnoresSizeClaimsCapsItsOutputAndRefusesMalformedStreams) {
    using namespace ferrow::zlib;
    String text(100000, '\0');
    for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + (i * 7 + i / 13) % 26);
    const String compressed = Compress(text), atCap(kMaxDecompressedSize, 'x');
    for (unsigned long claim : {0UL, 1UL, 100000UL, ~0UL}) EXPECT_EQ(Decompress(compressed, claim), text);
    EXPECT_EQ(Decompress(Compress(atCap), 0), atCap);
    const std::pair<String, std::string> refused[] = {
        {Compress(atCap + "x"), "inflated data exceed the size limit"},
        {String(), "truncated zlib stream"},
        {compressed + "junk", "trailing bytes after the zlib stream"},
    };
    for (const auto& [bytes, error] : refused) {
        try {
            Decompress(bytes, ~0UL);
            ADD_FAILURE() << "no error for " << error;
        } catch (const ZLibError& e) {
            EXPECT_EQ(std::string(e.what()), error);
        }
    }
}

}  // namespace
}  // namespace jx
