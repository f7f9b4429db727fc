#pragma once

// Follows the running instances of one named service: the children of the
// node /srv2/<name>, each named by an instance's ServiceId, and the record in
// each child's data. Changes reach the registered observers.

#include <chrono>
#include <functional>
#include <memory>
#include <vector>

#include "ferrow/connection_v2.h"
#include "ferrow/metrics.h"
#include "ferrow/service_watcher_observer.h"
#include "utility/observable.h"
#include "utility/string.h"

namespace jx {
namespace ferrow {

class SyncTracker;
class WatcherState;
namespace details {
class MetricsSource;
class WatcherConnection;
}  // namespace details

// Thread-safe: every operation may be called from any thread.
//
// What the observers see. Each change once, in order: an instance is
// reported added with its first record that decodes, modified only after it
// was reported added, and removed only if it was reported added and not
// removed since. An instance whose record never decodes (a corrupt
// compressed record, an unknown compression) is never reported; it is
// counted apart (UndecodableCount) and logged. ListInstances, the synced
// listener's count and the metrics all count the instances reported added
// and not removed.
//
// Memory. Beyond its instances, a watcher keeps about 350 bytes (a watch
// handle, holding no watch) for each instance it listed and found gone at
// its first read, until the next session expiry or the service node's
// re-creation clears them: under churn that deletes instances as fast as
// they appear, one in seven to nine of them (docs/benchmarks.md).
//
// Metrics: while it exists, its figures (WatcherMetrics: instances, reports
// by kind, reads, the service node's life, whether and since when the view
// is current) are part of CollectMetrics (ferrow/metrics.h).
//
// Threads and locks: observers run on the connection's delivery thread, one
// event at a time, with no lock of the watcher held, so they may call back
// into it. The error handler runs on whatever thread met the error (the
// caller of Start or the delivery thread) with the watcher's lock held: it
// must not call the watcher back.
//
// A lost session is survived: what failed transiently is retried when the
// session is connected again, and an expired session reports every watched
// instance removed and then re-reads the service (a ServiceCache instead
// keeps its view through an expiry and publishes only the difference).
//
// The service node's life is followed. When /srv2/<name> is deleted (by an
// operator, or by the server: a container node after its last instance
// left, a TTL node), every instance is reported removed, a WARNING is
// logged and the service listener is told; the watcher then waits for the
// node, and once it exists again watches it afresh, reporting what it holds
// as added. A node deleted and created again while the connection was down
// is noticed by its creation and followed the same way. Only Start creates
// a missing node; a node that comes back is never created by the watcher.
class ServiceWatcher : public Observable<ServiceWatcherObserver> {
public:
    // Builds the watcher; nothing is registered or read until Start.
    // `zkErrorHandler` receives ZooKeeper errors that a retry cannot cure
    // (ZNOAUTH for an instance this session may not read, which is skipped,
    // or for the service itself); a missing service node (ZNONODE) is the
    // service's life, not an error, and never reaches it. It may be empty
    // only if such errors never occur (calling an empty one throws
    // std::bad_function_call out of the operation that met the error).
    ServiceWatcher(std::shared_ptr<Connection> conn, const String& name, ZkErrorHandler zkErrorHandler);

    // Stops every watch. Once it returns, no observer, listener or error
    // handler of this watcher runs. It may be called on any thread,
    // including the connection's delivery thread from inside any callback
    // other than this watcher's own (an observer of another watcher, of a
    // cache or of the session). It waits, blocked, for this watcher's own
    // callbacks running on other threads at that moment (observers may call
    // the watcher meanwhile and get answers) and for nothing else: a
    // notification the connection is running for another watcher, cache or
    // registration, however long, does not delay it. Elsewhere than on the
    // delivery thread, its watches are cancelled when it returns; on the
    // delivery thread, as soon as the running callback returns. So it must
    // not be called while holding a lock that one of this watcher's own
    // observers, listeners or its error handler takes, nor from inside one
    // of them: the latter is logged at JXLOG_CRITICAL (and asserted against
    // in debug builds), since the observers after the caller would receive
    // a destroyed watcher.
    ~ServiceWatcher() override;

    // Observers receive this object by reference: it cannot move or be copied.
    ServiceWatcher(const ServiceWatcher&) = delete;
    ServiceWatcher& operator=(const ServiceWatcher&) = delete;

    // Registers for session events and, when the session is connected, makes
    // sure the service node exists and starts watching it; otherwise starts
    // when the session connects. Call once, after registering observers.
    // ZooKeeper errors go to the handler or are retried, never thrown; throws
    // std::bad_function_call when one is due to an empty handler, and passes
    // on anything else the connection throws.
    void Start();

    // The service's name, as given.
    const String& Service() const { return m_service; }

    // The instances known now (reported added and not yet removed), in no
    // particular order.
    std::vector<ServiceId> ListInstances() const;
    // Instances listed under the service whose record has never decoded;
    // not in ListInstances.
    size_t UndecodableCount() const;
    // Whether the service node existed when last looked at (true until the
    // first look).
    bool ServiceExists() const;

    // Reads one instance's record synchronously. Returns true with `data`
    // filled, false when the instance has no node. Throws ZooError for any
    // other ZooKeeper failure, zlib::ZLibError for a corrupt compressed
    // record, std::runtime_error for an unknown compression.
    bool GetInstanceData(const ServiceId& id, ServiceInstanceData& data) const;

    // Whether the view is complete and current: every instance that existed
    // when the service was read from scratch (at the start, after each
    // session expiry, after the node was created again) has been reported
    // added, or found gone meanwhile, nothing waits for a retry, and the
    // connection has not been lost since. False from the moment the
    // connection is lost (changes made meanwhile are seen only once it is
    // back) until the view is known complete again. Derived from the order in
    // which ZooKeeper answers the session's requests, never from a timer.
    //
    // Tracking begins with the first call of IsSynced, WaitSynced or
    // SetSyncedListener (the first IsSynced answers false): it costs two
    // reads of the service node per read of the service from scratch, which
    // a watcher that never asks does not pay. Never blocks.
    bool IsSynced() const;
    // Waits until the view is complete; false if it is not within `deadline`.
    bool WaitSynced(std::chrono::milliseconds deadline) const;
    // `listener` runs on the delivery thread each time the view becomes
    // complete, after the reports that completed it, with the number of
    // instances known then. Replaces the previous one. The rules of an
    // observer hold for it, and it never runs once the destructor has
    // returned.
    void SetSyncedListener(std::function<void(size_t instances)> listener);
    // `listener` runs on the delivery thread each time a complete view stops
    // being known current (the connection was lost, the session expired);
    // the synced listener runs when it is current again. Needs tracking, as
    // SetSyncedListener. Replaces the previous one.
    void SetStaleListener(std::function<void()> listener);
    // `listener` runs on the delivery thread when the service node was found
    // deleted, after its instances were reported removed (false), and when it
    // exists again, before its instances are reported (true). Replaces the
    // previous one. Observer rules hold for both listeners.
    void SetServiceListener(std::function<void(bool exists)> listener);
    // Leaves instance nodes that are not ephemeral out of the view (never
    // reported added; one reported before that is found re-created
    // persistent is reported removed). ferrow publishes ephemeral nodes
    // only, so on a protected service a persistent one was planted; it is
    // off by default because operators and other tools have written
    // persistent instance nodes for instances that outlive any process, and
    // leaving them out unasked would drop them without a word. Call before
    // Start; a ServiceCache's through Watcher().
    void IgnorePersistentInstances(bool ignore = true);

    void RegisterShared(std::shared_ptr<ServiceWatcherObserver> observer) override;
    void RegisterWeak(std::weak_ptr<ServiceWatcherObserver> observer) override;
    void UnregisterShared(const std::shared_ptr<ServiceWatcherObserver>& observer) override;
    void UnregisterWeak(const std::weak_ptr<ServiceWatcherObserver>& observer) override;
    void UnregisterRaw(const ServiceWatcherObserver* observer) override;

private:
    // A cache attached to this watcher notices when it is gone.
    friend class ServiceCache;
    // Adds this watcher's figures; for the metrics.
    void Collect(Metrics& metrics) const;
    // The connection, asked on which thread the destructor runs.
    const std::shared_ptr<Connection> m_conn;
    // This watcher's own registry of session observers (its cores, its sync
    // tracker, the caches attached), over m_conn; fed by m_state.
    const std::shared_ptr<details::WatcherConnection> m_sessions;
    // The view given to the observers, and the service node's life with the
    // core that follows it; shared with callbacks in progress.
    const std::shared_ptr<WatcherState> m_state;
    // Knows when the view is complete.
    const std::shared_ptr<SyncTracker> m_sync;
    const String m_service;
    // Counts the reports to the observers, for the metrics (ferrow/metrics.h);
    // the first observer registered.
    struct Reports;
    const std::shared_ptr<Reports> m_reports;
    // Closed first by the destructor.
    const std::unique_ptr<details::MetricsSource> m_metrics;
};

}  // namespace ferrow
}  // namespace jx
