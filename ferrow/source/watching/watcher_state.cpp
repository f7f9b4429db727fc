#include "watching/watcher_state.h"

#include <algorithm>
#include <utility>

#include "ferrow/instance_data.h"
#include "logger/logger.h"
#include "watching/service_watcher_impl.h"
#include "watching/sync_tracker.h"
#include "watching/watcher_connection.h"

namespace jx {
namespace ferrow {

namespace {

const logging::ConstSourcePtr g_log = logging::MakeSource("ferrow.service");

// Owns `impl` and makes `released` ready once it has been destroyed.
std::shared_ptr<ServiceWatcherImpl> OwnImpl(std::unique_ptr<ServiceWatcherImpl> impl, std::future<void>& released) {
    auto destroyed = std::make_shared<std::promise<void>>();
    released = destroyed->get_future();
    return std::shared_ptr<ServiceWatcherImpl>(impl.release(), [destroyed](ServiceWatcherImpl* doomed) {
        delete doomed;
        destroyed->set_value();
    });
}

String ParentOf(const String& path) {
    const auto slash = path.rfind('/');
    return slash == 0 ? String("/") : path.substr(0, slash);
}

// The name of the child of `parent` on the way down to `path`.
String NextStep(const String& parent, const String& path) {
    const size_t start = parent == "/" ? 1 : parent.size() + 1;
    return path.substr(start, path.find('/', start) - start);
}

}  // namespace

// Registered with one core; its reports carry that core's generation.
struct WatcherState::Forwarder : ServiceWatcherObserver {
    Forwarder(std::weak_ptr<WatcherState> state, std::uint64_t generation)
        : state(std::move(state)), generation(generation) {}
    void OnInstanceAdded(ServiceWatcher&, const ServiceId& id, const ServiceInstanceData& record) override {
        if (const auto self = state.lock()) self->Report(generation, id, &record);
    }
    void OnInstanceModified(ServiceWatcher&, const ServiceId& id, const ServiceInstanceData& record) override {
        if (const auto self = state.lock()) self->Report(generation, id, &record);
    }
    void OnInstanceRemoved(ServiceWatcher&, const ServiceId& id) override {
        if (const auto self = state.lock()) self->Report(generation, id, nullptr);
    }
    const std::weak_ptr<WatcherState> state;
    const std::uint64_t generation;
};

WatcherState::WatcherState(ServiceWatcher& owner, std::shared_ptr<Connection> conn,
                           std::shared_ptr<details::WatcherConnection> sessions, String service, ZkErrorHandler handler)
    : m_owner(owner),
      m_conn(std::move(conn)),
      m_sessions(std::move(sessions)),
      m_service(std::move(service)),
      m_path(ServicePath(m_service)),
      m_handler(std::move(handler)) {}

WatcherState::~WatcherState() = default;

void WatcherState::Attach() {
    details::SessionSubscription subscription(*m_conn, weak_from_this());
    std::lock_guard<std::mutex> lock(m_mtx);
    m_subscription = std::move(subscription);
}

void WatcherState::SetTracker(std::shared_ptr<SyncTracker> tracker) {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_tracker = std::move(tracker);
}

void WatcherState::SetServiceListener(std::function<void(bool)> listener) {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_serviceListener = std::move(listener);
}

std::uint64_t WatcherState::AddServiceListener(std::function<void(bool)> listener) {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_serviceListeners.emplace_back(++m_lastKey, std::move(listener));
    return m_lastKey;
}

void WatcherState::RemoveServiceListener(std::uint64_t key) {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_serviceListeners.erase(std::remove_if(m_serviceListeners.begin(), m_serviceListeners.end(),
                                            [key](const auto& entry) { return entry.first == key; }),
                             m_serviceListeners.end());
}

bool WatcherState::Exists() const {
    std::lock_guard<std::mutex> lock(m_mtx);
    return m_exists;
}

void WatcherState::Tell(bool exists) {
    std::vector<std::pair<std::uint64_t, std::function<void(bool)>>> added;
    std::function<void(bool)> owner;
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        added = m_serviceListeners;
        owner = m_serviceListener;
    }
    for (const auto& entry : added) entry.second(exists);
    if (owner) owner(exists);
}

void WatcherState::Start() {
    StartCore(0);
    // Not before the session is connected: a read queued meanwhile would be
    // answered ahead of the core's start-up, which creates a missing node.
    // A connected event reaches the core first, whose start-up retry
    // creates a missing node before this object looks for it.
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        m_started = true;
        m_nodeRetry = true;
    }
    if (m_conn->State() == ZOO_CONNECTED_STATE) CheckNode();
}

void WatcherState::Close(bool wait) {
    m_gate.Close();
    std::shared_ptr<ServiceWatcherImpl> core;
    std::future<void> released;
    Connection::WatchHandle node, ancestor;
    details::SessionSubscription subscription;
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        m_closed = true;
        core = std::move(m_core);
        released = std::move(m_coreReleased);
        node = std::move(m_nodeWatch);
        ancestor = std::move(m_ancestorWatch);
        subscription = std::move(m_subscription);
        m_serviceListener = nullptr;
        m_serviceListeners.clear();
    }
    // Taken out of the connection's registry later, on the delivery thread;
    // an event reaching this object meanwhile finds the gate closed.
    subscription.Reset();
    if (!core) return;
    core->Close();
    // Taken out of the watcher's registry while alive: the registry matches
    // an entry by the observer it still reaches. No delivery runs now (the
    // gate is closed), but on this thread if the caller is inside one.
    m_sessions->UnregisterRaw(static_cast<const ConnectionObserver*>(core.get()));
    core.reset();
    // Nothing but the core's own callbacks can hold it now: no delivery of
    // this watcher's registry holds it past the gate.
    if (wait && released.valid()) released.wait();
}

std::vector<ServiceId> WatcherState::ListInstances() const {
    std::lock_guard<std::mutex> lock(m_mtx);
    return std::vector<ServiceId>(m_view.begin(), m_view.end());
}

size_t WatcherState::InstanceCount() const {
    std::lock_guard<std::mutex> lock(m_mtx);
    return m_view.size();
}

size_t WatcherState::UndecodableCount() const {
    std::shared_ptr<ServiceWatcherImpl> core;
    size_t view = 0;
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        core = m_core;
        view = m_view.size();
    }
    const size_t known = core ? core->InstanceCount() : 0;
    return known > view ? known - view : 0;
}

bool WatcherState::GetInstanceData(const ServiceId& id, ServiceInstanceData& data) const {
    std::shared_ptr<ServiceWatcherImpl> core;
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        core = m_core;
    }
    // No core: the service node is gone, and its instances with it.
    return core && core->GetInstanceData(id, data);
}

bool WatcherState::Settled() const {
    std::shared_ptr<ServiceWatcherImpl> core;
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        core = m_core;
    }
    return !core || core->Settled();
}

WatcherState::Figures WatcherState::Collect() const {
    Figures figures;
    std::shared_ptr<ServiceWatcherImpl> core;
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        core = m_core;
        figures.serviceExists = m_exists;
        figures.deletions = m_deletions;
        figures.creations = m_creations;
        figures.reads = m_retiredReads;
        figures.readRetries = m_retiredRetries;
        figures.errors = m_errors;
    }
    if (core) {
        figures.reads += core->Reads();
        figures.readRetries += core->ReadRetries();
    }
    return figures;
}

void WatcherState::IgnorePersistent(bool ignore) {
    // The connection notes each read's owner only when asked: the read of
    // every instance pays nothing otherwise.
    m_sessions->NotePersistent(ignore);
    m_ignorePersistent.store(ignore, std::memory_order_relaxed);
}

void WatcherState::Report(std::uint64_t generation, const ServiceId& id, const ServiceInstanceData* record) {
    const CallbackGate::Pass pass = m_gate.Enter();
    if (!pass) return;
    bool added = false;
    // A node that is not ephemeral, when such are ignored, is no instance:
    // one reported before (a node re-created persistent under its id)
    // leaves the view.
    const bool ignored = record && m_ignorePersistent.load(std::memory_order_relaxed) &&
                         m_sessions->IsPersistent(InstancePath(m_service, id));
    if (ignored) record = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        if (generation != m_generation) return;
        if (record) {
            added = m_view.insert(id).second;
        } else if (m_view.erase(id) == 0) {
            return;  // never given to the observers
        }
    }
    if (!record) {
        NotifyObservers(&ServiceWatcherObserver::OnInstanceRemoved, m_owner, id);
    } else if (added) {
        NotifyObservers(&ServiceWatcherObserver::OnInstanceAdded, m_owner, id, *record);
    } else {
        NotifyObservers(&ServiceWatcherObserver::OnInstanceModified, m_owner, id, *record);
    }
}

void WatcherState::OnCoreError(int rc) {
    const CallbackGate::Pass pass = m_gate.Enter();
    if (!pass) return;
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        ++m_errors[rc];
    }
    // The service node is missing: news of the service's life, not an error.
    if (rc == ZNONODE) return CheckNode();
    m_handler(rc);
}

void WatcherState::StartCore(std::int64_t czxid) {
    std::uint64_t generation = 0;
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        if (m_closed) return;
        generation = ++m_generation;
    }
    const std::weak_ptr<WatcherState> weak = weak_from_this();
    std::future<void> released;
    std::shared_ptr<ServiceWatcherImpl> core = OwnImpl(
        std::make_unique<ServiceWatcherImpl>(m_owner, m_sessions, m_service,
                                             [weak](int rc) {
                                                 if (const auto self = weak.lock()) self->OnCoreError(rc);
                                             }),
        released);
    core->RegisterShared(std::make_shared<Forwarder>(weak, generation));
    std::shared_ptr<SyncTracker> tracker;
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        if (m_closed || generation != m_generation) return;
        m_core = core;
        m_coreReleased = std::move(released);
        m_czxid = czxid;
        tracker = m_tracker;
    }
    core->Start();
    // The fresh core's reads are issued: the view is complete once they are
    // answered.
    if (tracker && czxid != 0) tracker->Restart();
}

void WatcherState::TakeCounts(const ServiceWatcherImpl& core) {
    m_retiredReads += core.Reads();
    m_retiredRetries += core.ReadRetries();
}

void WatcherState::RetireCore() {
    std::shared_ptr<ServiceWatcherImpl> core;
    std::vector<ServiceId> removed;
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        core = std::move(m_core);
        ++m_generation;
        m_czxid = 0;
        removed.assign(m_view.begin(), m_view.end());
        m_view.clear();
        if (core) TakeCounts(*core);
    }
    if (core) {
        core->Close();
        m_sessions->UnregisterRaw(static_cast<const ConnectionObserver*>(core.get()));
        // Destroyed here unless a session event is being delivered to it.
        core.reset();
    }
    for (const ServiceId& id : removed) NotifyObservers(&ServiceWatcherObserver::OnInstanceRemoved, m_owner, id);
}

void WatcherState::CheckNode() {
    const std::weak_ptr<WatcherState> weak = weak_from_this();
    std::lock_guard<std::mutex> lock(m_mtx);
    if (m_closed || m_denied) return;
    m_nodeRetry = false;
    auto [rc, handle] = m_conn->AsyncGet(
        m_path,
        [weak](int type, int, String) {
            const auto self = weak.lock();
            const CallbackGate::Pass pass = Admit(self);
            // Deleted, or changed: a change may be a node created again
            // while the connection was down. The read tells.
            if (pass && (type == ZOO_DELETED_EVENT || type == ZOO_CHANGED_EVENT)) self->CheckNode();
        },
        [weak](int result, String, const Stat* stat) {
            const auto self = weak.lock();
            if (const CallbackGate::Pass pass = Admit(self)) {
                self->OnNodeRead(result, stat != nullptr ? stat->czxid : 0);
            }
        });
    // A watch replaced is withdrawn: its answer, if still due, is ZCLOSING.
    if (rc == ZOK) {
        m_nodeWatch = std::move(handle);
    } else {
        m_nodeRetry = true;  // no usable session: the next connected event reads
    }
}

void WatcherState::OnNodeRead(int rc, std::int64_t czxid) {
    if (rc == ZCLOSING) return;  // replaced, or the session ended: read again then
    if (rc == ZOK) {
        bool start = false, replace = false;
        {
            std::lock_guard<std::mutex> lock(m_mtx);
            if (m_closed) return;
            m_ancestorWatch = Connection::WatchHandle();
            if (!m_core) {
                start = true;
            } else if (m_czxid == 0) {
                m_czxid = czxid;  // the node the first core found or made
            } else if (m_czxid != czxid) {
                replace = true;
            }
            if (replace) ++m_deletions;
            if (start || replace) {
                if (!m_exists || replace) ++m_creations;
                m_exists = true;
            }
        }
        if (replace) {
            JXLOG(logging::JXLOG_WARNING, g_log) << "Service node " << m_path
                                                 << " was deleted and created again; following the new node";
            RetireCore();
            Tell(false);
        } else if (start) {
            JXLOG(logging::JXLOG_WARNING, g_log) << "Service node " << m_path << " exists again; following it";
        }
        if (start || replace) {
            Tell(true);
            StartCore(czxid);
        }
    } else if (rc == ZNONODE) {
        bool gone = false;
        {
            std::lock_guard<std::mutex> lock(m_mtx);
            if (m_closed) return;
            gone = m_exists;
            if (gone) ++m_deletions;
            m_exists = false;
            // A read that found no node arms nothing in ZooKeeper: its watch
            // is let go, so that no event of it comes back here as another
            // read (the node's creation is the ancestor's watch to see).
            m_nodeWatch = Connection::WatchHandle();
        }
        if (gone) {
            JXLOG(logging::JXLOG_WARNING, g_log)
                << "Service node " << m_path << " was deleted; its instances are reported removed";
            RetireCore();
            Tell(false);
        }
        WatchAncestor(ParentOf(m_path));
    } else if (rc < ZAPIERROR) {
        // The node exists but may not be read: its life cannot be followed
        // from here on. A core is started on it all the same, as at the
        // start, so that the refusal reaches the error handler.
        JXLOG(logging::JXLOG_ERROR, g_log) << "Cannot watch the service node " << m_path << " (" << zerror(rc)
                                           << "): its deletion and re-creation go unnoticed";
        bool start = false;
        {
            std::lock_guard<std::mutex> lock(m_mtx);
            if (m_closed) return;
            ++m_errors[rc];
            m_denied = true;
            m_ancestorWatch = Connection::WatchHandle();
            start = !m_core;
            if (start && !m_exists) ++m_creations;
            m_exists = true;
        }
        if (start) {
            Tell(true);
            StartCore(-1);
        }
    } else {
        std::lock_guard<std::mutex> lock(m_mtx);
        m_nodeRetry = true;
    }
}

void WatcherState::WatchAncestor(const String& parent) {
    const std::weak_ptr<WatcherState> weak = weak_from_this();
    std::lock_guard<std::mutex> lock(m_mtx);
    if (m_closed || m_exists) return;
    auto [rc, handle] = m_conn->AsyncGetChildren(
        parent,
        [weak](int type, int, String) {
            const auto self = weak.lock();
            const CallbackGate::Pass pass = Admit(self);
            // A deleted ancestor is found by the next look from the node.
            if (pass && (type == ZOO_CHILD_EVENT || type == ZOO_DELETED_EVENT)) self->CheckNode();
        },
        [weak, parent](int result, std::vector<String> children) {
            const auto self = weak.lock();
            if (const CallbackGate::Pass pass = Admit(self)) {
                self->OnAncestorRead(parent, result, children);
            }
        });
    if (rc == ZOK) {
        m_ancestorWatch = std::move(handle);
    } else {
        m_nodeRetry = true;
    }
}

void WatcherState::OnAncestorRead(const String& parent, int rc, const std::vector<String>& children) {
    if (rc == ZOK) {
        // The next step down exists already: look again from the node.
        if (std::find(children.begin(), children.end(), NextStep(parent, m_path)) != children.end()) CheckNode();
    } else if (rc == ZNONODE && parent != "/") {
        // Replaces this read's watch, which armed nothing.
        WatchAncestor(ParentOf(parent));
    } else if (rc != ZCLOSING) {
        std::lock_guard<std::mutex> lock(m_mtx);
        if (rc < ZAPIERROR) ++m_errors[rc];
        m_nodeRetry = true;
    }
}

void WatcherState::OnSessionEvent(int type, int state, String path) {
    const CallbackGate::Pass pass = m_gate.Enter();
    if (!pass) return;
    // The watcher's parts first: the core, whose start-up retry creates a
    // missing node before this object looks for it.
    m_sessions->Deliver(type, state, path);
    if (type != ZOO_SESSION_EVENT) return;
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        if (!m_started) return;
    }
    if (state == ZOO_EXPIRED_SESSION_STATE) {
        // The session's watches are gone with it.
        std::lock_guard<std::mutex> lock(m_mtx);
        m_nodeRetry = true;
    } else if (state == ZOO_CONNECTED_STATE) {
        bool retry = false;
        {
            std::lock_guard<std::mutex> lock(m_mtx);
            retry = m_nodeRetry;
        }
        if (retry) CheckNode();
    }
}

}  // namespace ferrow
}  // namespace jx
