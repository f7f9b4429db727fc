#include "ferrow/service_registration.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <utility>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "ferrow/access_control.h"
#include "ferrow/error.h"
#include "ferrow/instance_data.h"
#include "connection/session_subscription.h"
#include "publishing/retry_timer.h"
#include "ferrow/zookeeper_connection.h"
#include "logger/logger.h"
#include "metrics/metrics_registry.h"

namespace jx {
namespace ferrow {

namespace {

const logging::ConstSourcePtr g_log = logging::MakeSource("ferrow.registration");

// The first delay before a registration tries again on the same
// connection, and the longest: it doubles at each attempt that fails.
constexpr std::chrono::milliseconds kFirstRetry{100};
constexpr std::chrono::milliseconds kLongestRetry{30'000};

}  // namespace

// Always owned by a std::shared_ptr, which the connection's registry holds
// weakly through a SessionSubscription. OnSessionEvent runs on the connection's delivery thread; everything
// else on the owner's threads. m_mtx guards m_record and m_node and is held
// across every write of the node.
class ServiceRegistrationImpl : public ConnectionObserver,
                                public std::enable_shared_from_this<ServiceRegistrationImpl> {
public:
    ServiceRegistrationImpl(std::shared_ptr<Connection> conn, const String& service, const ServiceId& id,
                            const ServiceInstanceData& record, bool compress)
        : m_conn(std::move(conn)),
          m_service(service),
          m_servicePath(ServicePath(service)),
          m_id(id),
          m_path(InstancePath(service, id)),
          m_compress(compress),
          m_record(record),
          m_address(AddressOf(record)) {}

    // Registers for session events, then creates the node, so that no expiry
    // after the creation goes unseen. Throws ZooError, registered no more.
    void Start() {
        m_subscription = details::SessionSubscription(*m_conn, weak_from_this());
        try {
            std::lock_guard<std::mutex> lock(m_mtx);
            Publish();
        } catch (...) {
            m_subscription.Reset();
            // A create whose answer was lost may have made the node.
            std::lock_guard<std::mutex> lock(m_mtx);
            if (m_node == Node::kUncertain) m_conn->Delete(m_path, -1);
            throw;
        }
        JXLOG(logging::JXLOG_INFO, g_log) << "Instance published: " << m_path;
    }

    // Stops observing the session and the node, so nothing re-creates it,
    // then deletes the node, unless it is another session's. Returns ZOK
    // once no node of this session holds the id, else the delete's code;
    // the node is then uncertain, so never reported published again (no
    // session event tells this registration of its expiry any more).
    int Withdraw() {
        Connection::WatchHandle watch;
        {
            std::lock_guard<std::mutex> lock(m_mtx);
            m_stopping = true;
            watch = std::move(m_watch);
        }
        // Never waits for a notification in progress: an event reaching
        // this object meanwhile finds it stopping.
        m_subscription.Reset();
        // Cancelled without the lock: a watch callback may be waiting for it.
        watch.Cancel({});
        std::lock_guard<std::mutex> lock(m_mtx);
        if (m_node != Node::kPublished && m_node != Node::kUncertain) return ZOK;
        const int rc = m_conn->Delete(m_path, -1);
        // Without a session, the expired one took its node along.
        const bool expired = rc == ZINVALIDSTATE && m_conn->State() == ZOO_EXPIRED_SESSION_STATE;
        if (rc != ZOK && rc != ZNONODE && !expired) {
            SetNode(Node::kUncertain);
            return rc;
        }
        SetNode(Node::kNotCreated);
        JXLOG(logging::JXLOG_INFO, g_log) << "Instance withdrawn: " << m_path;
        return ZOK;
    }

    // The destructor's withdrawal: none after Withdraw; a failure logged.
    void Stop() {
        {
            std::lock_guard<std::mutex> lock(m_mtx);
            if (m_stopping) return;
        }
        if (const int rc = Withdraw(); rc != ZOK) {
            JXLOG(logging::JXLOG_WARNING, g_log) << "Instance node not deleted, it goes with the session: "
                                                 << m_path << ": " << zerror(rc);
        }
    }

    void Update(const ServiceInstanceData& record) {
        std::lock_guard<std::mutex> lock(m_mtx);
        m_record = record;
        {
            std::lock_guard<std::mutex> labels(m_addressMtx);
            m_address = AddressOf(record);
        }
        if (m_node == Node::kForeign) throw ZooError(ZNODEEXISTS);
        const int rc = m_conn->Set(m_path, EncodeInstanceData(m_record, m_compress), -1, nullptr);
        if (rc != ZOK) throw ZooError(rc);
    }

    ServiceInstanceData Record() const {
        std::lock_guard<std::mutex> lock(m_mtx);
        return m_record;
    }

    // Without m_mtx, which a write holds across its request: a scrape of
    // the metrics never waits for the server. The connection's state, not
    // the latest session event, so that the answer falls the moment the
    // client loses the server, even while the delivery thread is busy.
    bool IsPublished() const {
        return m_published.load(std::memory_order_acquire) && m_conn->State() == ZOO_CONNECTED_STATE;
    }

    // For the metrics, without m_mtx as IsPublished.
    RegistrationMetrics Figures() const {
        RegistrationMetrics metrics;
        metrics.service = m_service;
        metrics.id = boost::uuids::to_string(m_id);
        {
            std::lock_guard<std::mutex> lock(m_addressMtx);
            metrics.address = m_address;
        }
        metrics.published = IsPublished();
        metrics.publishFailures = m_publishFailures.load(std::memory_order_relaxed);
        metrics.republished = m_republished.load(std::memory_order_relaxed);
        return metrics;
    }

    void OnSessionEvent(int type, int state, String) override {
        if (type != ZOO_SESSION_EVENT) return;
        std::lock_guard<std::mutex> lock(m_mtx);
        if (m_stopping) return;
        if (state == ZOO_EXPIRED_SESSION_STATE) {
            // The server has deleted the node with the session. Another
            // session's node is judged again too: the watch that would have
            // seen it go died with this session.
            if (m_node == Node::kPublished || m_node == Node::kForeign) SetNode(Node::kLostWithSession);
            return;
        }
        // A connected event that arrives before Start has published is the
        // session's first, not a new session: Start creates the node itself.
        if (state != ZOO_CONNECTED_STATE) return;
        if (m_node == Node::kLostWithSession || m_node == Node::kUncertain) {
            return Republish("Instance published again after session expiry: ");
        }
        // The node's watch was lost with the connection: whose the node is
        // now, if it is there, is read again, and the node watched.
        if (std::exchange(m_watchRetry, false) && (m_node == Node::kPublished || m_node == Node::kForeign)) Judge();
    }

    const ServiceId& Id() const { return m_id; }
    const String& Path() const { return m_path; }

private:
    // Requires m_mtx held. Creates the node again, logging `how` on success;
    // a node already there is kept only when this session created it (its
    // create's answer was lost), never adopted from another. A node that
    // another client keeps creating and deleting meanwhile is tried
    // `tries` times here, then again at its next event.
    void Republish(const char* how, int tries = 3) {
        try {
            Publish();
            m_republished.fetch_add(1, std::memory_order_relaxed);
            JXLOG(logging::JXLOG_INFO, g_log) << how << m_path;
        } catch (const ZooError& e) {
            m_publishFailures.fetch_add(1, std::memory_order_relaxed);
            // This attempt made no node: one known deleted while the session
            // lives (ours, or another's that held the id) is to be created
            // again, as one lost with the session. After an unanswered
            // create the node stays uncertain.
            if (m_node == Node::kPublished || m_node == Node::kForeign) SetNode(Node::kLostWithSession);
            if (e.Code() == ZNODEEXISTS) return Judge(tries - 1);
            // A request of this attempt left unanswered while the connection
            // stays up (the create, or the service node's check or creation
            // before it) is followed by no connected event that would try
            // again: the node is read now, and created again if not there.
            const bool unanswered = e.Code() == ZOPERATIONTIMEOUT || e.Code() == ZCONNECTIONLOSS;
            if (unanswered && m_conn->State() == ZOO_CONNECTED_STATE) {
                JXLOG(logging::JXLOG_WARNING, g_log) << "Instance creation unanswered, reading whether it was made: "
                                                     << m_path << ": " << e.what();
                return Judge(tries - 1);
            }
            if (m_conn->State() != ZOO_CONNECTED_STATE) {
                JXLOG(logging::JXLOG_ERROR, g_log) << "Instance not published again, retried on the next connection: "
                                                   << m_path << ": " << e.what();
                return;
            }
            RetryLater(e.what());
        }
    }

    // Requires m_mtx held. The node is still to be created and the
    // connection is up, so no session event will prompt another attempt:
    // one is made after a delay that doubles at each failure, up to
    // kLongestRetry, for as long as the registration lives.
    void RetryLater(const String& why) {
        SetNode(Node::kLostWithSession);
        if (m_retryPending || m_stopping) return;
        m_retryPending = true;
        const std::chrono::milliseconds delay = m_retryDelay;
        m_retryDelay = std::min(m_retryDelay * 2, kLongestRetry);
        JXLOG(logging::JXLOG_ERROR, g_log) << "Instance not published again, retried in " << delay.count()
                                           << " ms: " << m_path << ": " << why;
        // On the delivery thread, as every other attempt; both hold this
        // registration weakly, and the connection's queue drops the task
        // once the connection is gone.
        details::RunAfter(delay, [weak = weak_from_this()] {
            if (const auto self = weak.lock()) {
                self->m_conn->Post([weak] {
                    if (const auto again = weak.lock()) again->Retry();
                });
            }
        });
    }

    // On the delivery thread: the delay of RetryLater is over.
    void Retry() {
        std::lock_guard<std::mutex> lock(m_mtx);
        m_retryPending = false;
        if (m_stopping || m_node != Node::kLostWithSession) return;
        // Without a connection, its connected event tries again.
        if (m_conn->State() != ZOO_CONNECTED_STATE) return;
        Republish("Instance published again: ");
    }

    // Requires m_mtx held. Reads who owns the existing node: this session
    // (published), or another (not published; watched, so that the node is
    // created again once that one is gone). A node that cannot be read now,
    // while the connection stays up, is watched all the same: the answer of
    // the watch's read settles it (OnNodeRead), and its deletion is seen.
    void Judge(int tries = 3) {
        Stat stat{};
        const int rc = m_conn->Exists(m_path, &stat);
        if (rc == ZNONODE) {
            if (tries > 0) return Republish("Instance published again: ", tries - 1);
            if (m_conn->State() == ZOO_CONNECTED_STATE) return RetryLater("its node keeps coming and going");
            JXLOG(logging::JXLOG_ERROR, g_log) << "Instance not published again, its node keeps coming and going; "
                                                  "retried on the next connection: "
                                               << m_path;
            SetNode(Node::kLostWithSession);
            return;
        }
        if (rc == ZOK) Settle(stat);
        // Unread without a connection: its next connected event takes over.
        if (rc == ZOK || m_conn->State() == ZOO_CONNECTED_STATE) Watch();
    }

    // Requires m_mtx held. The node under the id is `stat`'s: published
    // when this session's, left alone when another's.
    void Settle(const Stat& stat) {
        if (Owns(stat)) {
            // Not published before: a re-creation whose answer was lost.
            if (m_node != Node::kPublished) m_republished.fetch_add(1, std::memory_order_relaxed);
            SetNode(Node::kPublished);
        } else if (m_node != Node::kForeign) {
            SetNode(Node::kForeign);
            JXLOG(logging::JXLOG_ERROR, g_log) << "Instance not published: another session's node holds its id: "
                                               << m_path;
        }
    }

    // Whether `stat` is of a node this session created. A connection that
    // cannot say which session it has is believed.
    bool Owns(const Stat& stat) const {
        const auto* zookeeper = dynamic_cast<const ZooKeeperConnection*>(m_conn.get());
        return zookeeper == nullptr || stat.ephemeralOwner == zookeeper->SessionId();
    }

    // Requires m_mtx held. Watches the node, so that its deletion or its
    // replacement by another session, while this session lives, is noticed.
    // The callbacks hold the registration weakly.
    void Watch() {
        if (m_stopping) return;
        const std::weak_ptr<ServiceRegistrationImpl> weak = weak_from_this();
        auto [rc, handle] = m_conn->AsyncGet(
            m_path,
            [weak](int type, int, String) {
                if (const auto self = weak.lock(); self && type != ZOO_SESSION_EVENT) self->OnNodeEvent();
            },
            [weak](int rc, String, const Stat* stat) {
                if (const auto self = weak.lock()) self->OnNodeRead(rc, stat);
            });
        // The watch replaced has fired: nothing to cancel. Not issued: set
        // again at the next connected event.
        if (rc == ZOK) m_watch = std::move(handle);
        m_watchRetry = rc != ZOK;
    }

    // On the delivery thread: the node changed, or is gone. Events of an
    // expired session's watches never come (the connection drops them), so
    // a node still to be created again is judged too: its watch was set by
    // a read of it that went unanswered while connected.
    void OnNodeEvent() {
        std::lock_guard<std::mutex> lock(m_mtx);
        if (m_stopping || m_node == Node::kNotCreated) return;
        if (m_conn->State() != ZOO_CONNECTED_STATE) return;  // an expiry is the session's to handle
        Judge();
    }

    // On the delivery thread: the answer of the read that watches the node.
    // It settles a node whose owner is not known yet; a known one's watch
    // needs only its events.
    void OnNodeRead(int rc, const Stat* stat) {
        if (rc == ZNONODE) return OnNodeEvent();
        std::lock_guard<std::mutex> lock(m_mtx);
        // Lost with the connection (a cut right after the node was made):
        // no watch was set, and the node is judged and watched again at the
        // next connected event, which the client sends once it reconnects.
        if (rc != ZOK && rc >= ZAPIERROR && !m_stopping) m_watchRetry = true;
        const bool unknown = m_node == Node::kUncertain || m_node == Node::kLostWithSession;
        if (rc == ZOK && stat != nullptr && !m_stopping && unknown) Settle(*stat);
    }

    // "host:port" of `record`, the host in brackets when it holds a colon.
    static String AddressOf(const ServiceInstanceData& record) {
        const String& host = record.host();
        const String shown = host.find(':') == String::npos ? host : "[" + host + "]";
        return shown + ":" + std::to_string(record.port());
    }

    // Requires m_mtx held. Creates the service node when missing, then the
    // ephemeral instance node with m_record, and watches it. Throws ZooError.
    void Publish() {
        EnsureServiceNode(*m_conn, m_service);
        // With credentials, the node is writable by its publisher alone.
        const ACL_vector& acl = m_conn->HasCredentials() ? PublisherInstanceAcl() : ZOO_OPEN_ACL_UNSAFE;
        const int rc = m_conn->Create(m_path, EncodeInstanceData(m_record, m_compress), acl, ZOO_EPHEMERAL);
        // No answer: the server may have created the node all the same.
        if (rc == ZOPERATIONTIMEOUT || rc == ZCONNECTIONLOSS) SetNode(Node::kUncertain);
        if (rc != ZOK) throw ZooError(rc);
        SetNode(Node::kPublished);
        Watch();
    }

    const std::shared_ptr<Connection> m_conn;
    const String m_service;
    const String m_servicePath;
    const ServiceId m_id;
    const String m_path;
    const bool m_compress;

    mutable std::mutex m_mtx;
    ServiceInstanceData m_record;  // guarded by m_mtx
    // Only a node that Start created and an expiry then deleted, or one
    // whose creation went unanswered, is created again by a connected
    // event; a node that may exist (kUncertain) is deleted by Withdraw too,
    // which leaves kNotCreated, or kUncertain when the delete failed.
    // kForeign: another session's node holds the id; it is left alone, and
    // watched until it goes.
    enum class Node { kNotCreated, kPublished, kLostWithSession, kUncertain, kForeign };
    Node m_node = Node::kNotCreated;       // guarded by m_mtx; written by SetNode
    std::atomic<bool> m_published{false};  // m_node == kPublished, read without the lock
    // Requires m_mtx held.
    void SetNode(Node node) {
        m_node = node;
        m_published.store(node == Node::kPublished, std::memory_order_release);
        if (node == Node::kPublished) m_retryDelay = kFirstRetry;
    }
    // A retry of RetryLater is waiting for its delay; guarded by m_mtx.
    bool m_retryPending = false;
    std::chrono::milliseconds m_retryDelay = kFirstRetry;  // guarded by m_mtx
    bool m_stopping = false;          // guarded by m_mtx; set by Withdraw
    Connection::WatchHandle m_watch;  // on the node; guarded by m_mtx
    bool m_watchRetry = false;        // guarded by m_mtx: m_watch was never set
    // The session's events; made by Start, ended by Withdraw or with this
    // object, on the owner's threads.
    details::SessionSubscription m_subscription;

    // The metrics' view, read without m_mtx. m_addressMtx is a leaf lock,
    // never held across a request.
    mutable std::mutex m_addressMtx;
    String m_address;  // AddressOf(m_record); guarded by m_addressMtx
    std::atomic<std::uint64_t> m_publishFailures{0};  // failed re-creations
    std::atomic<std::uint64_t> m_republished{0};      // successful ones
};

ServiceRegistration::ServiceRegistration(std::shared_ptr<Connection> conn, const String& service,
                                         const ServiceInstanceData& record, bool compress)
    : ServiceRegistration(std::move(conn), service, boost::uuids::random_generator()(), record, compress) {}

ServiceRegistration::ServiceRegistration(std::shared_ptr<Connection> conn, const String& service,
                                         const ServiceId& id, const ServiceInstanceData& record, bool compress)
    : m_impl(std::make_shared<ServiceRegistrationImpl>(std::move(conn), service, id, record, compress)) {
    m_impl->Start();
    m_metrics = std::make_unique<details::MetricsSource>(
        [impl = m_impl.get()](Metrics& metrics) { metrics.registrations.push_back(impl->Figures()); });
}

ServiceRegistration::~ServiceRegistration() {
    m_metrics->Close();
    m_impl->Stop();
}

const ServiceId& ServiceRegistration::Id() const { return m_impl->Id(); }

const String& ServiceRegistration::Path() const { return m_impl->Path(); }

ServiceInstanceData ServiceRegistration::Record() const { return m_impl->Record(); }

bool ServiceRegistration::IsPublished() const { return m_impl->IsPublished(); }

void ServiceRegistration::Update(const ServiceInstanceData& record) { m_impl->Update(record); }

void ServiceRegistration::Withdraw() {
    if (const int rc = m_impl->Withdraw(); rc != ZOK) throw ZooError(rc);
}

}  // namespace ferrow
}  // namespace jx
