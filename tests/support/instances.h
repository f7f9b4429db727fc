#pragma once

// Test-side publishing and reading of service instances: records, their
// node envelopes, a writer with a session of its own that is independent of
// any watcher (its ReadTruth is what the server holds), and a forced session
// expiry.

#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include <boost/lexical_cast.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include "ferrow/instance_data.h"
#include "ferrow/zlib.h"
#include "ferrow/zookeeper_connection.h"
#include "tests/support/support.h"

namespace jx {
namespace testing {

// Instances by id; ordered so that differences print in a stable order.
using InstanceMap = std::map<ferrow::ServiceId, ferrow::ServiceInstanceData>;

// How a record is stored in its node's envelope.
enum class Encoding {
    Raw,              // uncompressed
    Zlib,             // compressed, with the inflated size stated
    ZlibWithoutSize,  // compressed, leaving the reader to guess the size
};

// A record with every field set, distinct for every `seed`, carrying
// `metadataBytes` of extra metadata (to make large records).
inline ferrow::ServiceInstanceData MakeRecord(int seed, size_t metadataBytes = 0) {
    const std::string n = std::to_string(seed);
    ferrow::ServiceInstanceData record;
    record.set_host("host-" + n + ".test");
    record.set_port(static_cast<uint32_t>(10000 + seed));
    record.set_protocol(seed % 2 == 0 ? "grpc" : "http");
    record.set_version("1." + n);
    record.set_zone("zone-" + std::to_string(seed % 3));
    record.set_weight(static_cast<uint32_t>(seed % 100 + 1));
    record.set_registered_at_ms(1700000000000ULL + static_cast<uint64_t>(seed));
    (*record.mutable_metadata())["seed"] = n;
    if (metadataBytes > 0) (*record.mutable_metadata())["filler"] = std::string(metadataBytes, 'f');
    return record;
}

// The bytes of an envelope around `payload` as stated, true or not: its
// compression code (0 none, 1 zlib, others unknown) and, when given, the
// inflated size it claims.
inline String Envelope(const String& payload, int compression, std::optional<std::uint64_t> size = std::nullopt) {
    messaging::ferrow::ZNodeData envelope;
    envelope.set_data(payload);
    envelope.set_data_compression(static_cast<messaging::ferrow::ZNodeData::Compression>(compression));
    if (size) envelope.set_data_size(*size);
    return envelope.SerializeAsString();
}

// The bytes of an instance node holding `record`.
inline String MakeEnvelope(const ferrow::ServiceInstanceData& record, Encoding encoding) {
    if (encoding != Encoding::ZlibWithoutSize) return ferrow::EncodeInstanceData(record, encoding == Encoding::Zlib);
    return Envelope(ferrow::zlib::Compress(record.SerializeAsString()), messaging::ferrow::ZNodeData::COMP_ZLIB);
}

// Field-by-field equality (map fields compared as maps).
inline bool SameRecord(const ferrow::ServiceInstanceData& a, const ferrow::ServiceInstanceData& b) {
    return google::protobuf::util::MessageDifferencer::Equals(a, b);
}

// Success when both hold the same ids with the same records; otherwise a
// failure naming the sizes and the first id that differs.
inline ::testing::AssertionResult SameInstances(const InstanceMap& expected, const InstanceMap& actual) {
    auto a = expected.begin(), b = actual.begin();
    for (; a != expected.end() && b != actual.end() && a->first == b->first && SameRecord(a->second, b->second); ++a, ++b) {
    }
    if (a == expected.end() && b == actual.end()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "expected " << expected.size() << " instances, got " << actual.size()
                                         << "; first difference at " << (a != expected.end() ? a->first : b->first);
}

inline void Check(int rc, const char* operation, const std::string& path) {
    if (rc != ZOK) throw std::runtime_error(std::string(operation) + " " + path + ": " + zerror(rc));
}

// Opens a connection and waits until it is connected; throws
// std::runtime_error when it is not within 30 s.
inline std::shared_ptr<ferrow::ZooKeeperConnection> Connect(const std::string& connect,
                                                            std::chrono::milliseconds sessionTimeout = std::chrono::seconds(10)) {
    auto conn = ferrow::ZooKeeperConnection::Open({connect, sessionTimeout, ""});
    if (!conn->WaitConnected(std::chrono::seconds(30))) throw std::runtime_error("no session with " + connect);
    return conn;
}

// The bytes of node `path`, or nothing when it does not exist; throws
// std::runtime_error on any other failure, a node above `capacity` bytes
// included.
inline std::optional<String> ReadNode(const ferrow::Connection& conn, const std::string& path,
                                      size_t capacity = ferrow::kInstanceReadCapacity) {
    String bytes(capacity, '\0');
    const int rc = conn.Get(path, bytes, nullptr);
    if (rc == ZNONODE) return std::nullopt;
    Check(rc, "get", path);
    return bytes;
}

// Attaches a second client to the session of `conn` and closes it, as a
// server-side expiry would end it. Returns whether the attach found the
// session expired already; `conn` may also take the session back before
// the close arrives, which the server then refuses.
inline bool CloseSessionOnServer(const std::string& connect, const ferrow::ZooKeeperConnection& conn) {
    const String password = conn.SessionPassword();
    clientid_t id{conn.SessionId(), {}};
    std::memcpy(id.passwd, password.data(), std::min(sizeof(id.passwd), password.size()));
    zhandle_t* zh = zookeeper_init(connect.c_str(), nullptr, 10000, &id, nullptr, 0);
    PollUntil([zh] { return zoo_state(zh) == ZOO_CONNECTED_STATE || zoo_state(zh) == ZOO_EXPIRED_SESSION_STATE; },
              std::chrono::seconds(10));
    const bool expired = zoo_state(zh) == ZOO_EXPIRED_SESSION_STATE;
    zookeeper_close(zh);
    return expired;
}

// Ends the session of `conn` on the server and waits until `conn` runs a
// new session, repeating the close until an attach refused as expired
// proves the session gone. False when `conn` has no new session within
// about a minute.
inline bool ExpireSession(const std::string& connect, const ferrow::ZooKeeperConnection& conn) {
    const std::int64_t old = conn.SessionId();
    const auto renewed = [&] { return conn.SessionId() != 0 && conn.SessionId() != old; };
    for (int attempt = 0; attempt < 20 && old != 0 && !renewed(); ++attempt) {
        PollUntil(renewed, std::chrono::seconds(CloseSessionOnServer(connect, conn) ? 30 : 3));
    }
    return renewed();
}

// Writes the nodes of one service, /srv2/<service>, through its own session.
// Every operation is synchronous and throws std::runtime_error, naming the
// path and the ZooKeeper error, when the server refuses it. Nodes are
// persistent, so they outlive this object's session. Thread-safe.
class InstanceWriter {
public:
    InstanceWriter(const std::string& connect, const std::string& service,
                   std::chrono::milliseconds sessionTimeout = std::chrono::seconds(30))
        : m_conn(Connect(connect, sessionTimeout)), m_servicePath(ferrow::ServicePath(service)) {
        ferrow::EnsurePath(*m_conn, m_servicePath, false, ZOO_OPEN_ACL_UNSAFE);
    }

    std::string InstancePath(const ferrow::ServiceId& id) const { return m_servicePath + "/" + boost::uuids::to_string(id); }
    void Create(const ferrow::ServiceId& id, const ferrow::ServiceInstanceData& record, Encoding encoding = Encoding::Raw) const {
        CreateChild(boost::uuids::to_string(id), MakeEnvelope(record, encoding));
    }
    void Set(const ferrow::ServiceId& id, const ferrow::ServiceInstanceData& record, Encoding encoding = Encoding::Raw) const {
        Check(m_conn->Set(InstancePath(id), MakeEnvelope(record, encoding), -1, nullptr), "set", InstancePath(id));
    }
    void Remove(const ferrow::ServiceId& id) const { Check(m_conn->Delete(InstancePath(id), -1), "delete", InstancePath(id)); }
    // A child of the service node with any name and bytes.
    void CreateChild(const std::string& name, const String& bytes) const {
        Check(m_conn->Create(m_servicePath + "/" + name, bytes, ZOO_OPEN_ACL_UNSAFE, 0), "create", m_servicePath + "/" + name);
    }
    // Creates every instance of `instances` (or with `set`, writes the
    // record of each existing one), 32 requests at a time.
    void CreateAll(const InstanceMap& instances, bool set = false) const {
        const std::vector<InstanceMap::value_type> work(instances.begin(), instances.end());
        std::vector<std::thread> threads;
        for (size_t t = 0; t < 32; ++t) {
            threads.emplace_back([&, t] {
                for (size_t i = t; i < work.size(); i += 32) {
                    EXPECT_NO_THROW(set ? Set(work[i].first, work[i].second, Encoding::Zlib)
                                        : Create(work[i].first, work[i].second, Encoding::Zlib));
                }
            });
        }
        for (std::thread& thread : threads) thread.join();
    }
    // Every child named by a ServiceId, with its decoded record, as the
    // server holds them now. Children of other names are left out.
    InstanceMap ReadTruth() const {
        std::vector<String> children;
        Check(m_conn->GetChildren(m_servicePath, children), "list", m_servicePath);
        InstanceMap truth;
        for (const String& child : children) {
            ferrow::ServiceId id;
            if (!boost::conversion::try_lexical_convert(child, id)) continue;
            // Records written here are small: a buffer of 1 MiB per node made
            // reading thousands slow under the sanitizers.
            const std::optional<String> bytes = ReadNode(*m_conn, m_servicePath + "/" + child, 64 * 1024);
            if (bytes) truth[id] = ferrow::DecodeInstanceData(*bytes);  // else deleted since the listing
        }
        return truth;
    }

private:
    std::shared_ptr<ferrow::ZooKeeperConnection> m_conn;
    std::string m_servicePath;
};

}  // namespace testing
}  // namespace jx
