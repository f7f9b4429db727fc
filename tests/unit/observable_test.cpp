#include "utility/observable_impl.h"

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"

namespace jx {
namespace {

using testing::LogCapture;

class Listener {
public:
    virtual ~Listener() = default;
    virtual void OnEvent(int value) = 0;
};

class FunctionListener : public Listener {
public:
    explicit FunctionListener(std::function<void(int)> fn) : m_fn(std::move(fn)) {}
    void OnEvent(int value) override { m_fn(value); }

private:
    std::function<void(int)> m_fn;
};

// Gives the tests the owner's side of the registry.
class Subject : public ObservableImpl<Listener> {
public:
    void Notify(int value) { NotifyObservers(&Listener::OnEvent, value); }
    using ObservableImpl<Listener>::GetObservers;
    using ObservableImpl<Listener>::ClearObservers;
};

// Appends "<name><value>" to a shared journal on every event.
std::shared_ptr<Listener> Recorder(std::vector<std::string>& journal, const std::string& name) {
    return std::make_shared<FunctionListener>(
        [&journal, name](int value) { journal.push_back(name + std::to_string(value)); });
}

std::string ThreadIdText(std::thread::id id) {
    std::ostringstream out;
    out << id;
    return out.str();
}

const std::string kUnregisterPrefix = "UnregisterRaw m_inCallbackThreadId=";

// The notifier ids that the debug records of UnregisterRaw reported, in order.
std::vector<std::string> ReportedNotifiers(const LogCapture& capture) {
    std::vector<std::string> ids;
    for (const LogCapture::Record& r : capture.Records()) {
        if (r.message.compare(0, kUnregisterPrefix.size(), kUnregisterPrefix) != 0) continue;
        ids.push_back(r.message.substr(kUnregisterPrefix.size(), r.message.find(", current") - kUnregisterPrefix.size()));
    }
    return ids;
}

const std::string kBlank = ThreadIdText(std::thread::id());

constexpr std::chrono::seconds kDeadline(10);

// Polls `done` until it holds or `limit` passes; returns its last value. A
// blocked observer waits with it too, so a broken registry fails the test
// instead of hanging it.
template <typename Predicate>
bool WaitFor(Predicate done, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::yield();
    }
    return true;
}

TEST(ObservableTest, NotifiesInRegistrationOrderWithStrongAndWeakInterleaved) {
    Subject subject;
    std::vector<std::string> journal;
    std::shared_ptr<Listener> weakA = Recorder(journal, "wa");
    std::shared_ptr<Listener> weakB = Recorder(journal, "wb");
    subject.RegisterShared(Recorder(journal, "sa"));
    subject.RegisterWeak(weakA);
    subject.RegisterShared(Recorder(journal, "sb"));
    subject.RegisterWeak(weakB);
    subject.Notify(1);
    EXPECT_EQ(journal, (std::vector<std::string>{"sa1", "wa1", "sb1", "wb1"}));
}

TEST(ObservableTest, NullEmptyAndExpiredRegistrationsAreIgnoredWithoutLoggingOrWaiting) {
    LogCapture capture;
    Subject subject;
    std::weak_ptr<Listener> expired = std::make_shared<FunctionListener>([](int) {});
    subject.RegisterShared(nullptr);
    subject.RegisterWeak(std::weak_ptr<Listener>());
    subject.RegisterWeak(expired);
    subject.UnregisterWeak(expired);
    subject.UnregisterShared(nullptr);
    subject.UnregisterRaw(nullptr);
    EXPECT_TRUE(subject.GetObservers().empty());
    EXPECT_TRUE(capture.Records().empty());
}

TEST(ObservableTest, DoubleRegistrationIsCalledTwiceAndOneRemovalTakesOnlyTheEarlierSlot) {
    Subject subject;
    std::vector<std::string> journal;
    std::shared_ptr<Listener> a = Recorder(journal, "a");
    subject.RegisterShared(a);
    subject.RegisterShared(Recorder(journal, "b"));
    subject.RegisterWeak(a);
    subject.Notify(1);
    subject.UnregisterRaw(a.get());
    subject.Notify(2);
    EXPECT_EQ(journal, (std::vector<std::string>{"a1", "b1", "a1", "b2", "a2"}));
}

TEST(ObservableTest, DeadWeakObserverIsSkippedAndNeverMatchedByRemoval) {
    Subject subject;
    std::vector<std::string> journal;
    std::shared_ptr<Listener> doomed = Recorder(journal, "dead");
    const Listener* doomedAddress = doomed.get();
    subject.RegisterWeak(doomed);
    subject.RegisterShared(Recorder(journal, "live"));
    doomed.reset();  // made by make_shared: the weak slot keeps the address reserved
    subject.UnregisterRaw(doomedAddress);
    subject.Notify(1);
    EXPECT_EQ(journal, (std::vector<std::string>{"live1"}));
    const std::vector<std::weak_ptr<Listener>> slots = subject.GetObservers();
    ASSERT_EQ(slots.size(), 2u);
    EXPECT_TRUE(slots[0].expired());
    EXPECT_FALSE(slots[1].expired());
}

TEST(ObservableTest, RemovalFromInsideACallbackReturnsAtOnceAndTheSnapshotIsStillCalled) {
    Subject subject;
    std::vector<std::string> journal;
    std::shared_ptr<Listener> later = Recorder(journal, "later");
    std::shared_ptr<Listener> remover;
    remover = std::make_shared<FunctionListener>([&](int value) {
        journal.push_back("remover" + std::to_string(value));
        subject.UnregisterShared(later);
        subject.UnregisterRaw(remover.get());
    });
    subject.RegisterShared(remover);
    subject.RegisterShared(Recorder(journal, "middle"));
    subject.RegisterWeak(later);
    subject.Notify(1);
    subject.Notify(2);
    EXPECT_EQ(journal, (std::vector<std::string>{"remover1", "middle1", "later1", "middle2"}));
}

TEST(ObservableTest, UnregisterRawWaitsForANotificationOnAnotherThread) {
    LogCapture capture;
    Subject subject;
    std::atomic<bool> released{false};
    std::atomic<bool> removed{false};
    std::atomic<bool> removedBeforeRelease{true};
    std::atomic<bool> entered{false};
    auto blocker = std::make_shared<FunctionListener>([&](int) {
        entered = true;
        WaitFor([&] { return released.load(); }, kDeadline);
        removedBeforeRelease = removed.load();
    });
    subject.RegisterShared(blocker);
    std::thread notifier([&] { subject.Notify(1); });
    const std::string notifierId = ThreadIdText(notifier.get_id());
    EXPECT_TRUE(WaitFor([&] { return entered.load(); }, kDeadline));

    std::thread remover([&] {
        subject.UnregisterRaw(blocker.get());
        removed = true;
    });
    // The debug record is written after the slot is erased, right before the
    // wait; a removal that did not wait would then return within the window.
    const bool logged = WaitFor([&] { return !ReportedNotifiers(capture).empty(); }, kDeadline);
    const bool returnedWhileBlocked = WaitFor([&] { return removed.load(); }, std::chrono::milliseconds(200));
    released = true;
    notifier.join();
    remover.join();

    EXPECT_TRUE(logged);
    EXPECT_FALSE(returnedWhileBlocked);
    EXPECT_FALSE(removedBeforeRelease);
    EXPECT_TRUE(subject.GetObservers().empty());
    EXPECT_EQ(ReportedNotifiers(capture), (std::vector<std::string>{notifierId}));
}

TEST(ObservableTest, UnregisterRawOfNullReturnsAtOnceWhileAnotherThreadNotifies) {
    Subject subject;
    std::atomic<bool> released{false};
    std::atomic<bool> entered{false};
    std::atomic<bool> finished{false};
    subject.RegisterShared(std::make_shared<FunctionListener>([&](int) {
        entered = true;
        WaitFor([&] { return released.load(); }, kDeadline);
        finished = true;
    }));
    std::thread notifier([&] { subject.Notify(1); });
    EXPECT_TRUE(WaitFor([&] { return entered.load(); }, kDeadline));

    subject.UnregisterRaw(nullptr);
    EXPECT_FALSE(finished);
    released = true;
    notifier.join();
}

TEST(ObservableTest, UnregisterRecordsNotifierAndStaysBlankAfterNestedNotificationReturns) {
    LogCapture capture;
    Subject subject;
    FunctionListener unregistered([](int) {});
    subject.RegisterShared(std::make_shared<FunctionListener>([&](int value) {
        if (value != 1) return;
        subject.UnregisterRaw(&unregistered);
        subject.Notify(2);
        subject.UnregisterRaw(&unregistered);
    }));
    subject.Notify(1);
    subject.UnregisterRaw(&unregistered);

    const std::string self = ThreadIdText(std::this_thread::get_id());
    EXPECT_EQ(ReportedNotifiers(capture), (std::vector<std::string>{self, kBlank, kBlank}));
    const std::vector<LogCapture::Record> records = capture.Records();
    ASSERT_EQ(records.size(), 3u);
    const std::string suffix = ", current thread id=" + self;
    EXPECT_EQ(records[0].message, kUnregisterPrefix + self + suffix);
    EXPECT_EQ(records[1].message, kUnregisterPrefix + kBlank + suffix);
    for (const LogCapture::Record& r : records) {
        EXPECT_EQ(r.level, logging::JXLOG_DEBUG);
        EXPECT_EQ(r.source, "");
        EXPECT_EQ(r.line, 101);
        EXPECT_NE(r.file.find("utility/observable_impl.h"), std::string::npos) << r.file;
    }

    // The stall record needs a hundred million turns of the wait to appear, so
    // its statement is pinned where the header says it is.
    std::ifstream header(records[0].file);
    std::string line;
    for (int n = 0; n < 111 && std::getline(header, line); ++n) {
    }
    EXPECT_NE(line.find("JXLOG(logging::JXLOG_INFO, logging::ConstSourcePtr()) << \"UnregisterRaw appears stalled. "
                        "Possible dead/live lock! Function has looped \" << loops << \" times\""),
              std::string::npos)
        << line;
}

TEST(ObservableTest, ThrowingObserverStopsThatNotificationAndTheNextStartsAfresh) {
    LogCapture capture;
    Subject subject;
    std::vector<std::string> journal;
    FunctionListener unregistered([](int) {});
    subject.RegisterShared(Recorder(journal, "first"));
    subject.RegisterShared(std::make_shared<FunctionListener>([](int value) {
        if (value == 1) throw std::runtime_error("observer failed");
    }));
    subject.RegisterShared(Recorder(journal, "last"));
    EXPECT_THROW(subject.Notify(1), std::runtime_error);
    subject.UnregisterRaw(&unregistered);
    subject.Notify(2);
    EXPECT_EQ(journal, (std::vector<std::string>{"first1", "first2", "last2"}));
    EXPECT_EQ(ReportedNotifiers(capture), (std::vector<std::string>{kBlank}));
}

TEST(ObservableTest, GetObserversListsEverySlotAndClearObserversEmptiesThem) {
    Subject subject;
    std::vector<std::string> journal;
    std::shared_ptr<Listener> strong = Recorder(journal, "s");
    std::shared_ptr<Listener> weak = Recorder(journal, "w");
    subject.RegisterShared(strong);
    subject.RegisterWeak(weak);
    const std::vector<std::weak_ptr<Listener>> slots = subject.GetObservers();
    ASSERT_EQ(slots.size(), 2u);
    EXPECT_EQ(slots[0].lock(), strong);
    EXPECT_EQ(slots[1].lock(), weak);
    EXPECT_EQ(strong.use_count(), 2);

    subject.ClearObservers();
    subject.Notify(1);
    EXPECT_TRUE(subject.GetObservers().empty());
    EXPECT_TRUE(journal.empty());
    EXPECT_EQ(strong.use_count(), 1);
}

}  // namespace
}  // namespace jx
