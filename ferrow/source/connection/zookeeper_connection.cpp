#include "ferrow/zookeeper_connection.h"

#include <cerrno>
#include <cstdio>
#include <utility>

#include "connection/connection_session.h"
#include "connection/delivery_queue.h"
#include "metrics/metrics_registry.h"
#include "ferrow/error.h"
#include "logger/logger.h"

namespace jx {
namespace ferrow {

namespace {

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

// Numbers the connections of the process for their metrics.
std::uint64_t NextNumber() {
    static std::atomic<std::uint64_t> last{0};
    return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace

std::shared_ptr<ZooKeeperConnection> ZooKeeperConnection::Open(ConnectionOptions options) {
    ConfigureClientLogging();
    std::shared_ptr<ZooKeeperConnection> conn(new ZooKeeperConnection(std::move(options)));
    conn->m_self = conn;
    conn->m_deliveryThread = std::thread(&details::DeliveryQueue::Run, conn->m_queue);
    conn->m_sessionThread = std::thread(&ZooKeeperConnection::RunSessionThread, conn.get());
    const int rc = conn->OpenSession();
    if (rc != ZOK) throw ZooError(rc);
    conn->m_metrics = std::make_unique<details::MetricsSource>([self = conn.get()](Metrics& metrics) {
        ConnectionMetrics figures;
        figures.connection = self->m_number;
        const int state = self->State();
        figures.connected = state == ZOO_CONNECTED_STATE;
        const int reported = self->m_lastSessionState.load(std::memory_order_relaxed);
        if (figures.connected) {
            figures.state = "connected";
        } else if (reported == ZOO_AUTH_FAILED_STATE || state == ZOO_AUTH_FAILED_STATE) {
            figures.state = "auth_failed";
        } else if (reported == ZOO_EXPIRED_SESSION_STATE || state == ZOO_EXPIRED_SESSION_STATE) {
            figures.state = "expired";
        } else {
            figures.state = "connecting";
        }
        const std::int64_t since = self->m_disconnectedSince.load(std::memory_order_relaxed);
        if (!figures.connected && since != 0) {
            figures.disconnectedFor = std::chrono::steady_clock::now() -
                                      std::chrono::steady_clock::time_point(std::chrono::steady_clock::duration(since));
        }
        for (std::size_t code = 1; code < self->m_errorCounts.size(); ++code) {
            const std::uint64_t count = self->m_errorCounts[code].load(std::memory_order_relaxed);
            if (count != 0) figures.errors[-static_cast<int>(code)] = count;
        }
        figures.callbackExceptions = self->m_queue->m_exceptions.load(std::memory_order_relaxed);
        figures.sessionId = self->SessionId();
        figures.sessionsOpened = self->m_sessionsOpened.load(std::memory_order_relaxed);
        figures.sessionExpiries = self->m_sessionExpiries.load(std::memory_order_relaxed);
        figures.reconnections = self->m_reconnections.load(std::memory_order_relaxed);
        const ReadCounts reads = self->Reads();
        figures.readsInFlight = reads.onWire + reads.answersWaiting;
        figures.readsWaiting = reads.waiting;
        figures.syncRequestsInFlight = self->m_syncInFlight.load(std::memory_order_relaxed);
        figures.watches = self->PendingWatchCount();
        figures.watchesRegistered = self->m_watchesRegistered.load(std::memory_order_relaxed);
        figures.watchesWithdrawn = self->m_watchesWithdrawn.load(std::memory_order_relaxed);
        metrics.connections.push_back(figures);
    });
    return conn;
}

ZooKeeperConnection::ZooKeeperConnection(ConnectionOptions options)
    : m_options(std::move(options)), m_queue(std::make_shared<details::DeliveryQueue>()), m_number(NextNumber()) {}

ZooKeeperConnection::~ZooKeeperConnection() {
    if (m_metrics) m_metrics->Close();
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
    const std::uint64_t generation = session->m_generation;
    // Events of the new session are queued from now on; their delivery waits
    // until the session is published (DeliverSessionEvent), so that an
    // observer answering its first event finds it usable. No lock is held
    // meanwhile: the client resolves the server names here, which may take
    // as long as DNS does, and requests, State() and handles must not wait
    // for that.
    m_queue->SetGeneration(generation);
    errno = 0;
    session->m_zh = zookeeper_init2(m_options.connect.c_str(), &OnClientSessionEvent,
                                    static_cast<int>(m_options.sessionTimeout.count()), nullptr,
                                    session.get(), 0, &LogClientLine);
    // EINVAL: a malformed connect string; otherwise, as a rule, no server
    // name resolved.
    if (session->m_zh == nullptr) return errno == EINVAL ? ZBADARGUMENTS : ZSYSTEMERROR;
    // By default the client resolves the server names again on every poll of
    // its socket, which costs more CPU than reading the data; resolving only
    // after a connection loss still follows DNS changes where they matter.
    zoo_set_servers_resolution_delay(session->m_zh, -1);
    if (!m_options.digestAuth.empty()) {
        // Before any request can be issued: the session is not published yet.
        const int rc = AddCredentials(session->m_zh);
        if (rc != ZOK) {
            session->m_authPending = true;
            JXLOG(logging::JXLOG_INFO, g_log) << "Digest credentials wait for the first connection: " << zerror(rc);
        }
    }
    {
        std::unique_lock<std::shared_mutex> lock(m_sessionMtx);
        m_session = std::move(session);
        m_publishedGeneration = generation;
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
    {
        std::lock_guard<std::mutex> lock(session->m_readMtx);
        session->m_closing = true;
        session->m_waitingReads.clear();  // still in m_outstanding
    }
    zookeeper_close(session->m_zh);
    // Requests the client dropped unanswered complete with ZCLOSING, as the
    // ones it answered during the close did.
    session->m_outstanding.AbandonAll();
    // The client has stopped: what is left in the registry will never be
    // delivered. Released on the delivery thread, as a no-op delivery, for
    // the contexts may hold the last reference to this connection; destroyed
    // here instead when the queue is stopped (this object is being destroyed).
    auto left = std::make_shared<std::unordered_map<WatchRecord*, std::unique_ptr<WatchRecord>>>(session->TakeAll());
    if (!left->empty()) m_queue->Push(0, true, [left] {});
}

void ZooKeeperConnection::RunSessionThread() {
    std::unique_lock<std::mutex> lock(m_renewMtx);
    for (;;) {
        m_renewCv.wait(lock, [this] {
            return m_stopping || m_renewGeneration != 0 || m_maintainGeneration != 0 || m_issueGeneration != 0;
        });
        if (m_stopping) return;
        const std::uint64_t expired = std::exchange(m_renewGeneration, 0);
        const std::uint64_t maintain = std::exchange(m_maintainGeneration, 0);
        const std::uint64_t issue = std::exchange(m_issueGeneration, 0);
        lock.unlock();

        // Only this thread replaces m_session (the destructor joins it
        // first), so the session stays valid here without the lock.
        Session* current = nullptr;
        {
            std::shared_lock<std::shared_mutex> sessionLock(m_sessionMtx);
            current = m_session.get();
        }
        // First the reads, which take a moment, then the watches, which may
        // take many.
        if (current && current->m_generation == issue) IssueWaiting(*current);
        if (expired == 0) {
            if (current && current->m_generation == maintain) MaintainWatches(*current);
            lock.lock();
            continue;
        }

        if (std::unique_ptr<Session> old = TakeSession(expired)) {
            CloseSession(std::move(old));
            JXLOG(logging::JXLOG_INFO, g_log) << "Session expired, opening a new one";
            for (int rc; (rc = OpenSession()) != ZOK;) {
                JXLOG(logging::JXLOG_ERROR, g_log) << "Cannot start a session with " << m_options.connect << ": "
                                                   << zerror(rc) << "; trying again in a second";
                lock.lock();
                if (m_renewCv.wait_for(lock, std::chrono::seconds(1), [this] { return m_stopping; })) return;
                lock.unlock();
            }
        }
        lock.lock();
    }
}

void ZooKeeperConnection::AskSessionThread(std::uint64_t ZooKeeperConnection::*request, std::uint64_t generation) {
    {
        std::lock_guard<std::mutex> lock(m_renewMtx);
        this->*request = generation;
    }
    m_renewCv.notify_all();
}

void ZooKeeperConnection::RequestRenewal(std::uint64_t generation) {
    AskSessionThread(&ZooKeeperConnection::m_renewGeneration, generation);
}

void ZooKeeperConnection::RequestMaintenance(std::uint64_t generation) {
    AskSessionThread(&ZooKeeperConnection::m_maintainGeneration, generation);
}

void ZooKeeperConnection::RequestIssue(std::uint64_t generation) {
    AskSessionThread(&ZooKeeperConnection::m_issueGeneration, generation);
}

void ZooKeeperConnection::ReadDelivered(std::uint64_t generation) {
    bool resume = false;
    {
        std::shared_lock<std::shared_mutex> sessionLock(m_sessionMtx);
        // The window of a closed session went with it.
        if (!m_session || m_session->m_generation != generation) return;
        std::lock_guard<std::mutex> lock(m_session->m_readMtx);
        resume = m_session->m_window.Delivered();
    }
    if (resume) RequestIssue(generation);
}

void ZooKeeperConnection::DeliverSessionEvent(std::uint64_t generation, int type, int state,
                                              const String& path) {
    {
        // The client may report the session before OpenSession has published
        // it; publication follows at once.
        std::unique_lock<std::mutex> lock(m_stateMtx);
        m_stateCv.wait(lock, [&] { return m_publishedGeneration.load() >= generation; });
    }
    // Refused credentials end the session for good: a new one would carry
    // the same credentials, so none is opened.
    if (state == ZOO_AUTH_FAILED_STATE) {
        JXLOG(logging::JXLOG_ERROR, g_log) << "The server rejected the session's credentials; no new session is "
                                              "opened: "
                                           << m_options.connect;
    }
    if (type == ZOO_SESSION_EVENT) CountSessionEvent(generation, state);
    if (details::RunGuarded([&] { NotifyObservers(&ConnectionObserver::OnSessionEvent, type, state, path); })) {
        m_queue->m_exceptions.fetch_add(1, std::memory_order_relaxed);
    }
    if (state == ZOO_EXPIRED_SESSION_STATE) RequestRenewal(generation);
}

void ZooKeeperConnection::CountSessionEvent(std::uint64_t generation, int state) {
    if (state == ZOO_CONNECTED_STATE) {
        m_disconnectedSince.store(0, std::memory_order_relaxed);
    } else {
        // Only the first event after a connected one marks the loss.
        std::int64_t connected = 0;
        m_disconnectedSince.compare_exchange_strong(
            connected, std::chrono::steady_clock::now().time_since_epoch().count(), std::memory_order_relaxed);
    }
    m_lastSessionState.store(state, std::memory_order_relaxed);
    if (state == ZOO_EXPIRED_SESSION_STATE) {
        m_sessionExpiries.fetch_add(1, std::memory_order_relaxed);
    } else if (state == ZOO_CONNECTED_STATE && generation != m_connectedGeneration) {
        m_connectedGeneration = generation;
        m_sessionsOpened.fetch_add(1, std::memory_order_relaxed);
    } else if (state == ZOO_CONNECTED_STATE) {
        m_reconnections.fetch_add(1, std::memory_order_relaxed);
    }
}

void ZooKeeperConnection::OnClientSessionEvent(zhandle_t* zh, int type, int state, const char* path, void* ctx) {
    Session& session = *static_cast<Session*>(ctx);
    ZooKeeperConnection& conn = session.m_conn;
    // Before anyone learns of the connection: the credentials are sent
    // ahead of every request issued afterwards.
    // The flag is cleared only once the credentials are queued: until then
    // State() does not say connected, and nothing the caller issues after
    // it does can overtake them. Only this thread clears it.
    if (type == ZOO_SESSION_EVENT && state == ZOO_CONNECTED_STATE && session.m_authPending.load()) {
        const int rc = conn.AddCredentials(zh);
        if (rc != ZOK) JXLOG(logging::JXLOG_ERROR, g_log) << "Cannot add digest credentials: " << zerror(rc);
        session.m_authPending = false;
    }
    conn.NotifyStateWaiters();
    if (type != ZOO_SESSION_EVENT) return;
    const std::uint64_t generation = session.m_generation;
    session.m_lastState = state;
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

bool ZooKeeperConnection::WaitConnected(std::chrono::milliseconds deadline) const {
    std::unique_lock<std::mutex> lock(m_stateMtx);
    return m_stateCv.wait_for(lock, deadline, [this] { return State() == ZOO_CONNECTED_STATE; });
}

int ZooKeeperConnection::AddCredentials(zhandle_t* zh) const {
    const String& credentials = m_options.digestAuth;
    return zoo_add_auth(zh, "digest", credentials.data(), static_cast<int>(credentials.size()), nullptr, nullptr);
}

bool ZooKeeperConnection::HasCredentials() const { return !m_options.digestAuth.empty(); }

void ZooKeeperConnection::Post(std::function<void()> task) const { m_queue->Push(0, true, std::move(task)); }

bool ZooKeeperConnection::IsDeliveryThread() const { return m_deliveryThread.get_id() == std::this_thread::get_id(); }

int ZooKeeperConnection::State() const {
    std::shared_lock<std::shared_mutex> lock(m_sessionMtx);
    if (!m_session) return ZOO_EXPIRED_SESSION_STATE;
    // Connected without its credentials yet: not connected for the caller.
    const int state = zoo_state(m_session->m_zh);
    return state == ZOO_CONNECTED_STATE && m_session->m_authPending ? ZOO_CONNECTING_STATE : state;
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

}  // namespace ferrow
}  // namespace jx
