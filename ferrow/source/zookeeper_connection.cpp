#include "ferrow/zookeeper_connection.h"

#include <cerrno>
#include <cstdio>
#include <unordered_map>
#include <utility>

#include "delivery_queue.h"
#include "ferrow/error.h"
#include "logger/logger.h"

namespace jx {
namespace ferrow {

namespace details {

// Completion contexts that the client has accepted and not yet completed,
// each with the function that completes it if the client never does:
// zookeeper_close does not complete every request still queued. Once the
// handle is closed no completion can run any more, so the leftovers are
// completed from there. A plain function pointer: no allocation per request.
class Outstanding {
public:
    using Abandon = void (*)(const void* context);

    void Add(const void* context, Abandon abandon) {
        std::lock_guard<std::mutex> lock(m_mtx);
        m_abandon.emplace(context, abandon);
    }
    // Called first by every completion.
    void Remove(const void* context) {
        std::lock_guard<std::mutex> lock(m_mtx);
        m_abandon.erase(context);
    }
    // Only once the handle is closed: completes every leftover context.
    void AbandonAll() {
        std::unordered_map<const void*, Abandon> left;
        {
            std::lock_guard<std::mutex> lock(m_mtx);
            left.swap(m_abandon);
        }
        for (const auto& entry : left) entry.second(entry.first);
    }

private:
    std::mutex m_mtx;
    std::unordered_map<const void*, Abandon> m_abandon;  // guarded by m_mtx
};

// The state of one synchronous request, shared by the waiting caller and the
// C client's completion (which owns a heap-held shared_ptr to it), so that a
// completion arriving after the caller gave up touches no freed memory. The
// completion fills the fields under m_mtx before setting m_done.
struct SyncCall {
    explicit SyncCall(size_t capacity = 0) : m_capacity(capacity) {}

    std::mutex m_mtx;
    std::condition_variable m_cv;
    bool m_done = false;
    int m_rc = ZOK;
    const size_t m_capacity;  // Get only: the largest node accepted
    Outstanding* m_outstanding = nullptr;  // of the session it was issued on
    String m_data;
    Stat m_stat{};
    std::vector<String> m_children;
};

}  // namespace details

namespace {

using details::SyncCall;

const logging::ConstSourcePtr g_log = logging::MakeSource("ferrow.connection");
const logging::ConstSourcePtr g_clientLog = logging::MakeSource("ferrow.connection.client");

// While no server answers, the client writes several lines a second: one
// line per second, with the number held back since, keeps the log readable.
void LogClientLine(const char* message) {
    struct Limiter {
        std::mutex mtx;
        std::chrono::steady_clock::time_point next;
        unsigned held = 0;
    };
    // Never destroyed: client threads may log during static destruction.
    static Limiter* limiter = new Limiter;
    unsigned heldBack = 0;
    {
        std::lock_guard<std::mutex> lock(limiter->mtx);
        const auto now = std::chrono::steady_clock::now();
        if (now < limiter->next) {
            ++limiter->held;
            return;
        }
        limiter->next = now + std::chrono::seconds(1);
        heldBack = std::exchange(limiter->held, 0);
    }
    if (heldBack == 0) {
        JXLOG(logging::JXLOG_WARNING, g_clientLog) << message;
    } else {
        JXLOG(logging::JXLOG_WARNING, g_clientLog) << message << " (" << heldBack << " more client lines held back)";
    }
}

// The client's log level and stream are process-wide. Lines of a handle go to
// LogClientLine; the few written without one go nowhere instead of stderr.
void ConfigureClientLogging() {
    static std::once_flag once;
    std::call_once(once, [] {
        zoo_set_debug_level(ZOO_LOG_LEVEL_WARN);
        if (FILE* sink = std::fopen("/dev/null", "w")) zoo_set_log_stream(sink);
    });
}

// Takes ownership of the context handed to a synchronous request's completion.
std::unique_ptr<std::shared_ptr<SyncCall>> AdoptSync(const void* data) {
    return std::unique_ptr<std::shared_ptr<SyncCall>>(
        static_cast<std::shared_ptr<SyncCall>*>(const_cast<void*>(data)));
}

// Completes a synchronous request: `fill` runs under the call's lock, then
// the waiter (if still waiting) is woken.
template <typename Fill>
void FinishSync(const void* data, int rc, Fill&& fill) {
    std::unique_ptr<std::shared_ptr<SyncCall>> holder = AdoptSync(data);
    SyncCall& call = **holder;
    call.m_outstanding->Remove(data);
    {
        std::lock_guard<std::mutex> lock(call.m_mtx);
        call.m_rc = rc;
        if (rc == ZOK) fill(call);
        call.m_done = true;
    }
    call.m_cv.notify_all();
}

void SyncVoidDone(int rc, const void* data) {
    FinishSync(data, rc, [](SyncCall&) {});
}

void SyncStringDone(int rc, const char*, const void* data) {
    FinishSync(data, rc, [](SyncCall&) {});
}

void SyncStatDone(int rc, const Stat* stat, const void* data) {
    FinishSync(data, rc, [stat](SyncCall& call) {
        if (stat) call.m_stat = *stat;
    });
}

void SyncDataDone(int rc, const char* value, int len, const Stat* stat, const void* data) {
    const size_t size = len > 0 ? static_cast<size_t>(len) : 0;
    const size_t capacity = (*static_cast<const std::shared_ptr<SyncCall>*>(data))->m_capacity;
    FinishSync(data, (rc == ZOK && size > capacity) ? ZBADARGUMENTS : rc, [&](SyncCall& call) {
        call.m_data.assign(value != nullptr ? value : "", size);
        if (stat) call.m_stat = *stat;
    });
}

void SyncStringsDone(int rc, const String_vector* strings, const void* data) {
    FinishSync(data, rc, [strings](SyncCall& call) {
        if (strings == nullptr) return;
        for (int i = 0; i < strings->count; ++i) call.m_children.emplace_back(strings->data[i]);
    });
}

std::vector<String> ToNames(const String_vector* strings) {
    std::vector<String> names;
    if (strings == nullptr) return names;
    names.reserve(static_cast<size_t>(strings->count));
    for (int i = 0; i < strings->count; ++i) names.emplace_back(strings->data[i]);
    return names;
}

// What one watch adds to the request that re-registers the watches after a
// reconnection: its path and the path's length field.
size_t ResetRequestBytes(const String& path) { return path.size() + 4; }

}  // namespace

// One watch of a session. Owned by its session's registry; the client holds
// its address as the watcher context while the watch is registered there.
struct ZooKeeperConnection::WatchRecord {
    enum class State {
        kReading,    // the read that registers it is in flight
        kArmed,      // the client holds the registration
        kTakenOut,   // taken out of the client; armed again once connected
        kRearming,   // the read that arms it again is in flight
    };

    WatchRecord(Session& session, std::shared_ptr<WatchContext> ctx, String path, bool child)
        : m_session(session), m_path(std::move(path)), m_child(child), m_ctx(std::move(ctx)) {}

    Session& m_session;
    const String m_path;
    const bool m_child;  // a child watch; a data watch otherwise

    // The fields below are guarded by m_session.m_watchMtx.
    // Moved out before the record is freed on a client thread, so that the
    // context (and the user's function in it) is released on the delivery
    // thread: it may hold the last reference to the connection. Null once
    // the watch's one event has been delivered.
    std::shared_ptr<WatchContext> m_ctx;
    State m_state = State::kReading;
    // The node's mzxid (pzxid for a child watch) when the watch was armed.
    std::int64_t m_zxid = 0;
    // The session thread is taking the registration away; a firing meanwhile
    // sets m_fired and leaves the freeing to that thread.
    bool m_busy = false;
    bool m_fired = false;
};

// One client handle and the watch records registered through it. Outlives
// the handle: it is destroyed only after zookeeper_close returned.
struct ZooKeeperConnection::Session {
    Session(ZooKeeperConnection& conn, std::uint64_t generation) : m_conn(conn), m_generation(generation) {}

    WatchRecord* AddWatch(std::shared_ptr<WatchContext> ctx, String path, bool child) {
        auto record = std::make_unique<WatchRecord>(*this, std::move(ctx), std::move(path), child);
        WatchRecord* raw = record.get();
        {
            std::lock_guard<std::mutex> lock(m_watchMtx);
            m_resetBytes += ResetRequestBytes(raw->m_path);
            m_watches.emplace(raw, std::move(record));
        }
        ++m_conn.m_pendingWatches;
        return raw;
    }

    // Removes `record` from the registry and returns it (null if absent).
    std::unique_ptr<WatchRecord> TakeWatch(WatchRecord* record) {
        std::lock_guard<std::mutex> lock(m_watchMtx);
        return TakeWatchLocked(record);
    }

    // As TakeWatch; requires m_watchMtx held.
    std::unique_ptr<WatchRecord> TakeWatchLocked(WatchRecord* record) {
        std::unique_ptr<WatchRecord> taken;
        auto it = m_watches.find(record);
        if (it == m_watches.end()) return taken;
        taken = std::move(it->second);
        m_watches.erase(it);
        m_resetBytes -= ResetRequestBytes(taken->m_path);
        --m_conn.m_pendingWatches;
        return taken;
    }

    ZooKeeperConnection& m_conn;
    const std::uint64_t m_generation;
    zhandle_t* m_zh = nullptr;
    std::mutex m_watchMtx;
    std::unordered_map<WatchRecord*, std::unique_ptr<WatchRecord>> m_watches;  // guarded by m_watchMtx
    size_t m_resetBytes = 0;  // guarded by m_watchMtx: estimate over m_watches
    details::Outstanding m_outstanding;
};

// The completion context of an asynchronous read; exactly one of the two
// results is set. m_record is null for a read that sets no watch.
struct ZooKeeperConnection::AsyncRequest {
    Session* m_session = nullptr;
    WatchRecord* m_record = nullptr;
    DataResult m_onData;
    ChildrenResult m_onChildren;
};

std::shared_ptr<ZooKeeperConnection> ZooKeeperConnection::Open(ConnectionOptions options) {
    ConfigureClientLogging();
    std::shared_ptr<ZooKeeperConnection> conn(new ZooKeeperConnection(std::move(options)));
    conn->m_self = conn;
    conn->m_deliveryThread = std::thread(&details::DeliveryQueue::Run, conn->m_queue);
    conn->m_sessionThread = std::thread(&ZooKeeperConnection::RunSessionThread, conn.get());
    const int rc = conn->OpenSession();
    if (rc != ZOK) throw ZooError(rc);
    return conn;
}

ZooKeeperConnection::ZooKeeperConnection(ConnectionOptions options)
    : m_options(std::move(options)), m_queue(std::make_shared<details::DeliveryQueue>()) {}

ZooKeeperConnection::~ZooKeeperConnection() {
    {
        std::lock_guard<std::mutex> lock(m_renewMtx);
        m_stopping = true;
    }
    m_renewCv.notify_all();
    if (m_sessionThread.joinable()) m_sessionThread.join();

    // Stop first: completions the close produces are dropped, and a callback
    // blocked in a synchronous call is released by the close (ZCLOSING).
    m_queue->Stop();
    if (std::unique_ptr<Session> session = TakeSession(std::nullopt)) CloseSession(std::move(session));

    if (!m_deliveryThread.joinable()) return;
    if (m_deliveryThread.get_id() == std::this_thread::get_id()) {
        // The last reference went away inside a callback: the thread returns
        // to its loop, sees the stop and ends, owning the queue alone.
        m_deliveryThread.detach();
    } else {
        m_deliveryThread.join();
    }
}

int ZooKeeperConnection::OpenSession() {
    auto session = std::make_unique<Session>(*this, ++m_lastGeneration);
    m_queue->SetGeneration(session->m_generation);
    errno = 0;
    session->m_zh = zookeeper_init2(m_options.connect.c_str(), &OnClientSessionEvent,
                                    static_cast<int>(m_options.sessionTimeout.count()), nullptr,
                                    session.get(), 0, &LogClientLine);
    if (session->m_zh == nullptr) {
        const int error = errno;
        JXLOG(logging::JXLOG_ERROR, g_log) << "Cannot start a session with " << m_options.connect
                                           << ": errno " << error;
        return error == EINVAL ? ZBADARGUMENTS : ZSYSTEMERROR;
    }
    // By default the client resolves the server names again on every poll of
    // its socket, which costs more CPU than reading the data; resolving only
    // after a connection loss still follows DNS changes where they matter.
    zoo_set_servers_resolution_delay(session->m_zh, -1);
    if (!m_options.digestAuth.empty()) {
        const int rc = zoo_add_auth(session->m_zh, "digest", m_options.digestAuth.data(),
                                    static_cast<int>(m_options.digestAuth.size()), nullptr, nullptr);
        if (rc != ZOK) JXLOG(logging::JXLOG_ERROR, g_log) << "Cannot add digest credentials: " << zerror(rc);
    }
    {
        std::unique_lock<std::shared_mutex> lock(m_sessionMtx);
        m_session = std::move(session);
    }
    NotifyStateWaiters();
    return ZOK;
}

std::unique_ptr<ZooKeeperConnection::Session> ZooKeeperConnection::TakeSession(
    std::optional<std::uint64_t> generation) {
    std::unique_lock<std::shared_mutex> lock(m_sessionMtx);
    if (!m_session || (generation && m_session->m_generation != *generation)) return nullptr;
    m_queue->SetGeneration(0);
    return std::move(m_session);
}

void ZooKeeperConnection::NotifyStateWaiters() {
    {
        // Empty: a waiter between its check of the state and its wait holds
        // this lock, so the notification cannot fall in between.
        std::lock_guard<std::mutex> lock(m_stateMtx);
    }
    m_stateCv.notify_all();
}

void ZooKeeperConnection::CloseSession(std::unique_ptr<Session> session) {
    zookeeper_close(session->m_zh);
    // Requests the client dropped unanswered complete with ZCLOSING, as the
    // ones it answered during the close did.
    session->m_outstanding.AbandonAll();
    // The client has stopped: what is left in the registry will never be
    // delivered. Released on the delivery thread, as a no-op delivery, for
    // the contexts may hold the last reference to this connection; destroyed
    // here instead when the queue is stopped (this object is being destroyed).
    auto left = std::make_shared<std::unordered_map<WatchRecord*, std::unique_ptr<WatchRecord>>>();
    {
        std::lock_guard<std::mutex> lock(session->m_watchMtx);
        left->swap(session->m_watches);
    }
    m_pendingWatches -= left->size();
    if (!left->empty()) m_queue->Push(0, true, [left] {});
}

void ZooKeeperConnection::RunSessionThread() {
    std::unique_lock<std::mutex> lock(m_renewMtx);
    for (;;) {
        m_renewCv.wait(lock, [this] { return m_stopping || m_renewGeneration != 0 || m_maintainGeneration != 0; });
        if (m_stopping) return;
        const std::uint64_t expired = std::exchange(m_renewGeneration, 0);
        const std::uint64_t maintain = std::exchange(m_maintainGeneration, 0);
        lock.unlock();

        if (expired == 0) {
            // Only this thread replaces m_session (the destructor joins it
            // first), so the session stays valid here without the lock.
            Session* current = nullptr;
            {
                std::shared_lock<std::shared_mutex> sessionLock(m_sessionMtx);
                if (m_session && m_session->m_generation == maintain) current = m_session.get();
            }
            if (current) MaintainWatches(*current);
            lock.lock();
            continue;
        }

        if (std::unique_ptr<Session> old = TakeSession(expired)) {
            CloseSession(std::move(old));
            JXLOG(logging::JXLOG_INFO, g_log) << "Session expired, opening a new one";
            while (OpenSession() != ZOK) {
                lock.lock();
                if (m_renewCv.wait_for(lock, std::chrono::seconds(1), [this] { return m_stopping; })) return;
                lock.unlock();
            }
        }
        lock.lock();
    }
}

void ZooKeeperConnection::RequestRenewal(std::uint64_t generation) {
    {
        std::lock_guard<std::mutex> lock(m_renewMtx);
        m_renewGeneration = generation;
    }
    m_renewCv.notify_all();
}

void ZooKeeperConnection::RequestMaintenance(std::uint64_t generation) {
    {
        std::lock_guard<std::mutex> lock(m_renewMtx);
        m_maintainGeneration = generation;
    }
    m_renewCv.notify_all();
}

void ZooKeeperConnection::MaintainWatches(Session& session) {
    using State = WatchRecord::State;
    // Between two connection attempts the client reports neither connecting
    // nor connected.
    auto reconnecting = [&session] {
        const int state = zoo_state(session.m_zh);
        return state != ZOO_CONNECTED_STATE && state != ZOO_EXPIRED_SESSION_STATE && state != ZOO_AUTH_FAILED_STATE;
    };
    const bool connected = zoo_state(session.m_zh) == ZOO_CONNECTED_STATE;
    const bool disconnected = !connected && reconnecting();
    std::vector<WatchRecord*> takeOut;
    std::vector<WatchRecord*> rearm;
    size_t bytes = 0;
    {
        std::lock_guard<std::mutex> lock(session.m_watchMtx);
        bytes = session.m_resetBytes;
        if (disconnected && bytes > kResetRequestLimit) {
            for (auto& entry : session.m_watches) {
                WatchRecord* record = entry.first;
                if (record->m_state != State::kArmed || record->m_busy) continue;
                record->m_busy = true;
                takeOut.push_back(record);
            }
        } else if (connected) {
            for (auto& entry : session.m_watches) {
                WatchRecord* record = entry.first;
                if (record->m_state == State::kTakenOut) {
                    record->m_state = State::kRearming;
                    rearm.push_back(record);
                } else if (record->m_state == State::kArmed && !record->m_ctx && !record->m_busy) {
                    // Reported by its re-arm already: withdrawn, never delivered.
                    record->m_busy = true;
                    takeOut.push_back(record);
                }
            }
        }
    }
    if (disconnected) {
        if (takeOut.empty()) return;
        JXLOG(logging::JXLOG_INFO, g_log) << "Connection lost while watching " << takeOut.size()
                                          << " nodes (reset request of about " << bytes
                                          << " bytes): the watches are armed again one by one after reconnecting";
        // Stops as soon as the client reconnects: what it still holds then
        // went out in its reset request.
        Unregister(session, takeOut, reconnecting);
        return;
    }
    for (WatchRecord* record : rearm) Rearm(session, record);
    Unregister(session, takeOut, [] { return true; });
}

template <typename Allowed>
void ZooKeeperConnection::Unregister(Session& session, const std::vector<WatchRecord*>& records, Allowed&& allowed) {
    for (WatchRecord* record : records) {
        // Local: while reconnecting the client drops its registration at once
        // instead of failing; while connected it asks the server too.
        const int rc = allowed() ? zoo_remove_watches(session.m_zh, record->m_path.c_str(),
                                                      record->m_child ? ZWATCHTYPE_CHILD : ZWATCHTYPE_DATA,
                                                      &OnClientWatchEvent, record, 1)
                                 : ZINVALIDSTATE;
        // Freed records hold no context: their event took it.
        std::unique_ptr<WatchRecord> freed;
        std::lock_guard<std::mutex> lock(session.m_watchMtx);
        record->m_busy = false;
        if (record->m_fired || (rc == ZOK && !record->m_ctx)) {
            freed = session.TakeWatchLocked(record);
        } else if (rc == ZOK) {
            record->m_state = WatchRecord::State::kTakenOut;
        }
    }
}

void ZooKeeperConnection::Rearm(Session& session, WatchRecord* record) {
    const char* path = record->m_path.c_str();
    const int rc = record->m_child ? zoo_awget_children2(session.m_zh, path, &OnClientWatchEvent, record,
                                                         &OnRearmChildren, record)
                                   : zoo_awget(session.m_zh, path, &OnClientWatchEvent, record, &OnRearmData, record);
    if (rc == ZOK) return;
    // Not issued: tried again at the next connected event.
    std::lock_guard<std::mutex> lock(session.m_watchMtx);
    record->m_state = WatchRecord::State::kTakenOut;
}

void ZooKeeperConnection::OnRearmData(int rc, const char*, int, const Stat* stat, const void* data) {
    FinishRearm(static_cast<WatchRecord*>(const_cast<void*>(data)), rc, stat != nullptr ? stat->mzxid : 0);
}

void ZooKeeperConnection::OnRearmChildren(int rc, const String_vector*, const Stat* stat, const void* data) {
    FinishRearm(static_cast<WatchRecord*>(const_cast<void*>(data)), rc, stat != nullptr ? stat->pzxid : 0);
}

void ZooKeeperConnection::FinishRearm(WatchRecord* record, int rc, std::int64_t zxid) {
    Session& session = record->m_session;
    // Copied now: once the lock is released the session thread may free a
    // record reported here.
    String path = record->m_path;
    int type = 0;
    std::shared_ptr<WatchContext> watch;
    std::unique_ptr<WatchRecord> freed;
    {
        std::lock_guard<std::mutex> lock(session.m_watchMtx);
        if (rc == ZOK) {
            record->m_state = WatchRecord::State::kArmed;
            if (zxid > record->m_zxid) {
                // Changed while not watched: reported now; the registration
                // just made is withdrawn by the session thread.
                type = record->m_child ? ZOO_CHILD_EVENT : ZOO_CHANGED_EVENT;
                watch = std::move(record->m_ctx);
            }
        } else if (rc == ZNONODE) {
            type = ZOO_DELETED_EVENT;
            watch = std::move(record->m_ctx);
            freed = session.TakeWatchLocked(record);
        } else {
            // Connection lost again or closing: nothing was registered.
            record->m_state = WatchRecord::State::kTakenOut;
        }
    }
    if (!watch) return;
    if (!freed) session.m_conn.RequestMaintenance(session.m_generation);
    session.m_conn.m_queue->Push(session.m_generation, false, [watch, type, path = std::move(path)] {
        InvokeWatch(*watch, type, ZOO_CONNECTED_STATE, path);
    });
}

void ZooKeeperConnection::DeliverSessionEvent(std::uint64_t generation, int type, int state,
                                              const String& path) {
    details::RunGuarded([&] { NotifyObservers(&ConnectionObserver::OnSessionEvent, type, state, path); });
    if (state == ZOO_EXPIRED_SESSION_STATE) RequestRenewal(generation);
}

void ZooKeeperConnection::OnClientSessionEvent(zhandle_t*, int type, int state, const char* path, void* ctx) {
    Session& session = *static_cast<Session*>(ctx);
    ZooKeeperConnection& conn = session.m_conn;
    conn.NotifyStateWaiters();
    if (type != ZOO_SESSION_EVENT) return;
    const std::uint64_t generation = session.m_generation;
    if (state == ZOO_CONNECTING_STATE || state == ZOO_CONNECTED_STATE) conn.RequestMaintenance(generation);
    // A weak reference: a queued event must not keep the connection alive.
    // Held strongly while the observers run, so that one of them dropping
    // the last reference destroys the connection only after the notification.
    std::weak_ptr<ZooKeeperConnection> weak = conn.m_self;
    conn.m_queue->Push(generation, false, [weak, generation, type, state, text = String(path ? path : "")] {
        if (std::shared_ptr<ZooKeeperConnection> self = weak.lock()) {
            self->DeliverSessionEvent(generation, type, state, text);
        }
    });
}

void ZooKeeperConnection::OnClientWatchEvent(zhandle_t*, int type, int state, const char* path, void* ctx) {
    // The client copies every session event to every registered watcher; the
    // session watcher reports those once.
    if (type == ZOO_SESSION_EVENT) return;
    auto* record = static_cast<WatchRecord*>(ctx);
    Session& session = record->m_session;
    std::shared_ptr<WatchContext> watch;
    std::unique_ptr<WatchRecord> freed;
    {
        std::lock_guard<std::mutex> lock(session.m_watchMtx);
        watch = std::move(record->m_ctx);
        if (record->m_busy) {
            record->m_fired = true;
        } else {
            freed = session.TakeWatchLocked(record);
        }
    }
    if (!watch) return;  // reported by its re-arm already
    session.m_conn.m_queue->Push(session.m_generation, false,
                                 [watch, type, state, text = String(path ? path : "")] {
                                     InvokeWatch(*watch, type, state, text);
                                 });
}

std::shared_ptr<Connection::WatchContext> ZooKeeperConnection::Settle(Session& session, WatchRecord* record, int rc,
                                                                     std::int64_t zxid) {
    std::shared_ptr<WatchContext> unused;
    if (record == nullptr) return unused;
    std::unique_ptr<WatchRecord> freed;
    std::lock_guard<std::mutex> lock(session.m_watchMtx);
    if (rc == ZOK) {
        record->m_state = WatchRecord::State::kArmed;
        record->m_zxid = zxid;
    } else {
        // The client registers the watch only when the read succeeds.
        unused = std::move(record->m_ctx);
        freed = session.TakeWatchLocked(record);
    }
    return unused;
}

// A request that dies with its session completes with ZCLOSING: its handle
// is being closed. The expiry itself reaches the observers as a session
// event, and a new session follows; the request is not the caller's error.
int ZooKeeperConnection::ResultCode(int rc) { return rc == ZSESSIONEXPIRED ? ZCLOSING : rc; }

void ZooKeeperConnection::OnClientData(int clientRc, const char* value, int len, const Stat* stat, const void* data) {
    std::unique_ptr<AsyncRequest> request(static_cast<AsyncRequest*>(const_cast<void*>(data)));
    Session& session = *request->m_session;
    session.m_outstanding.Remove(data);
    const int rc = ResultCode(clientRc);
    std::shared_ptr<WatchContext> unused = Settle(session, request->m_record, rc, stat != nullptr ? stat->mzxid : 0);
    String bytes = (rc == ZOK && value != nullptr && len > 0) ? String(value, static_cast<size_t>(len)) : String();
    const bool hasStat = rc == ZOK && stat != nullptr;
    const Stat copy = hasStat ? *stat : Stat{};
    session.m_conn.m_queue->Push(
        session.m_generation, true,
        [result = std::move(request->m_onData), unused = std::move(unused), rc, bytes = std::move(bytes), hasStat, copy]() mutable {
            result(rc, std::move(bytes), hasStat ? &copy : nullptr);
        });
}

void ZooKeeperConnection::OnClientChildren(int clientRc, const String_vector* strings, const Stat* stat,
                                           const void* data) {
    std::unique_ptr<AsyncRequest> request(static_cast<AsyncRequest*>(const_cast<void*>(data)));
    Session& session = *request->m_session;
    session.m_outstanding.Remove(data);
    const int rc = ResultCode(clientRc);
    std::shared_ptr<WatchContext> unused = Settle(session, request->m_record, rc, stat != nullptr ? stat->pzxid : 0);
    session.m_conn.m_queue->Push(
        session.m_generation, true,
        [result = std::move(request->m_onChildren), unused = std::move(unused), rc, names = ToNames(strings)]() mutable {
            result(rc, std::move(names));
        });
}

bool ZooKeeperConnection::WaitConnected(std::chrono::milliseconds deadline) const {
    std::unique_lock<std::mutex> lock(m_stateMtx);
    return m_stateCv.wait_for(lock, deadline, [this] { return State() == ZOO_CONNECTED_STATE; });
}

int ZooKeeperConnection::State() const {
    std::shared_lock<std::shared_mutex> lock(m_sessionMtx);
    return m_session ? zoo_state(m_session->m_zh) : ZOO_EXPIRED_SESSION_STATE;
}

std::int64_t ZooKeeperConnection::SessionId() const {
    std::shared_lock<std::shared_mutex> lock(m_sessionMtx);
    return m_session ? zoo_client_id(m_session->m_zh)->client_id : 0;
}

String ZooKeeperConnection::SessionPassword() const {
    std::shared_lock<std::shared_mutex> lock(m_sessionMtx);
    if (!m_session) return String();
    const clientid_t* id = zoo_client_id(m_session->m_zh);
    return String(id->passwd, sizeof(id->passwd));
}

size_t ZooKeeperConnection::PendingWatchCount() const { return m_pendingWatches.load(); }

template <typename Issue>
int ZooKeeperConnection::RunSync(const std::shared_ptr<SyncCall>& call, Issue&& issue) const {
    auto context = std::make_unique<std::shared_ptr<SyncCall>>(call);
    {
        std::shared_lock<std::shared_mutex> lock(m_sessionMtx);
        if (!m_session) return ZINVALIDSTATE;
        details::Outstanding& outstanding = m_session->m_outstanding;
        call->m_outstanding = &outstanding;
        const void* raw = context.get();
        outstanding.Add(raw, [](const void* context) { SyncVoidDone(ZCLOSING, context); });
        const int rc = issue(m_session->m_zh, raw);
        if (rc != ZOK) {  // the completion will never run
            outstanding.Remove(raw);
            return rc;
        }
    }
    context.release();  // owned by the completion now
    std::unique_lock<std::mutex> lock(call->m_mtx);
    if (!call->m_cv.wait_for(lock, m_options.sessionTimeout, [&] { return call->m_done; })) {
        return ZOPERATIONTIMEOUT;
    }
    return call->m_rc;
}

template <typename Issue>
std::pair<int, Connection::WatchHandle> ZooKeeperConnection::RunAsync(String path, bool child, WatchFunction watch,
                                                                      std::unique_ptr<AsyncRequest> request,
                                                                      Issue&& issue) const {
    // An empty watch function sets no watch at all.
    std::shared_ptr<WatchContext> ctx;
    if (watch) ctx = std::make_shared<WatchContext>(*this, std::move(watch));
    // Declared before the lock: a refused request's callbacks are destroyed
    // after it is released.
    std::unique_ptr<WatchRecord> refusedRecord;
    std::shared_lock<std::shared_mutex> lock(m_sessionMtx);
    if (!m_session) return {ZINVALIDSTATE, WatchHandle()};
    Session& session = *m_session;
    request->m_session = &session;
    if (ctx) request->m_record = session.AddWatch(ctx, path, child);
    WatchRecord* record = request->m_record;
    AsyncRequest* raw = request.release();
    session.m_outstanding.Add(raw, [](const void* context) {
        if (static_cast<const AsyncRequest*>(context)->m_onChildren) {
            OnClientChildren(ZCLOSING, nullptr, nullptr, context);
        } else {
            OnClientData(ZCLOSING, nullptr, 0, nullptr, context);
        }
    });
    const int rc = issue(session.m_zh, path.c_str(), record, raw);
    if (rc != ZOK) {
        // Neither the watcher nor the completion will ever be called.
        session.m_outstanding.Remove(raw);
        request.reset(raw);
        if (record) refusedRecord = session.TakeWatch(record);
        return {rc, WatchHandle()};
    }
    return {ZOK, ctx ? MakeWatchHandle(std::move(ctx)) : WatchHandle()};
}

std::pair<int, Connection::WatchHandle> ZooKeeperConnection::AsyncGet(String path, WatchFunction watch,
                                                                      DataResult result) const {
    auto request = std::make_unique<AsyncRequest>();
    request->m_onData = std::move(result);
    return RunAsync(std::move(path), false, std::move(watch), std::move(request),
                    [](zhandle_t* zh, const char* node, WatchRecord* record, AsyncRequest* context) {
                        if (record == nullptr) return zoo_aget(zh, node, 0, &OnClientData, context);
                        return zoo_awget(zh, node, &OnClientWatchEvent, record, &OnClientData, context);
                    });
}

std::pair<int, Connection::WatchHandle> ZooKeeperConnection::AsyncGetChildren(String path, WatchFunction watch,
                                                                              ChildrenResult result) const {
    auto request = std::make_unique<AsyncRequest>();
    request->m_onChildren = std::move(result);
    return RunAsync(std::move(path), true, std::move(watch), std::move(request),
                    [](zhandle_t* zh, const char* node, WatchRecord* record, AsyncRequest* context) {
                        if (record == nullptr) return zoo_aget_children2(zh, node, 0, &OnClientChildren, context);
                        return zoo_awget_children2(zh, node, &OnClientWatchEvent, record, &OnClientChildren,
                                                   context);
                    });
}

int ZooKeeperConnection::Get(String path, String& out, Stat* stat) const {
    auto call = std::make_shared<SyncCall>(out.size());
    const int rc = RunSync(call, [&](zhandle_t* zh, const void* ctx) {
        return zoo_aget(zh, path.c_str(), 0, &SyncDataDone, ctx);
    });
    out.clear();
    if (rc != ZOK) return rc;
    out.swap(call->m_data);
    if (stat) *stat = call->m_stat;
    return ZOK;
}

int ZooKeeperConnection::Create(String path, const String& data, const ACL_vector& acl, int flags) const {
    auto call = std::make_shared<SyncCall>();
    return RunSync(call, [&](zhandle_t* zh, const void* ctx) {
        return zoo_acreate(zh, path.c_str(), data.data(), static_cast<int>(data.size()), &acl, flags,
                           &SyncStringDone, ctx);
    });
}

int ZooKeeperConnection::Set(String path, const String& data, int version, Stat* stat) const {
    auto call = std::make_shared<SyncCall>();
    const int rc = RunSync(call, [&](zhandle_t* zh, const void* ctx) {
        return zoo_aset(zh, path.c_str(), data.data(), static_cast<int>(data.size()), version, &SyncStatDone,
                        ctx);
    });
    if (rc == ZOK && stat) *stat = call->m_stat;
    return rc;
}

int ZooKeeperConnection::Delete(String path, int version) const {
    auto call = std::make_shared<SyncCall>();
    return RunSync(call, [&](zhandle_t* zh, const void* ctx) {
        return zoo_adelete(zh, path.c_str(), version, &SyncVoidDone, ctx);
    });
}

int ZooKeeperConnection::Exists(String path, Stat* stat) const {
    auto call = std::make_shared<SyncCall>();
    const int rc = RunSync(call, [&](zhandle_t* zh, const void* ctx) {
        return zoo_aexists(zh, path.c_str(), 0, &SyncStatDone, ctx);
    });
    if (rc == ZOK && stat) *stat = call->m_stat;
    return rc;
}

int ZooKeeperConnection::GetChildren(String path, std::vector<String>& children) const {
    auto call = std::make_shared<SyncCall>();
    const int rc = RunSync(call, [&](zhandle_t* zh, const void* ctx) {
        return zoo_aget_children(zh, path.c_str(), 0, &SyncStringsDone, ctx);
    });
    children.clear();
    if (rc == ZOK) children.swap(call->m_children);
    return rc;
}

}  // namespace ferrow
}  // namespace jx
