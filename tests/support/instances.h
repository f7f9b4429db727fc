#pragma once

// Test-side publishing and reading of service instances: records, their
// node envelopes, a writer with a session of its own that is independent of
// any watcher (its ReadTruth is what the server holds), and a forced session
// expiry.

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "ferrow/service_watcher_observer.h"
#include "ferrow/zookeeper_connection.h"

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
ferrow::ServiceInstanceData MakeRecord(int seed, size_t metadataBytes = 0);
// The bytes of an instance node holding `record`.
String MakeEnvelope(const ferrow::ServiceInstanceData& record, Encoding encoding);
// Field-by-field equality (map fields compared as maps).
bool SameRecord(const ferrow::ServiceInstanceData& a, const ferrow::ServiceInstanceData& b);
// Success when both hold the same ids with the same records; otherwise a
// failure naming the missing, unexpected and differing ids.
::testing::AssertionResult SameInstances(const InstanceMap& expected, const InstanceMap& actual);

// Opens a connection and waits until it is connected; throws
// std::runtime_error when it is not within 30 s.
std::shared_ptr<ferrow::ZooKeeperConnection> Connect(const std::string& connect,
                                                     std::chrono::milliseconds sessionTimeout = std::chrono::seconds(10));

// The bytes of node `path`, or nothing when it does not exist; throws
// std::runtime_error on any other failure.
std::optional<String> ReadNode(const ferrow::Connection& conn, const std::string& path);

// Ends the session of `conn` on the server, as a server-side expiry would (a
// second client attaches to the session and closes it), and waits until
// `conn` runs a new session. The attaching client may take the session over
// before `conn` notices, so this repeats; false when `conn` has no new
// session within about a minute.
bool ExpireSession(const std::string& connect, const ferrow::ZooKeeperConnection& conn);

// Writes the nodes of one service, /srv2/<service>, through its own session.
// Every operation is synchronous and throws std::runtime_error, naming the
// path and the ZooKeeper error, when the server refuses it. Nodes are
// persistent, so they outlive this object's session. Thread-safe.
class InstanceWriter {
public:
    InstanceWriter(const std::string& connect, const std::string& service,
                   std::chrono::milliseconds sessionTimeout = std::chrono::seconds(30));

    std::string InstancePath(const ferrow::ServiceId& id) const;
    void Create(const ferrow::ServiceId& id, const ferrow::ServiceInstanceData& record,
                Encoding encoding = Encoding::Raw) const;
    void Set(const ferrow::ServiceId& id, const ferrow::ServiceInstanceData& record,
             Encoding encoding = Encoding::Raw) const;
    void Remove(const ferrow::ServiceId& id) const;
    // A child of the service node with any name and bytes.
    void CreateChild(const std::string& name, const String& bytes) const;
    // Creates every instance of `instances`, 32 requests at a time.
    void CreateAll(const InstanceMap& instances) const;
    // Every child named by a ServiceId, with its decoded record, as the
    // server holds them now. Children of other names are left out.
    InstanceMap ReadTruth() const;
    ferrow::ZooKeeperConnection& Connection() const { return *m_conn; }

private:
    std::shared_ptr<ferrow::ZooKeeperConnection> m_conn;
    std::string m_servicePath;
};

}  // namespace testing
}  // namespace jx
