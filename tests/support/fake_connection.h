#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ferrow/connection_v2.h"

namespace jx {
namespace testing {

// A scripted Connection for unit tests that need exact result codes and
// orderings. Requests are recorded and answered only when the test says so:
// FireChildren, FireData, FireWatch and SessionEvent queue a delivery that
// runs on the double's own delivery thread, as on the real connection, and
// Drain waits until everything queued has run. An exception escaping a
// delivered callback is caught there and kept for Errors(). Thread-safe;
// must be destroyed off its delivery thread.
class FakeConnection : public ferrow::Connection {
    // Runs `f` with m_mtx held and returns what it returns.
    template <typename F>
    auto Locked(F&& f) const {
        std::lock_guard<std::mutex> lock(m_mtx);
        return f();
    }

public:
    // Operations whose answer Fail can force.
    enum class Op { Issue, Exists, Create, Get };
    // One AsyncGetChildren or AsyncGet request.
    struct Request {
        String path;
        std::shared_ptr<WatchContext> watch;
        ChildrenResult childrenResult;  // set for AsyncGetChildren
        DataResult dataResult;          // set for AsyncGet
    };

    FakeConnection() : m_thread([this] { Deliver(); }) {}
    ~FakeConnection() override {
        Enqueue(nullptr);  // the delivery thread's signal to stop
        m_thread.join();
    }

    void SetState(int state) { Locked([&] { m_state = state; }); }
    // Queues `rc` as the answer of the next operation `op` (for Op::Issue:
    // the code returned for issuing the next asynchronous request).
    void Fail(Op op, int rc) { Locked([&] { m_forced[op].push_back(rc); }); }
    std::vector<Request> Requests() const { return Locked([&] { return m_requests; }); }
    std::vector<std::string> Errors() const { return Locked([&] { return m_errors; }); }
    // Runs `hook` on the registering thread right after every RegisterWeak,
    // so that a test can deliver events before the registrant's next step.
    void AfterRegisterWeak(std::function<void()> hook) { Locked([&] { m_afterRegisterWeak = std::move(hook); }); }
    void RegisterWeak(std::weak_ptr<ferrow::ConnectionObserver> observer) override {
        ObservableImpl::RegisterWeak(std::move(observer));
        if (const auto hook = Locked([&] { return m_afterRegisterWeak; })) hook();
    }

    // Queue deliveries for request `index` (0-based, in request order).
    void FireChildren(std::size_t index, int rc, std::vector<String> children) {
        Enqueue([result = Requests().at(index).childrenResult, rc, children] { result(rc, children); });
    }
    void FireData(std::size_t index, int rc, String data) {
        Enqueue([result = Requests().at(index).dataResult, rc, data, stat = Stat{}] { result(rc, data, &stat); });
    }
    void FireWatch(std::size_t index, int type) {
        Enqueue([r = Requests().at(index), type] { InvokeWatch(*r.watch, type, ZOO_CONNECTED_STATE, r.path); });
    }
    // Queues a session event to the registered ConnectionObservers.
    void SessionEvent(int state) {
        Enqueue([this, state] { NotifyObservers(&ferrow::ConnectionObserver::OnSessionEvent, ZOO_SESSION_EVENT, state, String()); });
    }
    // Waits until every queued delivery has run; false after `timeout`.
    bool Drain(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> lock(m_mtx);
        return m_cv.wait_for(lock, timeout, [this] { return m_queue.empty() && !m_delivering; });
    }

    int State() const override { return Locked([&] { return m_state; }); }
    std::pair<int, WatchHandle> AsyncGetChildren(String path, WatchFunction watch, ChildrenResult result) const override {
        return Record({std::move(path), nullptr, std::move(result), nullptr}, std::move(watch));
    }
    std::pair<int, WatchHandle> AsyncGet(String path, WatchFunction watch, DataResult result) const override {
        return Record({std::move(path), nullptr, nullptr, std::move(result)}, std::move(watch));
    }
    // Synchronous operations succeed unless Fail forced an answer; Get and
    // Exists find nothing; GetChildren, which the watcher never calls, fails.
    int Get(String, String&, Stat*) const override { return Locked([&] { return Forced(Op::Get, ZNONODE); }); }
    int Create(String, const String&, const ACL_vector&, int) const override { return Locked([&] { return Forced(Op::Create); }); }
    int Set(String, const String&, int, Stat*) const override { return ZOK; }
    int Delete(String, int) const override { return ZOK; }
    int Exists(String, Stat*) const override { return Locked([&] { return Forced(Op::Exists, ZNONODE); }); }
    int GetChildren(String, std::vector<String>&) const override { return ZNOTHING; }

private:
    // The forced answer of `op`, or `otherwise`; called with m_mtx held.
    int Forced(Op op, int otherwise = ZOK) const {
        std::deque<int>& forced = m_forced[op];
        const int rc = forced.empty() ? otherwise : forced.front();
        if (!forced.empty()) forced.pop_front();
        return rc;
    }
    std::pair<int, WatchHandle> Record(Request request, WatchFunction watch) const {
        request.watch = std::make_shared<WatchContext>(*this, std::move(watch));
        return Locked([&] {
            m_requests.push_back(request);
            return std::make_pair(Forced(Op::Issue), MakeWatchHandle(request.watch));
        });
    }
    void Enqueue(std::function<void()> delivery) {
        Locked([&] { m_queue.push_back(std::move(delivery)); });
        m_cv.notify_all();
    }
    // The delivery thread: runs each delivery with no lock held; an empty
    // one ends it.
    void Deliver() {
        std::unique_lock<std::mutex> lock(m_mtx);
        for (;;) {
            m_cv.wait(lock, [this] { return !m_queue.empty(); });
            std::function<void()> delivery = std::move(m_queue.front());
            m_queue.pop_front();
            if (!delivery) return;
            m_delivering = true;
            lock.unlock();
            std::string error;
            try {
                delivery();
            } catch (const std::exception& e) {
                error = e.what();
            }
            delivery = nullptr;  // the callback's captures die before Drain can return
            lock.lock();
            if (!error.empty()) m_errors.push_back(error);
            m_delivering = false;
            m_cv.notify_all();
        }
    }

    mutable std::mutex m_mtx;  // guards every member below except m_thread
    std::condition_variable m_cv;
    int m_state = ZOO_CONNECTED_STATE;
    mutable std::map<Op, std::deque<int>> m_forced;
    mutable std::vector<Request> m_requests;
    std::deque<std::function<void()>> m_queue;
    bool m_delivering = false;
    std::vector<std::string> m_errors;
    std::function<void()> m_afterRegisterWeak;
    std::thread m_thread;
};

}  // namespace testing
}  // namespace jx
