#include "bench_support.h"

#include <cstdio>
#include <stdexcept>

#include <boost/uuid/random_generator.hpp>

namespace jx {
namespace bench {

// Set by the client's thread when the session is connected.
struct ZkWriter::SessionWait {
    std::mutex m_mtx;
    std::condition_variable m_cv;
    bool m_connected = false;
};

namespace {

void OnWriterSession(zhandle_t*, int type, int state, const char*, void* ctx) {
    if (type != ZOO_SESSION_EVENT || state != ZOO_CONNECTED_STATE) return;
    auto* wait = static_cast<ZkWriter::SessionWait*>(ctx);
    {
        std::lock_guard<std::mutex> lock(wait->m_mtx);
        wait->m_connected = true;
    }
    wait->m_cv.notify_all();
}

// Completion bookkeeping of a batch of asynchronous requests; lives on the
// issuing thread's stack until every completion has run.
struct Batch {
    std::mutex m_mtx;
    std::condition_variable m_cv;
    size_t m_left = 0;
    int m_firstError = ZOK;

    void Done(int rc) {
        {
            std::lock_guard<std::mutex> lock(m_mtx);
            if (rc != ZOK && m_firstError == ZOK) m_firstError = rc;
            --m_left;
        }
        m_cv.notify_all();
    }
    int Wait() {
        std::unique_lock<std::mutex> lock(m_mtx);
        m_cv.wait(lock, [this] { return m_left == 0; });
        return m_firstError;
    }
};

void OnBatchCreate(int rc, const char*, const void* data) { static_cast<Batch*>(const_cast<void*>(data))->Done(rc); }
void OnBatchDelete(int rc, const void* data) { static_cast<Batch*>(const_cast<void*>(data))->Done(rc); }

[[noreturn]] void Fail(const char* what, const std::string& path, int rc) {
    throw std::runtime_error(std::string(what) + " " + path + ": " + zerror(rc));
}

}  // namespace

ServiceInstanceData MakeRecord(std::uint64_t index, std::uint64_t seq) {
    char host[64];
    std::snprintf(host, sizeof host, "node-%06llu.pool-%02llu.bench.internal",
                  static_cast<unsigned long long>(index), static_cast<unsigned long long>(index % 37));
    ServiceInstanceData record;
    record.set_host(host);
    record.set_port(static_cast<std::uint32_t>(20000 + index % 40000));
    record.set_protocol("grpc");
    record.set_version("4.12.7-rc3");
    record.set_zone(index % 2 ? "zone-b" : "zone-a");
    record.set_weight(100);
    auto& metadata = *record.mutable_metadata();
    metadata["build"] = "5f0c2e9a41d7b3c8e6f1a0b2c4d6e8f0a1b3c5d7";
    metadata["owner"] = "team-service-discovery";
    metadata["region"] = "eu-central";
    metadata["rack"] = "rack-" + std::to_string(index % 64);
    metadata["seq"] = std::to_string(seq);
    record.set_registered_at_ms(1700000000000ULL + index);
    return record;
}

std::string EncodeEnvelope(const ServiceInstanceData& record) {
    messaging::ferrow::ZNodeData envelope;
    envelope.set_data(record.SerializeAsString());
    envelope.set_data_compression(messaging::ferrow::ZNodeData::COMP_NONE);
    return envelope.SerializeAsString();
}

std::vector<ServiceId> RandomIds(size_t count) {
    boost::uuids::random_generator generate;
    std::vector<ServiceId> ids;
    ids.reserve(count);
    for (size_t i = 0; i < count; ++i) ids.push_back(generate());
    return ids;
}

ZkWriter::ZkWriter(const std::string& connect) : m_wait(std::make_unique<SessionWait>()) {
    m_zh = zookeeper_init(connect.c_str(), &OnWriterSession, 30000, nullptr, m_wait.get(), 0);
    if (m_zh == nullptr) throw std::runtime_error("cannot start a ZooKeeper session with " + connect);
    std::unique_lock<std::mutex> lock(m_wait->m_mtx);
    const bool connected =
        m_wait->m_cv.wait_for(lock, std::chrono::seconds(30), [this] { return m_wait->m_connected; });
    lock.unlock();
    if (!connected) {
        zookeeper_close(m_zh);
        throw std::runtime_error("no ZooKeeper session with " + connect + " within 30 s");
    }
}

ZkWriter::~ZkWriter() { zookeeper_close(m_zh); }

void ZkWriter::EnsurePath(const std::string& path) {
    for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        const std::string prefix = path.substr(0, slash);
        const int rc = zoo_create(m_zh, prefix.c_str(), "", 0, &ZOO_OPEN_ACL_UNSAFE, 0, nullptr, 0);
        if (rc != ZOK && rc != ZNODEEXISTS) Fail("cannot create", prefix, rc);
        if (slash == std::string::npos) return;
    }
}

void ZkWriter::CreateAll(const std::vector<std::pair<std::string, std::string>>& nodes) {
    Batch batch;
    batch.m_left = nodes.size();
    for (const auto& node : nodes) {
        const int rc = zoo_acreate(m_zh, node.first.c_str(), node.second.data(), static_cast<int>(node.second.size()),
                                   &ZOO_OPEN_ACL_UNSAFE, 0, &OnBatchCreate, &batch);
        if (rc != ZOK) batch.Done(rc);
    }
    const int rc = batch.Wait();
    if (rc != ZOK) Fail("cannot create nodes such as", nodes.front().first, rc);
}

void ZkWriter::DeleteAll(const std::vector<std::string>& paths) {
    Batch batch;
    batch.m_left = paths.size();
    for (const std::string& path : paths) {
        const int rc = zoo_adelete(m_zh, path.c_str(), -1, &OnBatchDelete, &batch);
        if (rc != ZOK) batch.Done(rc);
    }
    const int rc = batch.Wait();
    if (rc != ZOK) Fail("cannot delete nodes such as", paths.front(), rc);
}

void ZkWriter::CreateAndDeleteAll(const std::vector<std::pair<std::string, std::string>>& nodes, size_t lag) {
    Batch batch;
    batch.m_left = 2 * nodes.size();
    for (size_t i = 0; i < nodes.size() + lag; ++i) {
        if (i < nodes.size()) {
            const auto& node = nodes[i];
            const int rc = zoo_acreate(m_zh, node.first.c_str(), node.second.data(),
                                       static_cast<int>(node.second.size()), &ZOO_OPEN_ACL_UNSAFE, 0, &OnBatchCreate,
                                       &batch);
            if (rc != ZOK) batch.Done(rc);
        }
        if (i >= lag && i - lag < nodes.size()) {
            const int rc = zoo_adelete(m_zh, nodes[i - lag].first.c_str(), -1, &OnBatchDelete, &batch);
            if (rc != ZOK) batch.Done(rc);
        }
    }
    const int rc = batch.Wait();
    if (rc != ZOK) Fail("cannot create and delete nodes such as", nodes.front().first, rc);
}

void ZkWriter::RemoveTree(const std::string& path) {
    String_vector names{};
    const int rc = zoo_get_children(m_zh, path.c_str(), 0, &names);
    if (rc == ZNONODE) return;
    if (rc != ZOK) Fail("cannot list", path, rc);
    std::vector<std::string> children;
    for (int i = 0; i < names.count; ++i) children.push_back(path + "/" + names.data[i]);
    deallocate_String_vector(&names);
    if (!children.empty()) DeleteAll(children);
    const int deleted = zoo_delete(m_zh, path.c_str(), -1);
    if (deleted != ZOK && deleted != ZNONODE) Fail("cannot delete", path, deleted);
}

void ZkWriter::Create(const std::string& path, const std::string& data) {
    const int rc = zoo_create(m_zh, path.c_str(), data.data(), static_cast<int>(data.size()), &ZOO_OPEN_ACL_UNSAFE, 0,
                              nullptr, 0);
    if (rc != ZOK) Fail("cannot create", path, rc);
}

void ZkWriter::Set(const std::string& path, const std::string& data) {
    const int rc = zoo_set(m_zh, path.c_str(), data.data(), static_cast<int>(data.size()), -1);
    if (rc != ZOK) Fail("cannot set", path, rc);
}

void InstanceSink::Added(const ServiceId& id, const ServiceInstanceData& record) {
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        if (m_keepsRecords) {
            m_records[id] = record;
        } else {
            m_ids.insert(id);
        }
        if (++m_added < m_awaited) return;
    }
    m_cv.notify_all();
}

void InstanceSink::Modified(const ServiceId& id, const ServiceInstanceData& record) {
    const Clock::time_point now = Clock::now();
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        if (m_keepsRecords) m_records[id] = record;
        m_modifiedAt.push_back(now);
        if (++m_modified < m_awaited) return;
    }
    m_cv.notify_all();
}

void InstanceSink::Removed(const ServiceId& id) {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_records.erase(id);
    m_ids.erase(id);
}

bool InstanceSink::WaitAdded(size_t count, Clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(m_mtx);
    m_awaited = count;
    return m_cv.wait_until(lock, deadline, [&] { return m_added >= count; });
}

bool InstanceSink::WaitModified(std::uint64_t count, Clock::time_point deadline, Clock::time_point& at) {
    std::unique_lock<std::mutex> lock(m_mtx);
    m_awaited = count;
    if (!m_cv.wait_until(lock, deadline, [&] { return m_modified >= count; })) return false;
    at = m_modifiedAt[count - 1];
    return true;
}

std::vector<ServiceId> InstanceSink::Ids() const {
    std::lock_guard<std::mutex> lock(m_mtx);
    std::vector<ServiceId> ids(m_ids.begin(), m_ids.end());
    ids.reserve(ids.size() + m_records.size());
    for (const auto& entry : m_records) ids.push_back(entry.first);
    return ids;
}

}  // namespace bench
}  // namespace jx
