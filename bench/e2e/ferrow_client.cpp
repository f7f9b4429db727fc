// The measured library clients: a ServiceWatcher, or a ServiceCache, over
// ZooKeeperConnection, with a counting decorator between the two so that the
// reads the watcher issues can be reported.

#include <atomic>
#include <iostream>
#include <stdexcept>

#include "bench_support.h"
#include "ferrow/service_cache.h"
#include "ferrow/service_watcher.h"
#include "ferrow/zookeeper_connection.h"

namespace jx {
namespace bench {

namespace {

using ferrow::Connection;
using ferrow::ConnectionObserver;

// Forwards every operation to a ZooKeeperConnection and counts the reads.
// Session events of the inner connection are passed on to this object's own
// observers (the watcher registers here, not with the inner connection).
class CountingConnection final : public Connection,
                                 public ConnectionObserver,
                                 public std::enable_shared_from_this<CountingConnection> {
public:
    explicit CountingConnection(std::shared_ptr<ferrow::ZooKeeperConnection> inner) : m_inner(std::move(inner)) {}

    // Waits until no session event is being forwarded on the delivery thread.
    ~CountingConnection() override { m_inner->UnregisterRaw(static_cast<const ConnectionObserver*>(this)); }

    // Registers for the inner connection's session events; needs the shared
    // ownership that make_shared gave, so it cannot be done in the constructor.
    void Attach() { m_inner->RegisterWeak(std::weak_ptr<ConnectionObserver>(shared_from_this())); }

    ReadCounts Reads() const {
        ReadCounts counts;
        counts.data = m_counters->m_data.load();
        counts.children = m_counters->m_children.load();
        counts.childNames = m_counters->m_childNames.load();
        return counts;
    }

    int State() const override { return m_inner->State(); }
    int Get(String path, String& out, Stat* stat) const override { return m_inner->Get(std::move(path), out, stat); }

    std::pair<int, WatchHandle> AsyncGetChildren(String path, WatchFunction watch,
                                                 ChildrenResult result) const override {
        ++m_counters->m_children;
        auto counted = [counters = m_counters, result = std::move(result)](int rc, std::vector<String> children) {
            counters->m_childNames += children.size();
            result(rc, std::move(children));
        };
        return m_inner->AsyncGetChildren(std::move(path), std::move(watch), std::move(counted));
    }

    std::pair<int, WatchHandle> AsyncGet(String path, WatchFunction watch, DataResult result) const override {
        ++m_counters->m_data;
        return m_inner->AsyncGet(std::move(path), std::move(watch), std::move(result));
    }

    int Create(String path, const String& data, const ACL_vector& acl, int flags) const override {
        return m_inner->Create(std::move(path), data, acl, flags);
    }
    int Set(String path, const String& data, int version, Stat* stat) const override {
        return m_inner->Set(std::move(path), data, version, stat);
    }
    int Delete(String path, int version) const override { return m_inner->Delete(std::move(path), version); }
    int Exists(String path, Stat* stat) const override { return m_inner->Exists(std::move(path), stat); }
    int GetChildren(String path, std::vector<String>& children) const override {
        return m_inner->GetChildren(std::move(path), children);
    }

    void OnSessionEvent(int type, int state, String path) override {
        NotifyObservers(&ConnectionObserver::OnSessionEvent, type, state, path);
    }

private:
    // Shared with the result callbacks, which may outlive this object.
    struct Counters {
        std::atomic<std::uint64_t> m_data{0};
        std::atomic<std::uint64_t> m_children{0};
        std::atomic<std::uint64_t> m_childNames{0};
    };

    const std::shared_ptr<ferrow::ZooKeeperConnection> m_inner;
    const std::shared_ptr<Counters> m_counters = std::make_shared<Counters>();
};

class SinkObserver final : public ferrow::ServiceWatcherObserver {
public:
    explicit SinkObserver(InstanceSink& sink) : m_sink(sink) {}
    void OnInstanceAdded(ferrow::ServiceWatcher&, const ServiceId& id, const ServiceInstanceData& data) override {
        m_sink.Added(id, data);
    }
    void OnInstanceRemoved(ferrow::ServiceWatcher&, const ServiceId& id) override { m_sink.Removed(id); }
    void OnInstanceModified(ferrow::ServiceWatcher&, const ServiceId& id, const ServiceInstanceData& data) override {
        m_sink.Modified(id, data);
    }

private:
    InstanceSink& m_sink;
};

// The cache keeps the records; its sink only counts.
const ServiceInstanceData kNoRecord;

class CacheSinkObserver final : public ferrow::ServiceCacheObserver {
public:
    explicit CacheSinkObserver(InstanceSink& sink) : m_sink(sink) {}
    void OnInstanceAdded(ferrow::ServiceCache&, const ferrow::InstancePtr& added) override {
        m_sink.Added(added->Id(), kNoRecord);
    }
    void OnInstanceModified(ferrow::ServiceCache&, const ferrow::InstancePtr&, const ferrow::InstancePtr& after) override {
        m_sink.Modified(after->Id(), kNoRecord);
    }
    void OnInstanceRemoved(ferrow::ServiceCache&, const ferrow::InstancePtr& removed) override {
        m_sink.Removed(removed->Id());
    }

private:
    InstanceSink& m_sink;
};

// A session of its own, with the read counter between it and the watcher.
class CountedSession {
public:
    explicit CountedSession(const std::string& connect) {
        ferrow::ConnectionOptions options;
        options.connect = connect;
        options.sessionTimeout = std::chrono::seconds(30);
        m_zk = ferrow::ZooKeeperConnection::Open(options);
        if (!m_zk->WaitConnected(std::chrono::seconds(30))) throw std::runtime_error("ferrow: no session with " + connect);
        m_conn = std::make_shared<CountingConnection>(m_zk);
        m_conn->Attach();
    }
    const std::shared_ptr<CountingConnection>& Conn() const { return m_conn; }

private:
    std::shared_ptr<ferrow::ZooKeeperConnection> m_zk;
    std::shared_ptr<CountingConnection> m_conn;
};

void ReportError(int rc) { std::cerr << "ferrow watcher error: " << zerror(rc) << std::endl; }

// A ServiceWatcher or a ServiceCache over a counted session, reporting to
// the sink through `Observer`.
template <typename Follower, typename Observer>
class LibraryClient final : public WatchClient {
public:
    LibraryClient(const std::string& connect, const std::string& service, InstanceSink& sink)
        : m_session(connect), m_follower(std::make_shared<Follower>(m_session.Conn(), service, ReportError)) {
        m_follower->RegisterShared(std::make_shared<Observer>(sink));
    }

    void Start() override { m_follower->Start(); }
    ReadCounts Reads() const override { return m_session.Conn()->Reads(); }

private:
    // Declaration order is destruction order reversed: the follower goes first.
    CountedSession m_session;
    std::shared_ptr<Follower> m_follower;
};

}  // namespace

std::unique_ptr<WatchClient> MakeFerrowClient(const std::string& connect, const std::string& service,
                                              InstanceSink& sink) {
    return std::make_unique<LibraryClient<ferrow::ServiceWatcher, SinkObserver>>(connect, service, sink);
}

std::unique_ptr<WatchClient> MakeCacheClient(const std::string& connect, const std::string& service,
                                             InstanceSink& sink) {
    return std::make_unique<LibraryClient<ferrow::ServiceCache, CacheSinkObserver>>(connect, service, sink);
}

}  // namespace bench
}  // namespace jx
