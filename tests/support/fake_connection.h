#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ferrow/connection_v2.h"

namespace jx {
namespace testing {

// A scripted Connection for unit tests. Requests are recorded and answered
// only when the test says so: FireChildren, FireData, FireWatch and
// SessionEvent queue a delivery that runs on the double's own delivery
// thread, like the real connection's, and Drain waits until everything
// queued has run. An exception escaping a delivered callback is caught there
// and kept for Errors(). Node operations work on an in-memory map.
// Thread-safe; must be destroyed off its delivery thread.
class FakeConnection : public ferrow::Connection {
public:
    enum class Kind { Children, Data };

    // One AsyncGetChildren or AsyncGet request.
    struct Request {
        Kind kind;
        String path;
        int issued;  // the code returned for issuing it
        std::shared_ptr<WatchContext> watch;
        ChildrenResult childrenResult;  // set for Kind::Children
        DataResult dataResult;          // set for Kind::Data
    };

    FakeConnection();
    ~FakeConnection() override;

    void SetState(int state);
    // Codes returned, in order, for the next asynchronous requests of `kind`;
    // ZOK once the queue is empty.
    void ScriptIssue(Kind kind, int rc);
    // Makes every Exists / Create return `rc`; nullopt restores the map's answer.
    void FailExists(std::optional<int> rc);
    void FailCreate(std::optional<int> rc);
    // Makes every Get return `rc` instead of reading the map.
    void FailGet(std::optional<int> rc);
    void SetNode(const String& path, const String& data);

    std::vector<Request> Requests() const;
    // The capacity (incoming size of `out`) of the last Get.
    std::size_t LastGetCapacity() const;
    // Session observer slots currently registered (live or not).
    std::size_t ObserverSlots() const;
    // Runs `hook` on the registering thread right after every RegisterWeak,
    // so that a test can deliver events before the registrant's next step.
    void AfterRegisterWeak(std::function<void()> hook);
    void RegisterWeak(std::weak_ptr<ferrow::ConnectionObserver> observer) override;

    // Queue deliveries for request `index` (0-based, in request order).
    void FireChildren(std::size_t index, int rc, std::vector<String> children);
    void FireData(std::size_t index, int rc, String data);
    void FireWatch(std::size_t index, int type, int state = ZOO_CONNECTED_STATE);
    // Queues a session-level event to the registered ConnectionObservers.
    void SessionEvent(int type, int state);
    // Waits until every queued delivery has run; false after `timeout`.
    bool Drain(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // what() of each exception that escaped a delivered callback.
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
    std::pair<int, WatchHandle> Record(Kind kind, String path, WatchFunction watch, ChildrenResult children,
                                       DataResult data) const;
    Request At(std::size_t index) const;
    void Enqueue(std::function<void()> delivery);
    void Deliver();

    mutable std::mutex m_mtx;  // guards every member below except m_thread
    std::condition_variable m_cv;
    int m_state = ZOO_CONNECTED_STATE;
    mutable std::map<Kind, std::deque<int>> m_script;
    std::optional<int> m_existsRc;
    std::optional<int> m_createRc;
    std::optional<int> m_getRc;
    mutable std::map<String, String> m_nodes;
    mutable std::vector<Request> m_requests;
    mutable std::size_t m_lastGetCapacity = 0;
    std::deque<std::function<void()>> m_queue;
    bool m_delivering = false;
    bool m_stop = false;
    std::vector<std::string> m_errors;
    std::function<void()> m_afterRegisterWeak;
    std::thread m_thread;
};

}  // namespace testing
}  // namespace jx
