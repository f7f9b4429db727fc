#pragma once

// Publishes one running instance of a service: the ephemeral node
// /srv2/<service>/<id> holding the instance's record, kept there for as long
// as this object lives.

#include <memory>

#include "ferrow/connection_v2.h"
#include "ferrow/service_watcher_observer.h"
#include "utility/string.h"

namespace jx {
namespace ferrow {

class ServiceRegistrationImpl;
namespace details {
class MetricsSource;
}  // namespace details

// Thread-safe: Update, Withdraw, IsPublished, Id, Path and Record may be
// called from any thread at the same time. Writes of the node (publishing,
// Update, re-publishing after an expiry, the final delete) are serialised by
// one internal mutex held across the synchronous request, so the node always
// ends with the record of the last write. The connection never needs that
// mutex to complete a request, so holding it cannot deadlock.
//
// Session expiry: ZooKeeper deletes ephemeral nodes with their session. The
// registration observes the connection's session events (it is registered
// weakly, on the connection's delivery thread) and, on the first connected
// event after an expiry, creates the node again with the current record.
// A re-creation that fails is logged under "ferrow.registration" and tried
// again on the next connected event, or, while the connection stays up,
// after 100 ms, then twice as long each time up to 30 s, for as long as the
// registration lives (each failure counts in its publish failures metric):
// a node that another client keeps deleting and creating under its id
// delays it, never ends it. One whose request goes unanswered
// while the connection stays up, where no connected event follows, is
// settled by reading the node: published when it is there and this
// session's, left alone when another's, created again when absent. When
// that read goes unanswered too, the answer of the node's watch settles it.
//
// Its own node: the registration watches it, so that a node deleted by
// someone else while the session lives is created again at once. It never
// adopts a node it did not create: a node found under its id that another
// session owns (created there after an expiry, or in place of its own) is
// left alone, logged at ERROR, and watched until it goes; meanwhile
// IsPublished() is false and Update throws.
//
// Metrics: while it exists, whether it is published, and how often its
// node was created again or failed to be, are part of CollectMetrics
// (ferrow/metrics.h).
//
// Access: over a connection with credentials (Connection::HasCredentials),
// the node is created, and created again, readable by everyone and writable
// only by this publisher's identity (access_control.h); otherwise open.
class ServiceRegistration {
public:
    // Publishes `record` under a new random (version 4) id. The connection
    // must be connected. `compress` forces zlib compression; records larger
    // than kCompressionThreshold (instance_data.h) are compressed anyway.
    // Creates /srv2/<service> when missing. Throws ZooError with the client's
    // code on failure (ZNODEEXISTS when the id is taken); nothing is
    // published then.
    ServiceRegistration(std::shared_ptr<Connection> conn, const String& service,
                        const ServiceInstanceData& record, bool compress = false);
    // As above, under the caller's id.
    ServiceRegistration(std::shared_ptr<Connection> conn, const String& service, const ServiceId& id,
                        const ServiceInstanceData& record, bool compress = false);

    // Withdraws the instance as Withdraw does, unless Withdraw has been
    // called: then it only lets go. Failures of the delete are logged under
    // "ferrow.registration", never thrown; the node then goes with the
    // session.
    ~ServiceRegistration();

    // Owns the node: a copy would delete it twice.
    ServiceRegistration(const ServiceRegistration&) = delete;
    ServiceRegistration& operator=(const ServiceRegistration&) = delete;

    const ServiceId& Id() const;
    // "/srv2/<service>/<id>".
    const String& Path() const;
    // The record last given to the constructor or to Update.
    ServiceInstanceData Record() const;
    // Whether the instance is surely in the registry now: true only while
    // the connection is connected and the node is known to be this
    // session's. False from the moment the connection is not connected
    // (lost, expired, credentials refused): a session cut off from the
    // servers may have been expired there already, its node deleted with
    // it. True again once connected: at once after a reconnection within
    // the same session, whose ephemeral node survived; after an expiry,
    // once the node is created again. Never waits for the server or for a
    // write in progress.
    bool IsPublished() const;

    // Replaces the record and writes it to the node in place. The new record
    // is kept even when the write fails, so a later re-creation publishes it.
    // Throws ZooError on failure, e.g. while no session is usable, while an
    // expired session's node has not been created again yet (ZNONODE), or
    // while another session's node holds the id (ZNODEEXISTS).
    void Update(const ServiceInstanceData& record);

    // Withdraws the instance for good: stops observing the session and the
    // node (waiting for a session event being handled on the delivery
    // thread, so it must not run inside this registration's own connection
    // callback), so that nothing publishes it again, then deletes the node,
    // waiting for the answer at most the session timeout. Returns once no
    // node of this session holds the id: deleted now, never created, gone
    // with an expired session, or another session's (left alone). Throws
    // ZooError with the client's code when the delete failed, e.g. while
    // the servers are unreachable: the node then stays until the session
    // ends. Either way IsPublished is false from then on. Calling it again
    // tries the delete again; the destructor does not.
    void Withdraw();

private:
    std::shared_ptr<ServiceRegistrationImpl> m_impl;
    // Whether it is published, in the metrics (ferrow/metrics.h); closed
    // first by the destructor.
    std::unique_ptr<details::MetricsSource> m_metrics;
};

}  // namespace ferrow
}  // namespace jx
