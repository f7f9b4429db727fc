#include "utility/observable_impl.h"

#include <atomic>
#include <chrono>
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

TEST(ObservableTest, NotifiesEverySlotInRegistrationOrderUntilCleared) {
    Subject subject;
    std::vector<std::string> journal;
    std::shared_ptr<Listener> strong = Recorder(journal, "sa");
    std::shared_ptr<Listener> weakA = Recorder(journal, "wa");
    std::shared_ptr<Listener> weakB = Recorder(journal, "wb");
    subject.RegisterShared(strong);
    subject.RegisterWeak(weakA);
    subject.RegisterShared(Recorder(journal, "sb"));
    subject.RegisterWeak(weakB);
    subject.Notify(1);
    EXPECT_EQ(journal, (std::vector<std::string>{"sa1", "wa1", "sb1", "wb1"}));
    const std::vector<std::weak_ptr<Listener>> slots = subject.GetObservers();
    ASSERT_EQ(slots.size(), 4u);
    EXPECT_EQ(slots[0].lock(), strong);
    EXPECT_EQ(slots[3].lock(), weakB);

    subject.ClearObservers();
    subject.Notify(2);
    EXPECT_TRUE(subject.GetObservers().empty());
    EXPECT_EQ(journal.size(), 4u);
    EXPECT_EQ(strong.use_count(), 1);
}

TEST(ObservableTest, NullEmptyExpiredAndDeadSlotsAreSkippedAndNeverMatchedByRemoval) {
    LogCapture capture;
    Subject subject;
    std::vector<std::string> journal;
    std::weak_ptr<Listener> expired = std::make_shared<FunctionListener>([](int) {});
    subject.RegisterShared(nullptr);
    subject.RegisterWeak(std::weak_ptr<Listener>());
    subject.RegisterWeak(expired);
    subject.UnregisterWeak(expired);
    subject.UnregisterShared(nullptr);
    subject.UnregisterRaw(nullptr);
    EXPECT_TRUE(subject.GetObservers().empty());
    EXPECT_TRUE(capture.Records().empty()) << "nothing to remove, so nothing logged or waited for";

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

TEST(ObservableTest, UnregisterRawWaitsForANotificationOnAnotherThreadUnlessGivenNull) {
    LogCapture capture;
    Subject subject;
    std::atomic<bool> entered{false}, released{false}, removed{false}, removedBeforeRelease{true}, left{false};
    auto blocker = std::make_shared<FunctionListener>([&](int) {
        entered = true;
        WaitFor([&] { return released.load(); }, kDeadline);
        removedBeforeRelease = removed.load();
        left = true;
    });
    subject.RegisterShared(blocker);
    std::thread notifier([&] { subject.Notify(1); });
    const std::string notifierId = ThreadIdText(notifier.get_id());
    EXPECT_TRUE(WaitFor([&] { return entered.load(); }, kDeadline));
    subject.UnregisterRaw(nullptr);
    EXPECT_FALSE(left) << "removing null waited for the notification";

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
    }
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

}  // namespace
}  // namespace jx
