#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

#include "ferrow/connection_v2.h"

namespace jx {
namespace ferrow {
namespace details {

// The connection as the parts of one ServiceWatcher see it: the cores, the
// sync tracker and the caches attached. Requests go straight to the real
// connection; session events come from the watcher, which delivers them
// here (Deliver) from the one observer it registers with the real
// connection, and only while it is open. So nothing of the watcher is in
// the real connection's registry but that one relay, and taking a part
// out of this registry waits for this watcher's own deliveries only.
//
// Thread-safe. Owned through std::shared_ptr by the watcher's parts; it
// holds the real connection.
class WatcherConnection : public Connection {
public:
    explicit WatcherConnection(std::shared_ptr<Connection> conn) : m_conn(std::move(conn)) {}

    // Tells every observer registered here of a session event. Delivery
    // thread only.
    void Deliver(int type, int state, const String& path);

    // Takes `observer` out, then waits, blocked rather than spinning, until
    // no delivery that began before runs on another thread; at once on the
    // thread of a delivery.
    void UnregisterRaw(const ConnectionObserver* observer) override;

    int State() const override { return m_conn->State(); }
    bool IsDeliveryThread() const override { return m_conn->IsDeliveryThread(); }
    bool HasCredentials() const override { return m_conn->HasCredentials(); }
    int Get(String path, String& out, Stat* stat) const override { return m_conn->Get(std::move(path), out, stat); }
    std::pair<int, WatchHandle> AsyncGetChildren(String path, WatchFunction watch,
                                                 ChildrenResult result) const override {
        return m_conn->AsyncGetChildren(std::move(path), std::move(watch), std::move(result));
    }
    // Once NotePersistent is on, notes from each answer whether the node
    // read is persistent, before the caller hears of it (IsPersistent);
    // otherwise forwards the read as it is.
    std::pair<int, WatchHandle> AsyncGet(String path, WatchFunction watch, DataResult result) const override;

    // Whether data reads are to be noted; before the watcher starts, so
    // that reads are noted from the first.
    void NotePersistent(bool note) { m_notePersistent.store(note, std::memory_order_relaxed); }
    // Whether the latest answer of a data read of `path` found a node that
    // is not ephemeral (its Stat's ephemeralOwner 0). The watcher's cores
    // ignore a read's Stat; the facade learns a node's owner here.
    bool IsPersistent(const String& path) const;
    int Create(String path, const String& data, const ACL_vector& acl, int flags) const override {
        return m_conn->Create(std::move(path), data, acl, flags);
    }
    int Set(String path, const String& data, int version, Stat* stat) const override {
        return m_conn->Set(std::move(path), data, version, stat);
    }
    int Delete(String path, int version) const override { return m_conn->Delete(std::move(path), version); }
    int Exists(String path, Stat* stat) const override { return m_conn->Exists(std::move(path), stat); }
    int GetChildren(String path, std::vector<String>& children) const override {
        return m_conn->GetChildren(std::move(path), children);
    }

private:
    const std::shared_ptr<Connection> m_conn;
    std::mutex m_mtx;  // leaf lock: guards the fields below
    std::condition_variable m_cv;
    std::thread::id m_delivering;  // the thread of the delivery running, if any
    bool m_removing = false;       // a removal is inside the registry: deliveries wait
    // The paths whose latest data read found a persistent node; shared with
    // the answers' callbacks, which may outlive this object.
    struct Persistent {
        mutable std::mutex mtx;  // leaf lock
        std::unordered_set<String> paths;
    };
    const std::shared_ptr<Persistent> m_persistent = std::make_shared<Persistent>();
    std::atomic<bool> m_notePersistent{false};
};

}  // namespace details
}  // namespace ferrow
}  // namespace jx
