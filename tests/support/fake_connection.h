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
// delivered callback is caught there and kept for Errors(). Synchronous node
// operations work on an in-memory map. Thread-safe; must be destroyed off
// its delivery thread.
class FakeConnection : public ferrow::Connection {
public:
    enum class Kind { Children, Data };
    // Operations whose answer Fail can force.
    enum class Op { Issue, Exists, Create, Get };

    // One AsyncGetChildren or AsyncGet request.
    struct Request {
        Kind kind;
        String path;
        std::shared_ptr<WatchContext> watch;
        ChildrenResult childrenResult;  // set for Kind::Children
        DataResult dataResult;          // set for Kind::Data
    };

    FakeConnection();
    ~FakeConnection() override;

    void SetState(int state);
    // Queues `rc` as the answer of the next operation `op` (for Op::Issue:
    // the code returned for issuing the next asynchronous request).
    void Fail(Op op, int rc);
    void SetNode(const String& path, const String& data);
    std::vector<Request> Requests() const;
    // Runs `hook` on the registering thread right after every RegisterWeak,
    // so that a test can deliver events before the registrant's next step.
    void AfterRegisterWeak(std::function<void()> hook);
    void RegisterWeak(std::weak_ptr<ferrow::ConnectionObserver> observer) override;

    // Queue deliveries for request `index` (0-based, in request order).
    void FireChildren(std::size_t index, int rc, std::vector<String> children);
    void FireData(std::size_t index, int rc, String data);
    void FireWatch(std::size_t index, int type);
    // Queues a session event to the registered ConnectionObservers.
    void SessionEvent(int state);
    // Waits until every queued delivery has run; false after `timeout`.
    bool Drain(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    std::vector<std::string> Errors() const;

    int State() const override;
    int Get(String path, String& out, Stat* stat) const override;
    std::pair<int, WatchHandle> AsyncGetChildren(String path, WatchFunction watch,
                                                 ChildrenResult result) const override;
    std::pair<int, WatchHandle> AsyncGet(String path, WatchFunction watch, DataResult result) const override;
    int Create(String path, const String& data, const ACL_vector& acl, int flags) const override;
    int Set(String path, const String& data, int version, Stat* stat) const override;
    int Delete(String path, int version) const override;
    int Exists(String path, Stat* stat) const override;
    int GetChildren(String path, std::vector<String>& children) const override;

private:
    // The forced answer of `op`, or ZOK; called with m_mtx held.
    int Forced(Op op) const;
    std::pair<int, WatchHandle> Record(Request request, WatchFunction watch) const;
    void Enqueue(std::function<void()> delivery);
    void Deliver();

    mutable std::mutex m_mtx;  // guards every member below except m_thread
    std::condition_variable m_cv;
    int m_state = ZOO_CONNECTED_STATE;
    mutable std::map<Op, std::deque<int>> m_forced;
    mutable std::map<String, String> m_nodes;
    mutable std::vector<Request> m_requests;
    std::deque<std::function<void()>> m_queue;
    bool m_delivering = false;
    bool m_stop = false;
    std::vector<std::string> m_errors;
    std::function<void()> m_afterRegisterWeak;
    std::thread m_thread;
};

}  // namespace testing
}  // namespace jx
