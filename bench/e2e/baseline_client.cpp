// The reference client: the watcher's protocol written directly on the
// ZooKeeper C client with nothing in between. One zoo_awget_children with a
// watch; every unknown child read at once with zoo_awget and a data watch;
// each record decoded (envelope, then ServiceInstanceData) on the client's
// completion thread; on a child event the children are read again with a
// watch and only the new ones are read; on a data event the node is read
// again with a watch. The raw variant keeps each node's bytes instead of
// decoding them, as the leanest application of the C client would.

#include <atomic>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <unordered_map>

#include <boost/uuid/string_generator.hpp>

#include "bench_support.h"
#include "watching/znode_data.h"

namespace jx {
namespace bench {

namespace {

class BaselineClient final : public WatchClient {
public:
    BaselineClient(const std::string& connect, const std::string& service, int resolutionDelayMs, bool keepsBytes,
                   InstanceSink& sink)
        : m_path(ServicePath(service)), m_keepsBytes(keepsBytes), m_sink(sink) {
        m_zh = zookeeper_init(connect.c_str(), &OnSession, 30000, nullptr, this, 0);
        if (m_zh == nullptr) throw std::runtime_error("baseline: cannot start a session with " + connect);
        if (resolutionDelayMs != 0) zoo_set_servers_resolution_delay(m_zh, resolutionDelayMs);
        std::unique_lock<std::mutex> lock(m_sessionMtx);
        if (!m_sessionCv.wait_for(lock, std::chrono::seconds(30), [this] { return m_connected; })) {
            lock.unlock();
            zookeeper_close(m_zh);
            throw std::runtime_error("baseline: no session with " + connect);
        }
    }

    // zookeeper_close joins the client's threads: no callback runs afterwards,
    // so the instance entries handed out as contexts may then go.
    ~BaselineClient() override { zookeeper_close(m_zh); }

    void Start() override { ReadChildren(); }

    ReadCounts Reads() const override {
        ReadCounts counts;
        counts.data = m_dataReads.load();
        counts.children = m_childrenReads.load();
        counts.childNames = m_childNames.load();
        return counts;
    }

private:
    // One instance node. Its address is the context of its reads and data
    // watch: entries of an unordered_map never move.
    struct Instance {
        BaselineClient* m_owner;
        ServiceId m_id;
        std::string m_path;
        bool m_reported = false;
        std::string m_bytes;  // the node as read, when the client keeps bytes
    };

    static void OnSession(zhandle_t*, int type, int state, const char*, void* ctx) {
        if (type != ZOO_SESSION_EVENT || state != ZOO_CONNECTED_STATE) return;
        auto* self = static_cast<BaselineClient*>(ctx);
        {
            std::lock_guard<std::mutex> lock(self->m_sessionMtx);
            self->m_connected = true;
        }
        self->m_sessionCv.notify_all();
    }

    static void OnChildWatch(zhandle_t*, int type, int, const char*, void* ctx) {
        if (type == ZOO_CHILD_EVENT) static_cast<BaselineClient*>(ctx)->ReadChildren();
    }

    static void OnChildren(int rc, const String_vector* names, const void* ctx) {
        auto* self = static_cast<BaselineClient*>(const_cast<void*>(ctx));
        if (rc != ZOK || names == nullptr) {
            if (rc != ZCLOSING) std::cerr << "baseline: children read failed: " << zerror(rc) << std::endl;
            return;
        }
        self->m_childNames += static_cast<std::uint64_t>(names->count);
        boost::uuids::string_generator parse;
        for (int i = 0; i < names->count; ++i) {
            ServiceId id;
            try {
                id = parse(names->data[i]);
            } catch (const std::runtime_error&) {
                continue;
            }
            auto inserted = self->m_instances.try_emplace(id);
            if (!inserted.second) continue;
            Instance& instance = inserted.first->second;
            instance.m_owner = self;
            instance.m_id = id;
            instance.m_path = self->m_path + "/" + names->data[i];
            self->ReadData(instance);
        }
    }

    static void OnDataWatch(zhandle_t*, int type, int, const char*, void* ctx) {
        auto* instance = static_cast<Instance*>(ctx);
        if (type == ZOO_CHANGED_EVENT) {
            instance->m_owner->ReadData(*instance);
        } else if (type == ZOO_DELETED_EVENT) {
            BaselineClient* self = instance->m_owner;
            const ServiceId id = instance->m_id;
            self->m_instances.erase(id);
            self->m_sink.Removed(id);
        }
    }

    static void OnData(int rc, const char* value, int len, const Stat*, const void* ctx) {
        auto* instance = static_cast<Instance*>(const_cast<void*>(ctx));
        if (rc != ZOK) {
            if (rc != ZCLOSING) std::cerr << "baseline: data read failed: " << zerror(rc) << std::endl;
            return;
        }
        ServiceInstanceData record;
        const size_t size = len > 0 ? static_cast<size_t>(len) : 0;
        if (instance->m_owner->m_keepsBytes) {
            instance->m_bytes.assign(value, size);
        } else {
            record.ParseFromString(ferrow::ParseZNodeData(std::string(value, size)));
        }
        if (instance->m_reported) {
            instance->m_owner->m_sink.Modified(instance->m_id, record);
        } else {
            instance->m_reported = true;
            instance->m_owner->m_sink.Added(instance->m_id, record);
        }
    }

    void ReadChildren() {
        ++m_childrenReads;
        const int rc = zoo_awget_children(m_zh, m_path.c_str(), &OnChildWatch, this, &OnChildren, this);
        if (rc != ZOK) std::cerr << "baseline: cannot read children: " << zerror(rc) << std::endl;
    }

    void ReadData(Instance& instance) {
        ++m_dataReads;
        const int rc = zoo_awget(m_zh, instance.m_path.c_str(), &OnDataWatch, &instance, &OnData, &instance);
        if (rc != ZOK) std::cerr << "baseline: cannot read " << instance.m_path << ": " << zerror(rc) << std::endl;
    }

    const std::string m_path;
    const bool m_keepsBytes;
    InstanceSink& m_sink;
    zhandle_t* m_zh = nullptr;

    std::mutex m_sessionMtx;  // guards m_connected
    std::condition_variable m_sessionCv;
    bool m_connected = false;

    // Touched only on the client's completion thread.
    std::unordered_map<ServiceId, Instance> m_instances;

    std::atomic<std::uint64_t> m_dataReads{0};
    std::atomic<std::uint64_t> m_childrenReads{0};
    std::atomic<std::uint64_t> m_childNames{0};
};

}  // namespace

std::unique_ptr<WatchClient> MakeBaselineClient(const std::string& connect, const std::string& service,
                                                int resolutionDelayMs, InstanceSink& sink) {
    return std::make_unique<BaselineClient>(connect, service, resolutionDelayMs, false, sink);
}

std::unique_ptr<WatchClient> MakeRawClient(const std::string& connect, const std::string& service,
                                           InstanceSink& sink) {
    return std::make_unique<BaselineClient>(connect, service, 0, true, sink);
}

}  // namespace bench
}  // namespace jx
