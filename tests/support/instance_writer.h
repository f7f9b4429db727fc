#pragma once

// Test-side publishing of service instances: instance records, their node
// envelopes, and a writer that creates, changes and deletes instance nodes
// through a plain connection of its own, independent of any watcher. Its
// ReadTruth is what the server holds, for comparison with what a watcher
// reported.

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

// Success when both maps hold the same ids with the same records; otherwise
// a failure naming the missing, unexpected and differing ids.
::testing::AssertionResult SameInstances(const InstanceMap& expected, const InstanceMap& actual);

// Opens a connection and waits until it is connected; throws
// std::runtime_error when it is not within `deadline`.
std::shared_ptr<ferrow::ZooKeeperConnection> Connect(const std::string& connect,
                                                     std::chrono::milliseconds sessionTimeout = std::chrono::seconds(10),
                                                     std::chrono::milliseconds deadline = std::chrono::seconds(30));

// The bytes of the node `path` (up to 1 MiB, the server's node limit), or
// nothing when it does not exist; throws std::runtime_error on any other
// failure.
std::optional<String> ReadNode(const ferrow::Connection& conn, const std::string& path, Stat* stat = nullptr);

// Writes the nodes of one service, /srv2/<service>, through its own session.
// Every operation is synchronous and throws std::runtime_error, naming the
// path and the ZooKeeper error, when the server refuses it. Nodes are
// persistent, so they outlive this object's session. Thread-safe.
class InstanceWriter {
public:
    // Connects to `connect`, waits for the session and makes sure the service
    // node exists; throws when either has not happened within `deadline`.
    InstanceWriter(const std::string& connect, const std::string& service,
                   std::chrono::milliseconds sessionTimeout = std::chrono::seconds(30),
                   std::chrono::milliseconds deadline = std::chrono::seconds(60));
    InstanceWriter(const InstanceWriter&) = delete;  // owns a session
    InstanceWriter& operator=(const InstanceWriter&) = delete;

    const std::string& ServicePath() const { return m_servicePath; }
    std::string InstancePath(const ferrow::ServiceId& id) const;

    void Create(const ferrow::ServiceId& id, const ferrow::ServiceInstanceData& record,
                Encoding encoding = Encoding::Raw) const;
    void Set(const ferrow::ServiceId& id, const ferrow::ServiceInstanceData& record,
             Encoding encoding = Encoding::Raw) const;
    void Remove(const ferrow::ServiceId& id) const;
    // A child of the service node with any name and bytes.
    void CreateChild(const std::string& name, const String& bytes) const;

    // Creates every instance of `instances`, `inFlight` requests at a time.
    void CreateAll(const InstanceMap& instances, Encoding encoding, int inFlight = 8) const;

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
