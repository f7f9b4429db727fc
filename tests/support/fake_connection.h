#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "ferrow/connection_v2.h"

namespace jx {
namespace testing {

// A scripted Connection for unit tests that need exact result codes and
// orderings. Requests are recorded and answered only when the test says so:
// FireChildren, FireData, FireWatch and SessionEvent run the callback at
// once on the calling thread, with no lock of the double held, as the real
// connection's delivery thread would run it. Thread-safe.
class FakeConnection : public ferrow::Connection {
    // Runs `f` with m_mtx held and returns what it returns.
    template <typename F>
    auto Locked(F&& f) const {
        std::lock_guard<std::mutex> lock(m_mtx);
        return f();
    }

public:
    // The handle and delivery protocol of every connection, for tests of it.
    using Connection::InvokeWatch;
    using Connection::MakeWatchHandle;
    // Operations whose answer Fail can force.
    enum class Op { Issue, Create, Exists };
    // One AsyncGetChildren or AsyncGet request.
    struct Request {
        String path;
        std::shared_ptr<WatchContext> watch;
        ChildrenResult childrenResult;  // set for AsyncGetChildren
        DataResult dataResult;          // set for AsyncGet
    };

    void SetState(int state) { Locked([&] { m_state = state; }); }
    // Queues `rc` as the answer of the next operation `op` (for Op::Issue:
    // the code returned for issuing the next asynchronous request).
    void Fail(Op op, int rc) { Locked([&] { m_forced[op].push_back(rc); }); }
    // Makes `path` exist or not without a request, as another client, an
    // expiry or a create whose answer was lost would.
    void SetExists(const String& path, bool exists) {
        Locked([&] { exists ? void(m_created.insert(path)) : void(m_created.erase(path)); });
    }
    std::vector<Request> Requests() const { return Locked([&] { return m_requests; }); }
    // One request, and how many there were: without copying them all.
    Request At(std::size_t index) const { return Locked([&] { return m_requests.at(index); }); }
    std::size_t RequestCount() const { return Locked([&] { return m_requests.size(); }); }
    // Runs `hook` on the registering thread right after every RegisterWeak,
    // so that a test can deliver events before the registrant's next step.
    void AfterRegisterWeak(std::function<void()> hook) { Locked([&] { m_afterRegisterWeak = std::move(hook); }); }
    void RegisterWeak(std::weak_ptr<ferrow::ConnectionObserver> observer) override {
        ObservableImpl::RegisterWeak(std::move(observer));
        if (const auto hook = Locked([&] { return m_afterRegisterWeak; })) hook();
    }

    // Deliver to request `index` (0-based, in request order).
    void FireChildren(std::size_t index, int rc, std::vector<String> children) {
        At(index).childrenResult(rc, std::move(children));
    }
    void FireData(std::size_t index, int rc, String data) {
        const Stat stat{};
        At(index).dataResult(rc, std::move(data), &stat);
    }
    void FireWatch(std::size_t index, int type) {
        const Request request = At(index);
        InvokeWatch(*request.watch, type, ZOO_CONNECTED_STATE, request.path);
    }
    // A session event to the registered ConnectionObservers.
    void SessionEvent(int state) { NotifyObservers(&ferrow::ConnectionObserver::OnSessionEvent, ZOO_SESSION_EVENT, state, String()); }

    int State() const override { return Locked([&] { return m_state; }); }
    std::pair<int, WatchHandle> AsyncGetChildren(String path, WatchFunction watch, ChildrenResult result) const override {
        return Record({std::move(path), nullptr, std::move(result), nullptr}, std::move(watch));
    }
    std::pair<int, WatchHandle> AsyncGet(String path, WatchFunction watch, DataResult result) const override {
        return Record({std::move(path), nullptr, nullptr, std::move(result)}, std::move(watch));
    }
    // Unless Fail forced an answer: Create and Exists know the paths created
    // so far (deleted only by SetExists, holding no data), Get finds nothing, Set and
    // Delete succeed (Deleted lists them), and GetChildren, which the watcher never calls, fails.
    int Get(String, String&, Stat*) const override { return ZNONODE; }
    int Create(String path, const String&, const ACL_vector&, int) const override {
        return Locked([&] {
            const int rc = Forced(Op::Create, m_created.count(path) != 0 ? ZNODEEXISTS : ZOK);
            if (rc == ZOK) m_created.insert(path);
            return rc;
        });
    }
    int Set(String, const String&, int, Stat*) const override { return ZOK; }
    int Delete(String path, int) const override {
        return Locked([&] {
            m_deleted.push_back(path);
            return ZOK;
        });
    }
    std::vector<String> Deleted() const { return Locked([&] { return m_deleted; }); }
    // Entries in the session observer registry, dead ones included.
    size_t ObserverSlots() { return GetObservers().size(); }
    int Exists(String path, Stat*) const override {
        return Locked([&] { return Forced(Op::Exists, m_created.count(path) != 0 ? ZOK : ZNONODE); });
    }
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

    mutable std::mutex m_mtx;  // guards every member below
    int m_state = ZOO_CONNECTED_STATE;
    mutable std::map<Op, std::deque<int>> m_forced;
    mutable std::vector<Request> m_requests;
    mutable std::set<String> m_created;
    mutable std::vector<String> m_deleted;
    std::function<void()> m_afterRegisterWeak;
};

}  // namespace testing
}  // namespace jx
