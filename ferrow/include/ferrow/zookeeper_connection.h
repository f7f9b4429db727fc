#pragma once

// The real Connection: one ZooKeeper session (libzookeeper_mt) whose watch
// events, asynchronous results and session events are delivered on one
// thread owned by the connection.
//
// Threads. Three kinds run inside a connection:
//  - the C client's own I/O and completion threads, which never run user
//    code: they only queue deliveries and signal waiting synchronous calls;
//  - the delivery thread, which runs every WatchFunction, result callback and
//    ConnectionObserver::OnSessionEvent of this connection, one at a time, in
//    the order the C client produced them, never inside the request that
//    registered them. A callback may call any operation of the connection,
//    synchronous ones included, and may drop the last reference to it;
//  - the session thread, which replaces an expired session, moves watches
//    in and out of the client around a reconnection and withdraws cancelled
//    ones (see below), and issues the reads held back while too many
//    answers waited for delivery (ConnectionOptions::answersWaiting).
//
// Session expiry. The observers receive the expired session event; the
// connection then closes that session and opens a new one with the same
// options, whose connected event follows. Watch and session events of the
// old session are dropped once the new one exists; result callbacks are
// always delivered, exactly once, for every request accepted with ZOK. A
// request that dies with its session (expired or closed), including a read
// still waiting for its turn (ConnectionOptions::readWindow), completes
// with ZCLOSING, never ZSESSIONEXPIRED or ZINVALIDSTATE: the expiry is the
// session event's news.
// While no session is usable, requests fail at once with ZINVALIDSTATE.
// While the client is reconnecting (connection lost, session alive) requests
// are queued by the client and complete when it reconnects or gives up.
//
// Reconnection. Once reconnected, the client re-registers every watch of the
// session in one request, which the server refuses when it passes its size
// limit (jute.maxbuffer, 1 MiB by default): the client would then reconnect
// and be refused forever. So when the watched paths would make that request
// larger than ConnectionOptions::resetRequestLimit, the connection takes its
// watches out of the client as soon as the connection is lost, and once
// reconnected arms each one again itself, reproducing what the server does
// for the request: a watch whose node is gone receives ZOO_DELETED_EVENT,
// one whose node (or child list) changed since it was armed receives
// ZOO_CHANGED_EVENT (ZOO_CHILD_EVENT), the others stay armed silently. A
// watch whose re-arm the server refuses otherwise (ZNOAUTH after its access
// list changed, ...) receives ZOO_CHANGED_EVENT (ZOO_CHILD_EVENT) too, so
// that its owner reads the node again and meets the refusal itself. These
// events follow the connected session event, in the same session; nothing
// else is observable.
//
// Watches let go. A handle lets its watch go when it is destroyed or
// cancelled, or when another handle is move-assigned over it (which releases
// the watch without invalidating its context). A watch let go is withdrawn,
// whichever way it went: the connection stops holding it, and the session
// thread asks the client and, while connected, the server to forget it (the
// server keeps one watch per node and kind for the whole session, so it is
// asked only when no other watch of the session is on that node). No event
// of it is delivered any more, and its read completes with ZCLOSING if its
// answer was not delivered yet: its owner has asked again since, or wants
// nothing more. A read still waiting for its turn is then never sent: it is
// dropped before it reaches the client, and completes with ZCLOSING all the
// same. So an owner that arms a watch twice on one node, the second handle
// replacing the first, is answered and notified once, and one that lets go
// of thousands of reads waiting costs the server nothing. Letting a handle
// go never waits for any of this.
//
// A watched read that finds no node (ZNONODE) leaves no watch, as in
// ZooKeeper: nothing of its watch is ever delivered, and its owner decides
// what the missing node means.
//
// Metrics: from Open to destruction, its session, reads and watches are
// part of CollectMetrics (ferrow/metrics.h).
//
// Destruction closes the session and joins every thread; no callback runs
// after the destructor returns, and deliveries still queued are dropped.
// When the last reference goes away on the delivery thread itself, the
// delivery thread finishes the running callback and then ends by itself.
//
// Exceptions thrown by callbacks are caught on the delivery thread, logged at
// JXLOG_ERROR under the source "ferrow.connection", and delivery goes on. A
// throwing observer ends the notification of that one event.
//
// The C client's own log lines (warnings and errors only) are routed into the
// logger at JXLOG_WARNING under the source "ferrow.connection.client"; the
// client never writes to stderr.

#include <array>
#include <atomic>
#include <chrono>
#include <ostream>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <thread>
#include <vector>

#include "ferrow/connection_v2.h"

namespace jx {
namespace ferrow {

// Half the server's default request limit (jute.maxbuffer, 1 MiB), leaving
// room for servers that count differently.
inline constexpr size_t kDefaultResetRequestLimit = 512 * 1024;
inline constexpr size_t kDefaultReadWindow = 1024;
inline constexpr size_t kDefaultAnswersWaiting = 1024;

struct ConnectionOptions {
    // host:port[,host:port...][/chroot]
    String connect;
    // Requested session timeout. Synchronous operations wait at most this
    // long for their result, whatever timeout the server negotiates.
    std::chrono::milliseconds sessionTimeout{10000};
    // "user:password", added as digest credentials to every new session;
    // empty for none.
    String digestAuth;
    // Above this estimated size of the request that re-registers a session's
    // watches after a reconnection, the connection re-arms them itself (see
    // Reconnection above). The default suits the server's default request
    // limit; a server with a smaller jute.maxbuffer needs a smaller one.
    size_t resetRequestLimit = kDefaultResetRequestLimit;
    // How many asynchronous reads the connection hands the client at a
    // time; the others wait in the connection and are issued in the order
    // they were asked for, so answers still come in that order. A watcher
    // that lists a large service asks for a read of every instance at once.
    //
    // The reads on the wire start at readWindow and, while more wait, grow
    // by one per answer that found no queue ahead of it (doubling every
    // round trip) and shrink back towards readWindow while answers show one:
    // a server far away gets as many as its round trip needs, up to 16,384,
    // and one nearby no more than it answers. Reads held back go out in
    // batches of an eighth of the window, so that the client sends many per
    // write. 0: every read at once.
    size_t readWindow = kDefaultReadWindow;
    // Answers that may wait for the delivery thread before the connection
    // stops issuing reads; it resumes once half of them are delivered. This
    // bounds what a sync holds in memory when its observers are slower than
    // the server, whatever the distance. 0: no limit.
    size_t answersWaiting = kDefaultAnswersWaiting;
};

// One entry of a node's access list. `perms` is a set of ZOO_PERM_* bits.
struct AclEntry {
    String scheme;  // "world", "digest", "auth", ...
    String id;      // "anyone", "user:hash", ...
    int perms = 0;
    bool operator==(const AclEntry& other) const {
        return scheme == other.scheme && id == other.id && perms == other.perms;
    }
    friend std::ostream& operator<<(std::ostream& out, const AclEntry& entry) {
        return out << entry.scheme << ":" << entry.id << " " << entry.perms;
    }
};

namespace details {
class DeliveryQueue;
class MetricsSource;
struct SyncCall;
}  // namespace details

class ZooKeeperConnection : public Connection {
public:
    // Starts connecting and returns at once; see WaitConnected. Throws
    // ZooError(ZBADARGUMENTS) for a malformed connect string and
    // ZooError(ZSYSTEMERROR) when the client cannot be started, as a rule
    // because no server name resolves. Logs nothing: the exception is the
    // report.
    static std::shared_ptr<ZooKeeperConnection> Open(ConnectionOptions options);

    ~ZooKeeperConnection() override;
    ZooKeeperConnection(const ZooKeeperConnection&) = delete;  // owns a session
    ZooKeeperConnection& operator=(const ZooKeeperConnection&) = delete;

    // Blocks until the current session is connected or `deadline` has passed;
    // returns whether it is connected. Needs no delivery, so it may be called
    // on any thread.
    bool WaitConnected(std::chrono::milliseconds deadline) const;

    // The current session's id and password (the client's clientid_t); 0 and
    // empty while no session exists. The id is 0 until first connected.
    std::int64_t SessionId() const;
    String SessionPassword() const;

    // Watch bookkeeping records alive: one per watch the client may still
    // deliver or the connection will arm again, freed when its node event is
    // delivered, its read fails, its withdrawal after a cancellation is done
    // or its session is closed. For diagnostics and tests.
    size_t PendingWatchCount() const;

    // The current session's asynchronous reads (see
    // ConnectionOptions::readWindow), for diagnostics and tests: all zero
    // while no session exists.
    struct ReadCounts {
        size_t onWire = 0;          // handed to the client, not answered
        size_t answersWaiting = 0;  // answered, waiting for the delivery thread
        size_t waiting = 0;         // waiting for room, not handed to the client yet
        size_t window = 0;          // the most reads on the wire now
        // Reads handed to the client since the connection opened, over all
        // its sessions: what the servers were sent.
        std::uint64_t issued = 0;
    };
    ReadCounts Reads() const;

    // A node's access list (and, with `stat`, its Stat: its owner, its
    // children), and a change of it (`version` -1: any), as synchronous
    // requests with the result code of the others below.
    int GetAcl(String path, std::vector<AclEntry>& acl, Stat* stat = nullptr) const;
    int SetAcl(String path, const std::vector<AclEntry>& acl, int version = -1) const;
    // Create, with the node's access list from the start.
    int Create(String path, const String& data, const std::vector<AclEntry>& acl, int flags) const;
    // Whether the options gave credentials for the sessions.
    bool HasCredentials() const override;
    void Post(std::function<void()> task) const override;

    // Connection. ZOO_EXPIRED_SESSION_STATE while no session exists.
    int State() const override;
    bool IsDeliveryThread() const override;
    int Get(String path, String& out, Stat* stat) const override;
    std::pair<int, WatchHandle> AsyncGetChildren(String path, WatchFunction watch,
                                                 ChildrenResult result) const override;
    std::pair<int, WatchHandle> AsyncGet(String path, WatchFunction watch,
                                         DataResult result) const override;
    int Create(String path, const String& data, const ACL_vector& acl, int flags) const override;
    int Set(String path, const String& data, int version, Stat* stat) const override;
    int Delete(String path, int version) const override;
    int Exists(String path, Stat* stat) const override;
    int GetChildren(String path, std::vector<String>& children) const override;

private:
    struct Session;
    struct WatchRecord;
    struct AsyncRequest;

    explicit ZooKeeperConnection(ConnectionOptions options);

    // Creates a session of a new generation and makes it current. Returns
    // ZOK, or ZBADARGUMENTS / ZSYSTEMERROR when the client cannot be started.
    // Never runs concurrently with itself (Open, then the session thread),
    // and holds no lock while the client resolves the server names.
    int OpenSession();
    // Closes `session` (with no lock of this object held: the client calls
    // pending completions with ZCLOSING on this thread) and frees its watches.
    void CloseSession(std::unique_ptr<Session> session);
    // Takes the current session away so that no request can reach it: any
    // session, or only one of `generation` when given; null when none is.
    std::unique_ptr<Session> TakeSession(std::optional<std::uint64_t> generation);
    // Wakes WaitConnected to look at the state again.
    void NotifyStateWaiters();
    // Hands the options' digest credentials to `zh`; the client's result.
    int AddCredentials(zhandle_t* zh) const;
    // On the delivery thread: counts a session event of `generation` for
    // the metrics.
    void CountSessionEvent(std::uint64_t generation, int state);

    // The session thread: replaces an expired session when asked, and keeps
    // the watches of the current one (MaintainWatches).
    void RunSessionThread();
    // Sets one of the session thread's requests (a generation field below
    // m_renewMtx) and wakes the thread.
    void AskSessionThread(std::uint64_t ZooKeeperConnection::*request, std::uint64_t generation);
    // Asks the session thread to replace the session of `generation`.
    void RequestRenewal(std::uint64_t generation);
    // Asks the session thread to run MaintainWatches for `generation`.
    void RequestMaintenance(std::uint64_t generation);
    // Asks the session thread to issue the waiting reads of `generation`:
    // issuing stopped for the answers waiting, and room has opened since.
    // Issued there, not on the delivery thread, so that the client's
    // bookkeeping of a read is never allocated between its owner's.
    void RequestIssue(std::uint64_t generation);
    // On the delivery thread, before the owner's result callback runs: an
    // answer of session `generation` that the window counted has left the
    // queue.
    void ReadDelivered(std::uint64_t generation);

    // On the session thread, for the current session. While the client is
    // reconnecting and its watches would overflow the reset request, takes
    // every armed watch out of the client; while connected, arms again the
    // watches taken out and withdraws the ones already reported by a re-arm.
    void MaintainWatches(Session& session);
    // Takes the client's registration of each record away (zoo_remove_watches)
    // while `allowed()` holds; records the outcome of each and returns how
    // many it took away.
    template <typename Allowed>
    size_t Unregister(Session& session, const std::vector<WatchRecord*>& records, Allowed&& allowed);
    // While connected: withdraws `records` (armed, cancelled or reported
    // already, marked busy) from the client, and from the server for the
    // last watch of a node; OnWithdrawn completes the server's part.
    void Withdraw(Session& session, const std::vector<WatchRecord*>& records);
    static void OnWithdrawn(int rc, const void* data);
    // Frees a let-go record whose watch the client no longer holds (a
    // removal of every watch of its node took it), once a round trip shows
    // that no event collected for it is still to be delivered.
    static void Forget(Session& session, WatchRecord* record);
    static void OnForgotten(int rc, const Stat* stat, const void* data);
    // The share of `ctx` that the handle of `record` owns, also kept weakly
    // by the record: when the handle lets it go, WithdrawWatch runs.
    std::shared_ptr<WatchContext> OwnerShare(const Session& session, WatchRecord* record,
                                             std::shared_ptr<WatchContext> ctx) const;
    // On the thread that cancelled the context `ctx` of `record`, a record of
    // session `generation`: drops the context and has the record withdrawn.
    void WithdrawWatch(std::uint64_t generation, WatchRecord* record, const WatchContext* ctx);
    // Issues the read that arms `record` again; its completion compares the
    // node with the record.
    void Rearm(Session& session, WatchRecord* record);
    // On the delivery thread: notifies the observers, then asks for a new
    // session when the event reports expiry.
    void DeliverSessionEvent(std::uint64_t generation, int type, int state, const String& path);

    // Issues a synchronous request: `issue(zh, ctx)` runs under a shared lock
    // of m_sessionMtx and returns the client's code; then the call waits for
    // the completion at most m_options.sessionTimeout.
    template <typename Issue>
    int RunSync(const std::shared_ptr<details::SyncCall>& call, Issue&& issue) const;

    // Registers a watch record (a child watch with `child`, a data watch
    // otherwise) and issues the read, or queues it behind the reads already
    // waiting (see ConnectionOptions::readWindow); undoes both when the
    // client refuses the read.
    std::pair<int, WatchHandle> RunAsync(String path, bool child, WatchFunction watch,
                                         std::unique_ptr<AsyncRequest> request) const;
    // Hands `request` to the client; returns the client's code.
    static int IssueRead(zhandle_t* zh, const char* path, AsyncRequest* request);
    // Issues waiting reads of `session`, in order, while its window has
    // room. On the client's completion thread after an answer, and on the
    // session thread when asked.
    static void IssueWaiting(Session& session);
    // On the client's completion thread: counts the answer of `request`.
    static void ReadAnswered(const AsyncRequest& request);

    // The C client's callbacks.
    static void OnClientSessionEvent(zhandle_t* zh, int type, int state, const char* path, void* ctx);
    static void OnClientWatchEvent(zhandle_t* zh, int type, int state, const char* path, void* ctx);
    static int ResultCode(int clientRc);
    static void OnClientData(int clientRc, const char* value, int len, const Stat* stat, const void* data);
    static void OnClientChildren(int clientRc, const String_vector* strings, const Stat* stat, const void* data);
    // Settles the watch of `request` and queues its answer: `deliver(rc)`
    // runs on the delivery thread with the code the owner receives
    // (ZCLOSING once its handle let the watch go). `counted`:
    // an answer the window counted (ReadAnswered), reported delivered.
    template <typename Deliver>
    static void QueueAnswer(std::unique_ptr<AsyncRequest> request, int rc, std::int64_t zxid, bool counted,
                            Deliver deliver);
    // The result of a read, queued for delivery; the request is freed.
    static void DeliverData(int clientRc, const char* value, int len, const Stat* stat, const void* data,
                            bool counted);
    static void DeliverChildren(int clientRc, const String_vector* strings, const Stat* stat, const void* data,
                                bool counted);
    // Completes a read the client never answered with `rc`, issuing nothing
    // further.
    static void FailRead(const void* data, int rc);
    // Records the outcome of the read that registers `record` (null for a
    // read without watch): armed at `zxid`, or freed when the read failed.
    // `owner` is the handle's share. Returns the context of a freed record,
    // to be released on the delivery thread.
    static std::shared_ptr<WatchContext> Settle(Session& session, WatchRecord* record, int rc, std::int64_t zxid,
                                                std::weak_ptr<WatchContext>& owner);
    static void OnRearmData(int rc, const char* value, int len, const Stat* stat, const void* data);
    static void OnRearmChildren(int rc, const String_vector* strings, const Stat* stat, const void* data);
    // The re-arm read of `record` completed (or was refused) with `rc` and
    // the node's `zxid`. A refusal other than a lost connection is reported
    // as a change of the node, so that its owner reads it again.
    static void FinishRearm(WatchRecord* record, int rc, std::int64_t zxid);

    const ConnectionOptions m_options;
    std::weak_ptr<ZooKeeperConnection> m_self;  // set by Open

    // Shared with the delivery thread, which outlives this object when the
    // last reference is dropped on it.
    std::shared_ptr<details::DeliveryQueue> m_queue;
    std::thread m_deliveryThread;

    // Guards m_session: shared while a request is issued, exclusive while the
    // session is replaced. Never held while waiting for a result.
    mutable std::shared_mutex m_sessionMtx;
    std::unique_ptr<Session> m_session;
    std::uint64_t m_lastGeneration = 0;  // touched only by OpenSession
    // The generation of the latest session made current; its session events
    // are delivered only from then on.
    std::atomic<std::uint64_t> m_publishedGeneration{0};

    std::atomic<size_t> m_pendingWatches{0};

    // Figures for the process's metrics (ferrow/metrics.h); the source is
    // made by Open and closed first by the destructor.
    const std::uint64_t m_number;  // ConnectionMetrics::connection
    std::atomic<std::uint64_t> m_sessionsOpened{0};
    std::atomic<std::uint64_t> m_sessionExpiries{0};
    std::atomic<std::uint64_t> m_reconnections{0};
    std::atomic<std::uint64_t> m_watchesRegistered{0};
    std::atomic<std::uint64_t> m_watchesWithdrawn{0};
    mutable std::atomic<std::uint64_t> m_readsIssued{0};  // ReadCounts::issued
    mutable std::atomic<std::size_t> m_syncInFlight{0};  // synchronous requests waiting for their answer
    std::uint64_t m_connectedGeneration = 0;  // delivery thread only: the latest session seen connected
    // The latest session state delivered, and the steady_clock count since
    // which the connection is not connected (0 while it is); the latter
    // starts at the opening, which is not connected yet.
    std::atomic<int> m_lastSessionState{ZOO_CONNECTING_STATE};
    std::atomic<std::int64_t> m_disconnectedSince{std::chrono::steady_clock::now().time_since_epoch().count()};
    // Requests that ended in error, by the code's negation (ZooKeeper's
    // codes run from -1 to about -125; others count at 127).
    mutable std::array<std::atomic<std::uint64_t>, 128> m_errorCounts{};
    // Counts the result `rc` of a request that ended.
    void CountResult(int rc) const {
        if (rc == ZOK) return;
        const std::size_t code = rc < 0 && rc > -127 ? static_cast<std::size_t>(-rc) : 127;
        m_errorCounts[code].fetch_add(1, std::memory_order_relaxed);
    }
    std::unique_ptr<details::MetricsSource> m_metrics;

    // Wakes WaitConnected on every session event. Leaf lock apart from the
    // shared lock State() takes inside it.
    mutable std::mutex m_stateMtx;
    mutable std::condition_variable m_stateCv;

    std::mutex m_renewMtx;  // guards the four fields below
    std::condition_variable m_renewCv;
    std::uint64_t m_renewGeneration = 0;     // 0: nothing to renew
    std::uint64_t m_maintainGeneration = 0;  // 0: no watch maintenance asked
    std::uint64_t m_issueGeneration = 0;     // 0: no reads to issue
    bool m_stopping = false;
    std::thread m_sessionThread;
};

}  // namespace ferrow
}  // namespace jx
