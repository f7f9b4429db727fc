#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_set>
#include <vector>

#include "connection/callback_gate.h"
#include "connection/session_subscription.h"
#include "ferrow/connection_v2.h"
#include "ferrow/service_watcher_observer.h"
#include "utility/observable_impl.h"
#include "utility/string.h"
#include "utility/uuid_hash.h"

namespace jx {
namespace ferrow {

class ServiceWatcher;
class ServiceWatcherImpl;
class SyncTracker;
namespace details {
class WatcherConnection;
}  // namespace details

// What a ServiceWatcher is beyond the core that mirrors one service node: the
// view its observers were given, and the service node's whole life.
//
// The view. Every core report passes through here before it reaches the
// observers registered with the ServiceWatcher (this object's registry). An
// id enters the view with its first decoded record and leaves it with its
// removal, so observers see an addition first, a modification only of an id
// they know, and a removal only of an id they were given: a removal of an id
// never reported (one gone before its record was read, or whose record never
// decoded) is dropped, and the first good record after undecodable ones is an
// addition. ListInstances and the counts come from this view.
//
// The node's life. A core leaves a deleted service node unwatched, so this
// object watches the node's data (a deletion, or a change that reveals a node
// deleted and created again while the connection was down, by its creation
// zxid) and, while the node is missing, the children of its nearest existing
// ancestor. When the node goes, the core is retired and every instance in the
// view reported removed; when it comes back, a fresh core is started on it.
// A core is never started twice, and only the first core's start-up creates
// a missing node: a fresh core starts only once the node exists (a node
// deleted again within the round trip between that check and the core's own
// check of it is re-created, a window no caller can close without the core's
// help).
//
// Session events. This object is the watcher's one observer in the real
// connection's registry (through a SessionSubscription) and delivers each
// event, inside its gate, to the watcher's own registry (`sessions`: the
// cores, the sync tracker, the caches attached), then handles it itself. So
// closing the gate is all it takes for no part of the watcher to hear of the
// session any more, and the watcher's end never waits for a notification
// that the connection runs for another watcher.
//
// Threads and locks. Owned by a std::shared_ptr; callbacks hold it weakly
// and pass m_gate. Core reports, node watch callbacks and session events run
// on the connection's delivery thread; the core's error handler runs under the
// core's lock. Lock order: a core's lock, then m_mtx; nothing of a core, no
// observer and no request is called with m_mtx held, except the requests
// that arm this object's own watches.
class WatcherState : public ConnectionObserver,
                     public ObservableImpl<ServiceWatcherObserver>,
                     public std::enable_shared_from_this<WatcherState> {
public:
    // `owner` is passed to every report; it outlives this object's gate.
    // `sessions` is the watcher's registry of session observers, over
    // `conn`. `handler` receives every error of a core but the missing
    // service node, which is this object's to handle.
    WatcherState(ServiceWatcher& owner, std::shared_ptr<Connection> conn,
                 std::shared_ptr<details::WatcherConnection> sessions, String service, ZkErrorHandler handler);
    ~WatcherState() override;

    // Subscribes to the connection's session events, to deliver them to
    // `sessions`. Call once, right after construction.
    void Attach();
    // Starts the first core (whose start-up creates a missing service node),
    // then watches the node. Call once.
    void Start();
    // Turns every callback away, waiting (blocked) for those of this watcher
    // running on other threads, ends the subscription without waiting, and
    // retires the core. Once it returns no observer, listener or handler
    // runs. `wait`: also waits until the core is destroyed, which only its
    // own callbacks on the delivery thread can delay (false on the delivery
    // thread, where one of them may be the caller's caller).
    void Close(bool wait);

    // The tracker of the view's completeness, told when a fresh core starts.
    void SetTracker(std::shared_ptr<SyncTracker> tracker);
    // Runs on the delivery thread after the instances of a deleted service
    // were reported removed (false), and when the node is back, before its
    // instances are read (true). The added ones first (the caches it feeds),
    // then the owner's; AddServiceListener returns a key for removal.
    void SetServiceListener(std::function<void(bool exists)> listener);
    // Whether instance nodes that are not ephemeral are left out of the view.
    void IgnorePersistent(bool ignore);
    std::uint64_t AddServiceListener(std::function<void(bool exists)> listener);
    void RemoveServiceListener(std::uint64_t key);

    std::vector<ServiceId> ListInstances() const;
    size_t InstanceCount() const;
    // Ids the core knows that never decoded (not in the view).
    size_t UndecodableCount() const;
    // Whether the service node was there when last looked at.
    bool Exists() const;
    bool GetInstanceData(const ServiceId& id, ServiceInstanceData& data) const;
    // Whether nothing waits for a retry: true while the service is missing.
    bool Settled() const;

    // For the metrics.
    struct Figures {
        bool serviceExists = true;
        std::uint64_t deletions = 0;
        std::uint64_t creations = 0;
        std::uint64_t reads = 0;
        std::uint64_t readRetries = 0;
        std::map<int, std::uint64_t> errors;  // by ZooKeeper code
    };
    Figures Collect() const;

    void OnSessionEvent(int type, int state, String path) override;

private:
    struct Forwarder;

    // A core's report, `record` null for a removal; dropped unless
    // `generation` is the current core's.
    void Report(std::uint64_t generation, const ServiceId& id, const ServiceInstanceData* record);
    // A core met `rc`; under that core's lock.
    void OnCoreError(int rc);

    // Reads the service node with a data watch; its answer drives the life.
    void CheckNode();
    void OnNodeRead(int rc, std::int64_t czxid);
    // Watches the children of `parent`, the nearest ancestor thought to
    // exist, for the next step towards the service node.
    void WatchAncestor(const String& parent);
    void OnAncestorRead(const String& parent, int rc, const std::vector<String>& children);

    // Tells the service listeners; no lock held.
    void Tell(bool exists);

    // Lets in a callback that found this object alive and not closed.
    static CallbackGate::Pass Admit(const std::shared_ptr<WatcherState>& self) {
        return self ? self->m_gate.Enter() : CallbackGate::Pass();
    }

    // Builds, registers and starts a core for the node created at `czxid`
    // (0: the first, which may create the node; -1: a node that may not be
    // read).
    void StartCore(std::int64_t czxid);
    // Lets the current core go and reports every instance of the view
    // removed.
    void RetireCore();
    void TakeCounts(const ServiceWatcherImpl& core);

    ServiceWatcher& m_owner;
    const std::shared_ptr<Connection> m_conn;
    const std::shared_ptr<details::WatcherConnection> m_sessions;
    const String m_service;
    const String m_path;
    const ZkErrorHandler m_handler;
    CallbackGate m_gate;

    mutable std::mutex m_mtx;  // guards every field below
    bool m_closed = false;
    bool m_started = false;
    details::SessionSubscription m_subscription;
    std::shared_ptr<ServiceWatcherImpl> m_core;  // null while the service is missing
    std::future<void> m_coreReleased;            // ready once m_core's object is destroyed
    std::uint64_t m_generation = 0;              // of m_core; reports of older cores are dropped
    std::int64_t m_czxid = 0;                    // the creation of the node m_core follows; 0: unknown
    bool m_exists = true;
    bool m_nodeRetry = false;  // the node is read again at the next connected event
    bool m_denied = false;     // the node may not be read: its life is not followed
    Connection::WatchHandle m_nodeWatch;
    Connection::WatchHandle m_ancestorWatch;
    std::unordered_set<ServiceId> m_view;
    std::atomic<bool> m_ignorePersistent{false};
    std::shared_ptr<SyncTracker> m_tracker;
    std::function<void(bool)> m_serviceListener;
    std::vector<std::pair<std::uint64_t, std::function<void(bool)>>> m_serviceListeners;
    std::uint64_t m_lastKey = 0;
    std::uint64_t m_deletions = 0;
    std::uint64_t m_creations = 0;
    // Reads of retired cores, so the counters never go back.
    std::uint64_t m_retiredReads = 0;
    std::uint64_t m_retiredRetries = 0;
    std::map<int, std::uint64_t> m_errors;
};

}  // namespace ferrow
}  // namespace jx
