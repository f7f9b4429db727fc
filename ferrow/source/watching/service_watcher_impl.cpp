#include "watching/service_watcher_impl.h"

#include <cassert>
#include <list>
#include <utility>

#include <boost/lexical_cast.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "ferrow/error.h"
#include "ferrow/instance_data.h"
#include "ferrow/zlib.h"
#include "logger/logger.h"
#include "utility/uuid_text.h"
#include "watching/znode_data.h"

namespace jx {
namespace ferrow {

namespace {

const logging::ConstSourcePtr g_log = logging::MakeSource("ferrow.service");

}  // namespace

ServiceWatcherImpl::ServiceWatcherImpl(ServiceWatcher& watcher, std::shared_ptr<Connection> conn,
                                       const String& name, ZkErrorHandler zkErrorHandler)
    : m_watcher(watcher),
      m_conn(std::move(conn)),
      m_path(ServicePath(name)),
      m_startRetry(false),
      m_serviceRetry(false),
      m_zkErrorHandler(std::move(zkErrorHandler)) {}

ServiceWatcherImpl::~ServiceWatcherImpl() { m_conn->UnregisterRaw(static_cast<const ConnectionObserver*>(this)); }

void ServiceWatcherImpl::Close() {
    if (m_gate.Close()) return;
    JXLOG(logging::JXLOG_CRITICAL, g_log) << "Watcher of " << m_path << " destroyed from inside its own observer or "
                                             "error handler: the observers after it receive a destroyed watcher";
    assert(!"a ServiceWatcher must not be destroyed from inside its own callbacks");
}

void ServiceWatcherImpl::Start() {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_conn->RegisterWeak(std::weak_ptr<ConnectionObserver>(shared_from_this()));
    if (m_conn->State() == ZOO_CONNECTED_STATE) {
        StartImpl();
    } else {
        m_startRetry = true;
    }
}

std::vector<ServiceId> ServiceWatcherImpl::ListInstances() const {
    std::lock_guard<std::mutex> lock(m_mtx);
    return std::vector<ServiceId>(m_instances.begin(), m_instances.end());
}

size_t ServiceWatcherImpl::InstanceCount() const {
    std::lock_guard<std::mutex> lock(m_mtx);
    return m_instances.size();
}

size_t ServiceWatcherImpl::WatchHandleCount() const {
    std::lock_guard<std::mutex> lock(m_mtx);
    return m_instanceWatchHandles.size();
}

bool ServiceWatcherImpl::Settled() const {
    std::lock_guard<std::mutex> lock(m_mtx);
    return !m_startRetry && !m_serviceRetry && m_instanceRetry.empty();
}

bool ServiceWatcherImpl::GetInstanceData(const ServiceId& id, ServiceInstanceData& data) const {
    String out(kInstanceReadCapacity, '\0');
    const int rc = m_conn->Get(m_path + "/" + boost::uuids::to_string(id), out, nullptr);
    if (rc == ZNONODE) return false;
    if (rc != ZOK) throw ZooError(rc);
    out = ParseZNodeData(out);
    // A record that does not parse is still returned, as far as it parsed.
    data.ParseFromString(out);
    return true;
}

void ServiceWatcherImpl::StartImpl() {
    try {
        EnsurePath(*m_conn, m_path, false, ZOO_OPEN_ACL_UNSAFE);
    } catch (const ZooError& e) {
        const int code = e.Code();
        if (code < ZAPIERROR) {
            JXLOG(logging::JXLOG_ERROR, g_log) << "Error in StartImpl " << m_path << ": " << zerror(code);
            m_zkErrorHandler(code);
        }
        m_startRetry = true;
        return;
    }
    WatchService();
}

void ServiceWatcherImpl::WatchService() {
    JXLOG(logging::JXLOG_DEBUG, g_log) << "Watching service " << m_path;
    const std::weak_ptr<ServiceWatcherImpl> me = shared_from_this();
    auto watchcbk = [me](int e, int s, String) {
        const std::shared_ptr<ServiceWatcherImpl> self = me.lock();
        if (const CallbackGate::Pass pass = Admit(self)) self->ServiceWatchCallback(e, s);
    };
    auto resultcbk = [me](int res, std::vector<String> children) {
        const std::shared_ptr<ServiceWatcherImpl> self = me.lock();
        if (const CallbackGate::Pass pass = Admit(self)) self->ServiceResultCallback(res, std::move(children));
    };
    std::pair<int, Connection::WatchHandle> result =
        m_conn->AsyncGetChildren(m_path, std::move(watchcbk), std::move(resultcbk));
    if (result.first == ZOK) {
        CountRead();
        m_serviceWatchHandle = std::move(result.second);
    } else if (result.first < ZAPIERROR) {
        JXLOG(logging::JXLOG_ERROR, g_log) << "Error watching service " << m_path << ": " << zerror(result.first);
        m_zkErrorHandler(result.first);
    } else {
        JXLOG(logging::JXLOG_INFO, g_log)
            << "WatchService; unexpected result: " << m_path << " result: " << zerror(result.first);
        m_serviceRetry = true;
    }
}

void ServiceWatcherImpl::CountRead() {
    m_reads.fetch_add(1, std::memory_order_relaxed);
    if (m_retrying) m_readRetries.fetch_add(1, std::memory_order_relaxed);
}

void ServiceWatcherImpl::ServiceWatchCallback(int event, int) {
    if (event != ZOO_CHILD_EVENT) return;
    JXLOG(logging::JXLOG_DEBUG, g_log) << "Instance list updated: " << m_path;
    std::lock_guard<std::mutex> lock(m_mtx);
    WatchService();
}

void ServiceWatcherImpl::ServiceResultCallback(int result, std::vector<String> children) {
    std::lock_guard<std::mutex> lock(m_mtx);
    if (result == ZOK) {
        for (const String& child : children) {
            // Instances name their nodes in the canonical form, read here
            // directly; any other name takes the general conversion, which
            // accepts or rejects it as before.
            ServiceId id;
            if (!ParseCanonicalUuid(child, id)) {
                try {
                    id = boost::lexical_cast<ServiceId>(child);
                } catch (const boost::bad_lexical_cast&) {
                    JXLOG(logging::JXLOG_WARNING, g_log) << "Invalid child name at path '" << m_path
                                                         << "'. Could not convert '" << child << "' to ServiceId.";
                    continue;
                }
            }
            if (m_instances.count(id) == 0) WatchInstance(id);
        }
    } else if (result == ZNONODE) {
        JXLOG(logging::JXLOG_CRITICAL, g_log) << "Service node " << m_path << " does not exist: " << zerror(ZNONODE);
        m_zkErrorHandler(ZNONODE);
    } else if (result == ZCLOSING) {
        return;
    } else if (result < ZAPIERROR) {
        JXLOG(logging::JXLOG_CRITICAL, g_log) << "Error reading children of service: " << zerror(result);
        m_zkErrorHandler(result);
    } else {
        JXLOG(logging::JXLOG_INFO, g_log)
            << "ServiceResultCallback; unexpected result: " << m_path << " result: " << result;
        m_serviceRetry = true;
    }
}

void ServiceWatcherImpl::WatchInstance(const ServiceId& id) {
    JXLOG(logging::JXLOG_DEBUG, g_log) << "Watching instance " << m_path << "/" << id;
    const std::weak_ptr<ServiceWatcherImpl> me = shared_from_this();
    auto watchcbk = [me, id](int e, int s, String) {
        const std::shared_ptr<ServiceWatcherImpl> self = me.lock();
        if (const CallbackGate::Pass pass = Admit(self)) self->InstanceWatchCallback(e, s, id);
    };
    auto resultcbk = [me, id](int r, String data, const Stat*) {
        const std::shared_ptr<ServiceWatcherImpl> self = me.lock();
        if (const CallbackGate::Pass pass = Admit(self)) self->InstanceResultCallback(r, std::move(data), id);
    };
    const String path = m_path + "/" + boost::uuids::to_string(id);
    std::pair<int, Connection::WatchHandle> result = m_conn->AsyncGet(path, std::move(watchcbk), std::move(resultcbk));
    if (result.first == ZOK) {
        CountRead();
        m_instanceWatchHandles[id] = std::move(result.second);
    } else if (result.first >= ZAPIERROR) {
        JXLOG(logging::JXLOG_INFO, g_log) << "WatchInstance; unexpected result: " << m_path << "/" << id
                                          << " result: " << zerror(result.first);
        m_instanceRetry.push_back(id);
    } else {
        JXLOG(logging::JXLOG_ERROR, g_log) << "Error watching instance " << path << ": " << zerror(result.first);
        m_zkErrorHandler(result.first);
    }
}

void ServiceWatcherImpl::InstanceWatchCallback(int type, int, const ServiceId& id) {
    if (type == ZOO_DELETED_EVENT) {
        JXLOG(logging::JXLOG_DEBUG, g_log) << "Instance removed: " << m_path << "/" << id;
        {
            std::lock_guard<std::mutex> lock(m_mtx);
            m_instances.erase(id);
            m_instanceWatchHandles.erase(id);
        }
        // Sent even for an instance never reported added: a deletion is final.
        NotifyObservers(&ServiceWatcherObserver::OnInstanceRemoved, m_watcher, id);
    } else if (type == ZOO_CHANGED_EVENT) {
        JXLOG(logging::JXLOG_DEBUG, g_log) << "Instance modified: " << m_path << "/" << id;
        std::lock_guard<std::mutex> lock(m_mtx);
        WatchInstance(id);
    }
}

void ServiceWatcherImpl::InstanceResultCallback(int rc, String data, const ServiceId& id) {
    std::unique_lock<std::mutex> lock(m_mtx);
    if (rc == ZOK) {
        const bool known = m_instances.count(id) != 0;
        if (!known) m_instances.insert(id);
        lock.unlock();
        JXLOG(logging::JXLOG_DEBUG, g_log) << (known ? "Instance modified: " : "Instance added: ") << m_path << "/" << id;
        // Only a corrupt compressed payload is absorbed here; the id stays
        // known, so its next good read is reported as a modification.
        try {
            ServiceInstanceData record;
            data = ParseZNodeData(data);
            record.ParseFromString(data);
            if (known) {
                NotifyObservers(&ServiceWatcherObserver::OnInstanceModified, m_watcher, id, record);
            } else {
                NotifyObservers(&ServiceWatcherObserver::OnInstanceAdded, m_watcher, id, record);
            }
        } catch (const zlib::ZLibError& e) {
            JXLOG(logging::JXLOG_ERROR, g_log) << "ZLibError ServiceWatcherImpl::InstanceResultCallback "
                                               << (known ? "OnInstanceModified" : "OnInstanceAdded") << ": " << m_path
                                               << "/" << id << " exception=" << e.what();
        }
    } else if (rc == ZNONODE) {
        if (m_instances.count(id) == 0) return;
        m_instances.erase(id);
        m_instanceWatchHandles.erase(id);
        lock.unlock();
        JXLOG(logging::JXLOG_DEBUG, g_log) << "Instance removed: " << m_path << "/" << id;
        NotifyObservers(&ServiceWatcherObserver::OnInstanceRemoved, m_watcher, id);
    } else if (rc == ZCLOSING) {
        return;
    } else if (rc >= ZAPIERROR) {
        JXLOG(logging::JXLOG_INFO, g_log)
            << "InstanceResultCallback; unexpected result: " << m_path << "/" << id << " result: " << rc;
        m_instanceRetry.push_back(id);
    } else {
        const String path = m_path + "/" + boost::uuids::to_string(id);
        JXLOG(logging::JXLOG_ERROR, g_log) << "Error watching instance " << path << ": " << zerror(rc);
        m_zkErrorHandler(rc);
    }
}

void ServiceWatcherImpl::OnSessionEvent(int type, int state, String) {
    const CallbackGate::Pass pass = m_gate.Enter();
    if (!pass || type != ZOO_SESSION_EVENT) return;
    if (state == ZOO_CONNECTED_STATE) {
        // Held for the whole sequence: no callback of this watcher interleaves.
        std::lock_guard<std::mutex> lock(m_mtx);
        // The reads issued until the lock is let go are retries, whatever
        // leaves this block.
        m_retrying = true;
        const std::unique_ptr<bool, void (*)(bool*)> retrying(&m_retrying, [](bool* flag) { *flag = false; });
        if (m_startRetry) {
            m_startRetry = false;
            JXLOG(logging::JXLOG_DEBUG, g_log) << "Retrying startup " << m_path;
            StartImpl();
        }
        // A watch that fails again is appended afresh and waits for the next
        // connection; walking a copy keeps it out of this loop.
        const std::vector<ServiceId> retries = m_instanceRetry;
        m_instanceRetry.clear();
        for (const ServiceId& id : retries) {
            JXLOG(logging::JXLOG_DEBUG, g_log) << "Retrying instance watch: " << m_path << "/" << id;
            WatchInstance(id);
        }
        if (m_serviceRetry) {
            m_serviceRetry = false;
            JXLOG(logging::JXLOG_DEBUG, g_log) << "Retrying service watch " << m_path;
            WatchService();
        }
    } else if (state == ZOO_EXPIRED_SESSION_STATE) {
        JXLOG(logging::JXLOG_INFO, g_log) << "OnSessionEvent session expired, path=" << m_path;
        std::list<ServiceId> expired;
        {
            std::lock_guard<std::mutex> lock(m_mtx);
            for (const auto& entry : m_instanceWatchHandles) expired.push_back(entry.first);
        }
        // Observers run without the lock: the removals are reported through
        // the same path as a deletion of the node.
        for (const ServiceId& id : expired) {
            JXLOG(logging::JXLOG_INFO, g_log) << "Expired session calling back for removed instance=" << id;
            InstanceWatchCallback(ZOO_DELETED_EVENT, 0, id);
        }
        std::lock_guard<std::mutex> lock(m_mtx);
        JXLOG(logging::JXLOG_DEBUG, g_log) << "Clearing watch handles " << m_path;
        m_instanceWatchHandles.clear();
        m_instances.clear();
        for (const ServiceId& id : m_instanceRetry) {
            JXLOG(logging::JXLOG_INFO, g_log) << "Existing instance in retry container: " << m_path << "/" << id;
        }
        m_serviceRetry = true;
    }
}

}  // namespace ferrow
}  // namespace jx
