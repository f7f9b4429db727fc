#include "tests/support/instances.h"

#include <condition_variable>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <google/protobuf/util/message_differencer.h>
#include <boost/lexical_cast.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "ferrow/instance_data.h"
#include "ferrow/zlib.h"
#include "tests/support/support.h"

namespace jx {
namespace testing {

using ferrow::ServiceId;
using ferrow::ServiceInstanceData;

namespace {

void Check(int rc, const char* operation, const std::string& path) {
    if (rc != ZOK) throw std::runtime_error(std::string(operation) + " " + path + ": " + zerror(rc));
}

// The last session state of an attaching client, set on the client's thread.
struct AttachState {
    std::mutex mtx;
    std::condition_variable cv;
    int state = 0;
};

void OnAttachEvent(zhandle_t*, int type, int state, const char*, void* context) {
    auto* attach = static_cast<AttachState*>(context);
    std::lock_guard<std::mutex> lock(attach->mtx);
    if (type == ZOO_SESSION_EVENT) attach->state = state;
    attach->cv.notify_all();
}

}  // namespace

ServiceInstanceData MakeRecord(int seed, size_t metadataBytes) {
    const std::string n = std::to_string(seed);
    ServiceInstanceData record;
    record.set_host("host-" + n + ".test");
    record.set_port(static_cast<uint32_t>(10000 + seed));
    record.set_protocol(seed % 2 == 0 ? "grpc" : "http");
    record.set_version("1." + n);
    record.set_zone("zone-" + std::to_string(seed % 3));
    record.set_weight(static_cast<uint32_t>(seed % 100 + 1));
    record.set_registered_at_ms(1700000000000ULL + static_cast<uint64_t>(seed));
    (*record.mutable_metadata())["seed"] = n;
    std::string filler;
    for (size_t i = 0; filler.size() < metadataBytes; ++i) filler += std::to_string(i * 7919 % 104729) + ',';
    if (metadataBytes > 0) (*record.mutable_metadata())["filler"] = filler.substr(0, metadataBytes);
    return record;
}

String MakeEnvelope(const ServiceInstanceData& record, Encoding encoding) {
    if (encoding != Encoding::ZlibWithoutSize) return ferrow::EncodeInstanceData(record, encoding == Encoding::Zlib);
    messaging::ferrow::ZNodeData envelope;
    envelope.set_data(ferrow::zlib::Compress(record.SerializeAsString()));
    envelope.set_data_compression(messaging::ferrow::ZNodeData::COMP_ZLIB);
    return envelope.SerializeAsString();
}

bool SameRecord(const ServiceInstanceData& a, const ServiceInstanceData& b) {
    return google::protobuf::util::MessageDifferencer::Equals(a, b);
}

::testing::AssertionResult SameInstances(const InstanceMap& expected, const InstanceMap& actual) {
    std::ostringstream diff;
    for (const auto& [id, record] : expected) {
        const auto it = actual.find(id);
        if (it == actual.end()) diff << "\n missing " << id;
        else if (!SameRecord(record, it->second)) diff << "\n differing " << id << ": {" << it->second.ShortDebugString() << '}';
    }
    for (const auto& entry : actual) {
        if (expected.count(entry.first) == 0) diff << "\n unexpected " << entry.first;
    }
    if (diff.str().empty()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "expected " << expected.size() << " instances, got " << actual.size() << diff.str();
}

std::shared_ptr<ferrow::ZooKeeperConnection> Connect(const std::string& connect, std::chrono::milliseconds sessionTimeout) {
    auto conn = ferrow::ZooKeeperConnection::Open({connect, sessionTimeout, ""});
    if (!conn->WaitConnected(std::chrono::seconds(30))) throw std::runtime_error("no session with " + connect);
    return conn;
}

std::optional<String> ReadNode(const ferrow::Connection& conn, const std::string& path) {
    String bytes(ferrow::kInstanceReadCapacity, '\0');
    const int rc = conn.Get(path, bytes, nullptr);
    if (rc == ZNONODE) return std::nullopt;
    Check(rc, "get", path);
    return bytes;
}

bool ExpireSession(const std::string& connect, const ferrow::ZooKeeperConnection& conn) {
    const std::int64_t old = conn.SessionId();
    clientid_t id{old, {}};
    std::memcpy(id.passwd, conn.SessionPassword().data(), std::min(sizeof(id.passwd), conn.SessionPassword().size()));
    const auto renewed = [&] { return conn.SessionId() != 0 && conn.SessionId() != old; };
    for (int attempt = 0; attempt < 20 && old != 0 && !renewed(); ++attempt) {
        // Closing an attached client closes the session. `conn` may take the
        // session back before the close arrives, which the server then
        // refuses: only an attach refused as expired proves the session gone.
        AttachState attach;
        zhandle_t* zh = zookeeper_init(connect.c_str(), &OnAttachEvent, 10000, &id, &attach, 0);
        std::unique_lock<std::mutex> lock(attach.mtx);
        attach.cv.wait_for(lock, std::chrono::seconds(10), [&] { return attach.state != 0 && attach.state != ZOO_CONNECTING_STATE; });
        lock.unlock();
        zookeeper_close(zh);
        PollUntil(renewed, std::chrono::seconds(attach.state == ZOO_EXPIRED_SESSION_STATE ? 30 : 3));
    }
    return renewed();
}

InstanceWriter::InstanceWriter(const std::string& connect, const std::string& service, std::chrono::milliseconds sessionTimeout)
    : m_conn(Connect(connect, sessionTimeout)), m_servicePath(ferrow::ServicePath(service)) {
    ferrow::EnsurePath(*m_conn, m_servicePath, false, ZOO_OPEN_ACL_UNSAFE);
}

std::string InstanceWriter::InstancePath(const ServiceId& id) const { return m_servicePath + "/" + boost::uuids::to_string(id); }

void InstanceWriter::Create(const ServiceId& id, const ServiceInstanceData& record, Encoding encoding) const {
    CreateChild(boost::uuids::to_string(id), MakeEnvelope(record, encoding));
}

void InstanceWriter::Set(const ServiceId& id, const ServiceInstanceData& record, Encoding encoding) const {
    Check(m_conn->Set(InstancePath(id), MakeEnvelope(record, encoding), -1, nullptr), "set", InstancePath(id));
}

void InstanceWriter::Remove(const ServiceId& id) const { Check(m_conn->Delete(InstancePath(id), -1), "delete", InstancePath(id)); }

void InstanceWriter::CreateChild(const std::string& name, const String& bytes) const {
    Check(m_conn->Create(m_servicePath + "/" + name, bytes, ZOO_OPEN_ACL_UNSAFE, 0), "create", m_servicePath + "/" + name);
}

void InstanceWriter::CreateAll(const InstanceMap& instances) const {
    const std::vector<InstanceMap::value_type> work(instances.begin(), instances.end());
    std::vector<std::thread> threads;
    for (size_t t = 0; t < 32; ++t) {
        threads.emplace_back([&, t] {
            for (size_t i = t; i < work.size(); i += 32) EXPECT_NO_THROW(Create(work[i].first, work[i].second, Encoding::Zlib));
        });
    }
    for (std::thread& thread : threads) thread.join();
}

InstanceMap InstanceWriter::ReadTruth() const {
    std::vector<String> children;
    Check(m_conn->GetChildren(m_servicePath, children), "list", m_servicePath);
    InstanceMap truth;
    for (const String& child : children) {
        ServiceId id;
        if (!boost::conversion::try_lexical_convert(child, id)) continue;
        const std::optional<String> bytes = ReadNode(*m_conn, m_servicePath + "/" + child);
        if (bytes) truth[id] = ferrow::DecodeInstanceData(*bytes);  // else deleted since the listing
    }
    return truth;
}

}  // namespace testing
}  // namespace jx
