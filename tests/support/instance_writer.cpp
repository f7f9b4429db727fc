#include "tests/support/instance_writer.h"

#include <atomic>
#include <exception>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include <google/protobuf/util/message_differencer.h>
#include <boost/lexical_cast.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "ferrow/error.h"
#include "ferrow/instance_data.h"
#include "ferrow/zlib.h"
#include "znode_data.h"

namespace jx {
namespace testing {

namespace {

using ferrow::ServiceId;
using ferrow::ServiceInstanceData;
using messaging::ferrow::ZNodeData;


void Check(int rc, const char* operation, const std::string& path) {
    if (rc != ZOK) throw std::runtime_error(std::string(operation) + " " + path + ": " + zerror(rc));
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
    (*record.mutable_metadata())["role"] = seed % 2 == 0 ? "primary" : "replica";
    if (metadataBytes > 0) {
        std::string filler;
        filler.reserve(metadataBytes);
        for (size_t i = 0; filler.size() < metadataBytes; ++i) filler += std::to_string(i * 7919 % 104729) + ',';
        filler.resize(metadataBytes);
        (*record.mutable_metadata())["filler"] = filler;
    }
    return record;
}

String MakeEnvelope(const ServiceInstanceData& record, Encoding encoding) {
    const String raw = record.SerializeAsString();
    ZNodeData envelope;
    if (encoding == Encoding::Raw) {
        envelope.set_data(raw);
        envelope.set_data_compression(ZNodeData::COMP_NONE);
    } else {
        envelope.set_data(ferrow::zlib::Compress(raw));
        envelope.set_data_compression(ZNodeData::COMP_ZLIB);
        if (encoding == Encoding::Zlib) envelope.set_data_size(raw.size());
    }
    return envelope.SerializeAsString();
}

bool SameRecord(const ServiceInstanceData& a, const ServiceInstanceData& b) {
    return google::protobuf::util::MessageDifferencer::Equals(a, b);
}

::testing::AssertionResult SameInstances(const InstanceMap& expected, const InstanceMap& actual) {
    std::ostringstream missing;
    std::ostringstream unexpected;
    std::ostringstream differing;
    for (const auto& entry : expected) {
        auto it = actual.find(entry.first);
        if (it == actual.end()) {
            missing << ' ' << entry.first;
        } else if (!SameRecord(entry.second, it->second)) {
            differing << "\n  " << entry.first << ": expected {" << entry.second.ShortDebugString() << "} got {"
                      << it->second.ShortDebugString() << '}';
        }
    }
    for (const auto& entry : actual) {
        if (expected.count(entry.first) == 0) unexpected << ' ' << entry.first;
    }
    if (missing.str().empty() && unexpected.str().empty() && differing.str().empty()) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "expected " << expected.size() << " instances, got " << actual.size()
                                         << "\n missing:" << missing.str() << "\n unexpected:" << unexpected.str()
                                         << "\n differing:" << differing.str();
}

std::shared_ptr<ferrow::ZooKeeperConnection> Connect(const std::string& connect,
                                                     std::chrono::milliseconds sessionTimeout,
                                                     std::chrono::milliseconds deadline) {
    ferrow::ConnectionOptions options;
    options.connect = connect;
    options.sessionTimeout = sessionTimeout;
    auto conn = ferrow::ZooKeeperConnection::Open(options);
    if (!conn->WaitConnected(deadline)) throw std::runtime_error("no session with " + connect);
    return conn;
}

std::optional<String> ReadNode(const ferrow::Connection& conn, const std::string& path, Stat* stat) {
    String bytes(ferrow::kInstanceReadCapacity, '\0');
    const int rc = conn.Get(path, bytes, stat);
    if (rc == ZNONODE) return std::nullopt;
    Check(rc, "get", path);
    return bytes;
}

InstanceWriter::InstanceWriter(const std::string& connect, const std::string& service,
                               std::chrono::milliseconds sessionTimeout, std::chrono::milliseconds deadline)
    : m_conn(Connect(connect, sessionTimeout, deadline)), m_servicePath(ferrow::ServicePath(service)) {
    ferrow::EnsurePath(*m_conn, m_servicePath, false, ZOO_OPEN_ACL_UNSAFE);
}

std::string InstanceWriter::InstancePath(const ServiceId& id) const {
    return m_servicePath + "/" + boost::uuids::to_string(id);
}

void InstanceWriter::Create(const ServiceId& id, const ServiceInstanceData& record, Encoding encoding) const {
    CreateChild(boost::uuids::to_string(id), MakeEnvelope(record, encoding));
}

void InstanceWriter::Set(const ServiceId& id, const ServiceInstanceData& record, Encoding encoding) const {
    const std::string path = InstancePath(id);
    Check(m_conn->Set(path, MakeEnvelope(record, encoding), -1, nullptr), "set", path);
}

void InstanceWriter::Remove(const ServiceId& id) const {
    const std::string path = InstancePath(id);
    Check(m_conn->Delete(path, -1), "delete", path);
}

void InstanceWriter::CreateChild(const std::string& name, const String& bytes) const {
    const std::string path = m_servicePath + "/" + name;
    Check(m_conn->Create(path, bytes, ZOO_OPEN_ACL_UNSAFE, 0), "create", path);
}

void InstanceWriter::CreateAll(const InstanceMap& instances, Encoding encoding, int inFlight) const {
    const std::vector<InstanceMap::value_type> work(instances.begin(), instances.end());
    std::atomic<size_t> next{0};
    std::mutex errorMtx;
    std::exception_ptr error;
    auto run = [&] {
        try {
            for (size_t i; (i = next++) < work.size();) Create(work[i].first, work[i].second, encoding);
        } catch (...) {
            std::lock_guard<std::mutex> lock(errorMtx);
            if (!error) error = std::current_exception();
            next = work.size();
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < inFlight; ++i) threads.emplace_back(run);
    for (std::thread& thread : threads) thread.join();
    if (error) std::rethrow_exception(error);
}

InstanceMap InstanceWriter::ReadTruth() const {
    std::vector<String> children;
    Check(m_conn->GetChildren(m_servicePath, children), "list", m_servicePath);
    InstanceMap truth;
    for (const String& child : children) {
        ServiceId id;
        try {
            id = boost::lexical_cast<ServiceId>(child);
        } catch (const boost::bad_lexical_cast&) {
            continue;
        }
        const std::optional<String> bytes = ReadNode(*m_conn, m_servicePath + "/" + child);
        if (!bytes) continue;  // deleted since the listing
        truth[id].ParseFromString(ferrow::ParseZNodeData(*bytes));
    }
    return truth;
}

}  // namespace testing
}  // namespace jx
