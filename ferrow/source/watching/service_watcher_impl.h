#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "connection/callback_gate.h"
#include "ferrow/connection_v2.h"
#include "ferrow/service_watcher_observer.h"
#include "utility/observable_impl.h"
#include "utility/string.h"
#include "utility/uuid_hash.h"

namespace jx {
namespace ferrow {

class ServiceWatcher;

// The work behind ServiceWatcher: mirrors the node /srv2/<name>, its children
// and each child's data, and reports instances to the observers registered
// through the inherited registry.
//
// Always owned by a std::shared_ptr (Start throws std::bad_weak_ptr
// otherwise). Callbacks handed to the connection hold only weak pointers, so
// pending watches never keep it alive and a late callback does nothing.
// Connection callbacks arrive on the connection's delivery thread. m_mtx
// guards every member after it; observers are notified with it released, the
// error handler is called with it held.
class ServiceWatcherImpl : public std::enable_shared_from_this<ServiceWatcherImpl>,
                           public ConnectionObserver,
                           public ObservableImpl<ServiceWatcherObserver> {
public:
    // Registers nothing and touches nothing remote. `watcher` is the owner
    // passed to every notification; it must outlive this object.
    ServiceWatcherImpl(ServiceWatcher& watcher, std::shared_ptr<Connection> conn, const String& name,
                       ZkErrorHandler zkErrorHandler);

    // Unregisters from the connection; destroying the handles cancels every
    // watch while the connection is still held.
    virtual ~ServiceWatcherImpl();

    // Called by the owner before it goes: every callback from the connection
    // is turned away from now on, so no observer or error handler runs with
    // the owner any more, and those running on other threads are waited for.
    // Called from inside one of this watcher's own callbacks, the callback is
    // not waited for: that is logged at JXLOG_CRITICAL and asserted against.
    void Close();

    // Registers weakly for session events and runs the start-up now if the
    // session is connected, else on the next connected session event. Each
    // call registers again.
    void Start();

    std::vector<ServiceId> ListInstances() const;
    // How many ListInstances would list, without copying them.
    size_t InstanceCount() const;

    // Watch handles held on instances, known ones and others. An instance
    // listed and gone before its first read keeps its handle until the
    // session expires or this core goes; for diagnostics and benchmarks.
    size_t WatchHandleCount() const;

    // Whether nothing waits for a retry: no start-up, service or instance
    // watch is marked for the next connected event.
    bool Settled() const;

    // Reads of the children and of instances issued so far, and those of
    // them that retried work after a connected event; for the metrics.
    std::uint64_t Reads() const { return m_reads.load(std::memory_order_relaxed); }
    std::uint64_t ReadRetries() const { return m_readRetries.load(std::memory_order_relaxed); }

    // Synchronous read of one instance's record; takes no lock. Returns false
    // when the node does not exist; throws ZooError for any other failure.
    bool GetInstanceData(const ServiceId& id, ServiceInstanceData& data) const;

private:
    // Requires m_mtx held. Ensures the service node, then WatchService; a
    // ZooError is logged/handed to the error handler and marks m_startRetry.
    void StartImpl();
    // Requires m_mtx held. Re-arms the child watch and requests the children.
    void WatchService();
    // Requires m_mtx held. Counts a read issued.
    void CountRead();
    // Takes m_mtx itself; connection thread.
    void ServiceWatchCallback(int event, int state);
    // Takes m_mtx itself for the whole call; connection thread.
    void ServiceResultCallback(int result, std::vector<String> children);
    // Requires m_mtx held. Arms the data watch on one instance and requests its data.
    void WatchInstance(const ServiceId& id);
    // Takes m_mtx itself and notifies with it released; connection thread.
    void InstanceWatchCallback(int type, int state, const ServiceId& id);
    // Takes m_mtx itself and notifies with it released; connection thread.
    void InstanceResultCallback(int rc, String data, const ServiceId& id);
    // Takes m_mtx itself (twice on expiry, notifying in between); connection thread.
    void OnSessionEvent(int type, int state, String path) override;

    // Lets in a callback that found the watcher alive and not closed.
    static CallbackGate::Pass Admit(const std::shared_ptr<ServiceWatcherImpl>& self) {
        return self ? self->m_gate.Enter() : CallbackGate::Pass();
    }

    ServiceWatcher& m_watcher;
    CallbackGate m_gate;  // passed by every connection callback
    mutable std::mutex m_mtx;
    std::shared_ptr<Connection> m_conn;                                         // fixed after construction
    Connection::WatchHandle m_serviceWatchHandle;                               // guarded by m_mtx
    String m_path;                                                              // fixed after construction
    std::unordered_map<ServiceId, Connection::WatchHandle> m_instanceWatchHandles;  // guarded by m_mtx
    std::unordered_set<ServiceId> m_instances;                                  // guarded by m_mtx
    bool m_startRetry;                                                          // guarded by m_mtx
    bool m_serviceRetry;                                                        // guarded by m_mtx
    std::vector<ServiceId> m_instanceRetry;                                     // guarded by m_mtx
    bool m_retrying = false;  // guarded by m_mtx: the reads issued now are retries
    std::atomic<std::uint64_t> m_reads{0};
    std::atomic<std::uint64_t> m_readRetries{0};
    ZkErrorHandler m_zkErrorHandler;                                            // fixed after construction
};

}  // namespace ferrow
}  // namespace jx
