#pragma once

// Pieces shared by the end-to-end benchmark's parent and child processes:
// the instance records it writes, a plain ZooKeeper writer session, the sink
// in which both measured clients deliver what they observe, and the interface
// of a measured client.

#include <zookeeper/zookeeper.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "ferrow/instance_data.h"
#include "ferrow/service_watcher_observer.h"
#include "utility/uuid_hash.h"

namespace jx {
namespace bench {

using Clock = std::chrono::steady_clock;
using ferrow::InstancePath;
using ferrow::ServiceId;
using ferrow::ServiceInstanceData;
using ferrow::ServicePath;

// A realistic record of about 200 bytes (host, port, protocol, version,
// zone, weight, five metadata entries, registration time) for the instance
// numbered `index`; `seq` goes into the metadata so that every update changes
// the bytes.
ServiceInstanceData MakeRecord(std::uint64_t index, std::uint64_t seq);

// The node data of a record: an uncompressed ZNodeData envelope.
std::string EncodeEnvelope(const ServiceInstanceData& record);

// `count` random (version 4) instance ids.
std::vector<ServiceId> RandomIds(size_t count);

// A ZooKeeper session of the C client used only to write the benchmark's
// nodes, independent of the clients measured. One thread at a time. Every
// operation throws std::runtime_error naming the path on failure.
class ZkWriter {
public:
    // Connects; throws when the session is not connected within 30 s.
    explicit ZkWriter(const std::string& connect);
    ~ZkWriter();
    ZkWriter(const ZkWriter&) = delete;  // owns a session
    ZkWriter& operator=(const ZkWriter&) = delete;

    // Creates the persistent node and its missing ancestors, empty.
    void EnsurePath(const std::string& path);
    // Creates every (path, data) node with requests issued at once; returns
    // when all have completed.
    void CreateAll(const std::vector<std::pair<std::string, std::string>>& nodes);
    // Deletes every node of `paths` with requests issued at once.
    void DeleteAll(const std::vector<std::string>& paths);
    // Creates every node and deletes it again, all requests issued at once,
    // the delete of each node `lag` creates behind its own: a node lives
    // only while the server processes the `lag` creates after it.
    void CreateAndDeleteAll(const std::vector<std::pair<std::string, std::string>>& nodes, size_t lag);
    // Deletes every child of `path`, then the node; nothing if it is absent.
    void RemoveTree(const std::string& path);

    void Create(const std::string& path, const std::string& data);
    void Set(const std::string& path, const std::string& data);

    struct SessionWait;

private:
    // The session watcher's context: lives as long as the handle.
    std::unique_ptr<SessionWait> m_wait;
    zhandle_t* m_zh = nullptr;
};

// What a measured client reports, recorded the way an application would keep
// it (the latest record of every instance) plus the counters the benchmark
// waits on. Thread-safe; the clients call it on their delivery thread.
class InstanceSink {
public:
    // `keepsRecords` false: the client keeps the records itself (the cache,
    // the raw baseline), so the sink keeps only the ids.
    explicit InstanceSink(bool keepsRecords = true) : m_keepsRecords(keepsRecords) {}

    void Added(const ServiceId& id, const ServiceInstanceData& record);
    void Modified(const ServiceId& id, const ServiceInstanceData& record);
    void Removed(const ServiceId& id);

    // Waits until at least `count` instances were reported added; false when
    // `deadline` passed first.
    bool WaitAdded(size_t count, Clock::time_point deadline);
    // Waits until at least `count` modifications were reported, and returns
    // the time the `count`-th arrived in `at`; false on `deadline`.
    bool WaitModified(std::uint64_t count, Clock::time_point deadline, Clock::time_point& at);

    std::vector<ServiceId> Ids() const;

private:
    const bool m_keepsRecords;
    mutable std::mutex m_mtx;
    std::condition_variable m_cv;
    std::unordered_map<ServiceId, ServiceInstanceData> m_records;  // guarded by m_mtx
    std::unordered_set<ServiceId> m_ids;  // guarded by m_mtx; when records are not kept
    size_t m_added = 0;                                            // guarded by m_mtx
    std::uint64_t m_modified = 0;                                  // guarded by m_mtx
    std::vector<Clock::time_point> m_modifiedAt;                   // guarded by m_mtx
    // The count the waiter needs; notices below it wake nobody, so that the
    // waiting thread costs the measured client no CPU. Guarded by m_mtx.
    std::uint64_t m_awaited = 0;
};

// ZooKeeper reads a client issued, as counted at its connection.
struct ReadCounts {
    std::uint64_t data = 0;
    std::uint64_t children = 0;
    // Names received in all children results.
    std::uint64_t childNames = 0;
};

// One measured client watching one service. The constructor connects and
// waits for the session (not measured); Start begins watching and returns at
// once; destruction stops every watch before returning.
class WatchClient {
public:
    virtual ~WatchClient() = default;
    virtual void Start() = 0;
    // Safe from any thread while the client runs.
    virtual ReadCounts Reads() const = 0;
};

// The library: ZooKeeperConnection, ServiceWatcher and an observer.
std::unique_ptr<WatchClient> MakeFerrowClient(const std::string& connect, const std::string& service,
                                              InstanceSink& sink);

// The library's cache: ZooKeeperConnection and a ServiceCache, which keeps
// the records (the sink, made with keepsRecords false, only counts).
std::unique_ptr<WatchClient> MakeCacheClient(const std::string& connect, const std::string& service,
                                             InstanceSink& sink);

// The same protocol written directly on the C client, as lean as it allows.
// A non-zero `resolutionDelayMs` is passed to zoo_set_servers_resolution_delay;
// 0 keeps the client's default (host names resolved again on every poll),
// which is what ZooKeeperConnection runs with.
std::unique_ptr<WatchClient> MakeBaselineClient(const std::string& connect, const std::string& service,
                                                int resolutionDelayMs, InstanceSink& sink);

// The baseline keeping every node's bytes instead of a decoded record (its
// sink, made with keepsRecords false, only counts).
std::unique_ptr<WatchClient> MakeRawClient(const std::string& connect, const std::string& service,
                                           InstanceSink& sink);

}  // namespace bench
}  // namespace jx
