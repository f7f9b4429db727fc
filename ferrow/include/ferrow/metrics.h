#pragma once

// What every connection, watcher, cache, provider and registration of this
// process is doing, read in one call: as a structure (CollectMetrics), and as the
// Prometheus text exposition format (PrometheusText) for a program to serve
// behind an endpoint of its own. The library serves nothing itself.
//
// Each object keeps its own counters and gauges from its construction to
// its destruction and appears in a collection while it exists; counters
// start at zero with the object. Counting costs the paths it counts one
// uncontended increment at most: a choice of InstanceProvider increments a
// counter of the choosing thread's own.
//
// Threads. CollectMetrics and PrometheusText may be called on any thread,
// at any time, concurrently with everything else, except from inside a
// watcher's error handler (which runs with the watcher's lock held, and a
// collection reads the watcher's instances under that lock). Objects may
// be made and destroyed during a collection: it reads one object at a
// time, and the destructor of the object being read waits for that read.
//
// The names of the Prometheus series, their labels and meaning are listed
// in the README ("Metrics"); PrometheusText documents each in its HELP line.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "utility/string.h"

namespace jx {
namespace ferrow {

using Seconds = std::chrono::duration<double>;

// One ZooKeeperConnection.
struct ConnectionMetrics {
    // Names the connection within the process: 1 for the first opened, and
    // so on; never reused.
    std::uint64_t connection = 0;
    bool connected = false;
    // The session's state as a person alerts on it: "connected",
    // "connecting" (connection lost, or not yet made, the session may live),
    // "expired" (the server ended the session; a new one is being opened) or
    // "auth_failed" (the server refused the credentials; no new session is
    // opened).
    const char* state = "connecting";
    // Zero while connected; otherwise the time since the connection was
    // last connected, or since it was opened if it never was.
    Seconds disconnectedFor{0};
    // Requests that ended in an error, by ZooKeeper result code (ZNONODE
    // included: a read of a node gone), and exceptions that callbacks let
    // escape to the delivery thread (each logged at ERROR).
    std::map<int, std::uint64_t> errors;
    std::uint64_t callbackExceptions = 0;
    // The current session's id; 0 while there is none.
    std::int64_t sessionId = 0;
    // Sessions that reached the connected state for the first time, the
    // expiries the server reported, and connected states regained by a
    // session that lost its connection (the same session, not a new one).
    std::uint64_t sessionsOpened = 0;
    std::uint64_t sessionExpiries = 0;
    std::uint64_t reconnections = 0;
    // Asynchronous reads handed to the client and not yet delivered, and
    // those waiting for room in the read window (ConnectionOptions).
    std::size_t readsInFlight = 0;
    std::size_t readsWaiting = 0;
    // Synchronous requests (Get, Create, Set, ...) waiting for their answer.
    std::size_t syncRequestsInFlight = 0;
    // Watches held now, and ever registered and withdrawn (let go by their
    // handles before they fired).
    std::size_t watches = 0;
    std::uint64_t watchesRegistered = 0;
    std::uint64_t watchesWithdrawn = 0;
};

// One ServiceWatcher.
struct WatcherMetrics {
    String service;
    // Instances known now (ServiceWatcher::ListInstances), and those listed
    // whose record never decoded (ServiceWatcher::UndecodableCount).
    std::size_t instances = 0;
    std::size_t undecodable = 0;
    // Reports to the observers, by kind. An expiry reports every instance
    // removed, and the fresh read reports them added again.
    std::uint64_t added = 0;
    std::uint64_t modified = 0;
    std::uint64_t removed = 0;
    // Reads of the service's children and of instances' records issued, and
    // those of them that were retries after a lost connection.
    std::uint64_t reads = 0;
    std::uint64_t readRetries = 0;
    // Whether the service node exists (ServiceWatcher::ServiceExists), and
    // the times it was found deleted and found created again.
    bool serviceExists = true;
    std::uint64_t serviceDeletions = 0;
    std::uint64_t serviceCreations = 0;
    // Errors that reached the watcher, by ZooKeeper result code: those
    // handed to its error handler (ZNOAUTH: an instance skipped), and the
    // missing service node (ZNONODE).
    std::map<int, std::uint64_t> errors;
    // As ServiceWatcher::IsSynced: false from the moment the connection is
    // lost. A collection begins the tracking that IsSynced begins, so the
    // first one after Start may say false.
    bool viewComplete = false;
    // Zero while the view is complete and current; otherwise the time since
    // it last was (since the connection was lost, the session expired or the
    // node was created again), or since the watcher started if it never was.
    Seconds viewAge{0};
    // How long the latest full read of the service took: from the moment
    // the view became incomplete (Start, or an expiry) to the moment it was
    // complete again; zero until it first was.
    Seconds lastSyncDuration{0};
};

// One ServiceCache.
struct CacheMetrics {
    String service;
    // Instances in the latest snapshot, and its version.
    std::size_t instances = 0;
    std::uint64_t version = 0;
    // As ServiceCache::IsSynced and ServiceCache::ViewAge.
    bool viewComplete = false;
    Seconds viewAge{0};
};

// One InstanceProvider.
struct ProviderMetrics {
    String service;
    // Choose calls that returned an instance, and those that returned null.
    std::uint64_t choices = 0;
    std::uint64_t noChoices = 0;
    // Outcomes reported: ReportSuccess, ReportFailure and ReportEnd calls.
    std::uint64_t successes = 0;
    std::uint64_t failures = 0;
    std::uint64_t ends = 0;
    // Ejections made, instances ejected now, and whether choices are made
    // as if none were down, fewer than panicThreshold of the instances
    // being up (InstanceProvider::Panicking).
    std::uint64_t ejections = 0;
    std::size_t ejected = 0;
    bool panicking = false;
};

// One ServiceRegistration.
struct RegistrationMetrics {
    String service;
    // The instance's id, canonical text: a new one at every start of a
    // program that lets the registration choose it.
    String id;
    // "host:port" of its current record ("[host]:port" for an IPv6 host):
    // names the instance across restarts whatever its id.
    String address;
    // As ServiceRegistration::IsPublished.
    bool published = false;
    // Creations of the node after the first that failed (refused, or left
    // unanswered), and those that succeeded: after a session expiry, or
    // after someone else deleted the node.
    std::uint64_t publishFailures = 0;
    std::uint64_t republished = 0;
};

// Every object alive at the collection, each kind in the order the objects
// were made.
struct Metrics {
    std::vector<ConnectionMetrics> connections;
    std::vector<WatcherMetrics> watchers;
    std::vector<CacheMetrics> caches;
    std::vector<ProviderMetrics> providers;
    std::vector<RegistrationMetrics> registrations;
};

// Reads the figures of every object alive now.
[[nodiscard]] Metrics CollectMetrics();

// `metrics` in the Prometheus text exposition format (version 0.0.4, to be
// served as "text/plain; version=0.0.4"). Objects of one service are
// summed into one series per name and label set (instances and view ages
// take the largest, a complete view needs every one complete), so that a
// process with two caches of one service still exposes each series once.
[[nodiscard]] String PrometheusText(const Metrics& metrics);
// The same for the objects alive now.
[[nodiscard]] String PrometheusText();

}  // namespace ferrow
}  // namespace jx
