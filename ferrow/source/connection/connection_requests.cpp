// Requests of a ZooKeeperConnection: synchronous calls and asynchronous reads
// with the watches they register.

#include "ferrow/zookeeper_connection.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <utility>

#include "connection/connection_session.h"
#include "connection/delivery_queue.h"
#include "ferrow/error.h"

namespace jx {
namespace ferrow {

namespace details {

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
    std::vector<AclEntry> m_acl;
};

}  // namespace details

namespace {

using details::SyncCall;

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

void SyncAclDone(int rc, ACL_vector* acl, Stat* stat, const void* data) {
    FinishSync(data, rc, [acl, stat](SyncCall& call) {
        if (stat != nullptr) call.m_stat = *stat;
        if (acl == nullptr) return;
        for (int i = 0; i < acl->count; ++i) {
            const ACL& entry = acl->data[i];
            call.m_acl.push_back(AclEntry{entry.id.scheme, entry.id.id, entry.perms});
        }
    });
}

std::vector<String> ToNames(const String_vector* strings) {
    std::vector<String> names;
    if (strings == nullptr) return names;
    names.reserve(static_cast<size_t>(strings->count));
    for (int i = 0; i < strings->count; ++i) names.emplace_back(strings->data[i]);
    return names;
}

}  // namespace

// A request that dies with its session completes with ZCLOSING: its handle
// is being closed. The expiry itself reaches the observers as a session
// event, and a new session follows; the request is not the caller's error.
int ZooKeeperConnection::ResultCode(int rc) { return rc == ZSESSIONEXPIRED ? ZCLOSING : rc; }

void ZooKeeperConnection::ReadAnswered(const AsyncRequest& request) {
    const auto roundTrip = std::chrono::steady_clock::now() - request.m_issuedAt;
    Session& session = *request.m_session;
    std::lock_guard<std::mutex> lock(session.m_readMtx);
    session.m_window.Answered(roundTrip, !session.m_waitingReads.empty());
}

void ZooKeeperConnection::OnClientData(int clientRc, const char* value, int len, const Stat* stat, const void* data) {
    Session& session = *static_cast<const AsyncRequest*>(data)->m_session;
    ReadAnswered(*static_cast<const AsyncRequest*>(data));
    DeliverData(clientRc, value, len, stat, data, true);
    IssueWaiting(session);
}

void ZooKeeperConnection::OnClientChildren(int clientRc, const String_vector* strings, const Stat* stat,
                                           const void* data) {
    Session& session = *static_cast<const AsyncRequest*>(data)->m_session;
    ReadAnswered(*static_cast<const AsyncRequest*>(data));
    DeliverChildren(clientRc, strings, stat, data, true);
    IssueWaiting(session);
}

template <typename Deliver>
void ZooKeeperConnection::QueueAnswer(std::unique_ptr<AsyncRequest> request, int rc, std::int64_t zxid, bool counted,
                                      Deliver deliver) {
    Session& session = *request->m_session;
    const bool watched = request->m_record != nullptr;
    std::weak_ptr<WatchContext> owner;
    // A read that failed registered no watch, and none of it is ever
    // delivered: a read that found no node is only answered so, as the
    // client answers it, and its owner decides what a missing node means.
    std::shared_ptr<WatchContext> unused = Settle(session, request->m_record, rc, zxid, owner);
    session.m_conn.CountResult(rc);
    // The connection is alive while an item runs (its destructor stops the
    // queue and joins the thread), but may be destroyed by the owner's
    // callback: the window learns of the delivery first.
    ZooKeeperConnection* conn = counted ? &session.m_conn : nullptr;
    session.m_conn.m_queue->Push(session.m_generation, true,
                                 [deliver = std::move(deliver), unused = std::move(unused), watched, owner, rc, conn,
                                  generation = session.m_generation]() mutable {
                                     if (conn) conn->ReadDelivered(generation);
                                     deliver(watched && owner.expired() ? ZCLOSING : rc);
                                 });
}

void ZooKeeperConnection::DeliverData(int clientRc, const char* value, int len, const Stat* stat, const void* data,
                                      bool counted) {
    std::unique_ptr<AsyncRequest> request(static_cast<AsyncRequest*>(const_cast<void*>(data)));
    request->m_session->m_outstanding.Remove(data);
    const int rc = ResultCode(clientRc);
    String bytes = (rc == ZOK && value != nullptr && len > 0) ? String(value, static_cast<size_t>(len)) : String();
    const bool hasStat = stat != nullptr;
    const Stat copy = hasStat ? *stat : Stat{};
    DataResult result = std::move(std::get<DataResult>(request->m_result));
    QueueAnswer(std::move(request), rc, hasStat ? stat->mzxid : 0, counted,
                [result = std::move(result), bytes = std::move(bytes), hasStat, copy](int answer) mutable {
                    const bool ok = answer == ZOK;
                    result(answer, ok ? std::move(bytes) : String(), ok && hasStat ? &copy : nullptr);
                });
}

void ZooKeeperConnection::DeliverChildren(int clientRc, const String_vector* strings, const Stat* stat,
                                          const void* data, bool counted) {
    std::unique_ptr<AsyncRequest> request(static_cast<AsyncRequest*>(const_cast<void*>(data)));
    request->m_session->m_outstanding.Remove(data);
    const int rc = ResultCode(clientRc);
    ChildrenResult result = std::move(std::get<ChildrenResult>(request->m_result));
    QueueAnswer(std::move(request), rc, stat != nullptr ? stat->pzxid : 0, counted,
                [result = std::move(result), names = rc == ZOK ? ToNames(strings) : std::vector<String>()](int answer) mutable {
                    result(answer, answer == ZOK ? std::move(names) : std::vector<String>());
                });
}

template <typename Issue>
int ZooKeeperConnection::RunSync(const std::shared_ptr<SyncCall>& call, Issue&& issue) const {
    auto context = std::make_unique<std::shared_ptr<SyncCall>>(call);
    {
        std::shared_lock<std::shared_mutex> lock(m_sessionMtx);
        if (!m_session) {
            CountResult(ZINVALIDSTATE);
            return ZINVALIDSTATE;
        }
        details::Outstanding& outstanding = m_session->m_outstanding;
        call->m_outstanding = &outstanding;
        const void* raw = context.get();
        outstanding.Add(raw, [](const void* context) { SyncVoidDone(ZCLOSING, context); });
        const int rc = issue(m_session->m_zh, raw);
        if (rc != ZOK) {  // the completion will never run
            outstanding.Remove(raw);
            CountResult(rc);
            return rc;
        }
    }
    context.release();  // owned by the completion now
    m_syncInFlight.fetch_add(1, std::memory_order_relaxed);
    const std::unique_ptr<std::atomic<std::size_t>, void (*)(std::atomic<std::size_t>*)> answered(
        &m_syncInFlight, [](std::atomic<std::size_t>* count) { count->fetch_sub(1, std::memory_order_relaxed); });
    std::unique_lock<std::mutex> lock(call->m_mtx);
    const int rc = call->m_cv.wait_for(lock, m_options.sessionTimeout, [&] { return call->m_done; })
                       ? call->m_rc
                       : ZOPERATIONTIMEOUT;
    CountResult(rc);
    return rc;
}

int ZooKeeperConnection::IssueRead(zhandle_t* zh, const char* path, AsyncRequest* request) {
    WatchRecord* record = request->m_record;
    request->m_issuedAt = std::chrono::steady_clock::now();
    int rc = ZOK;
    if (std::holds_alternative<ChildrenResult>(request->m_result)) {
        rc = record ? zoo_awget_children2(zh, path, &OnClientWatchEvent, record, &OnClientChildren, request)
                    : zoo_aget_children2(zh, path, 0, &OnClientChildren, request);
    } else {
        rc = record ? zoo_awget(zh, path, &OnClientWatchEvent, record, &OnClientData, request)
                    : zoo_aget(zh, path, 0, &OnClientData, request);
    }
    if (rc == ZOK) request->m_session->m_conn.m_readsIssued.fetch_add(1, std::memory_order_relaxed);
    return rc;
}

void ZooKeeperConnection::FailRead(const void* data, int rc) {
    if (std::holds_alternative<ChildrenResult>(static_cast<const AsyncRequest*>(data)->m_result)) {
        DeliverChildren(rc, nullptr, nullptr, data, false);
    } else {
        DeliverData(rc, nullptr, 0, nullptr, data, false);
    }
}

void ZooKeeperConnection::IssueWaiting(Session& session) {
    // Refused by the client, or abandoned by their owners: completed below
    // as if the client had answered so, in order, after the lock.
    std::vector<std::pair<AsyncRequest*, int>> finished;
    {
        std::lock_guard<std::mutex> lock(session.m_readMtx);
        if (session.m_closing) return;
        std::deque<AsyncRequest*>& waiting = session.m_waitingReads;
        if (session.m_sweepWaiting.exchange(false)) {
            // Reads whose handle let go are never sent: the server would
            // answer a read and then be asked to forget its watch, for an
            // answer nobody wants.
            const auto kept = std::stable_partition(waiting.begin(), waiting.end(),
                                                    [](const AsyncRequest* request) { return !request->Abandoned(); });
            for (auto it = kept; it != waiting.end(); ++it) finished.emplace_back(*it, ZCLOSING);
            waiting.erase(kept, waiting.end());
        }
        if (session.m_window.MayRefill(waiting.size())) {
            while (!waiting.empty() && session.m_window.MayIssue()) {
                AsyncRequest* next = waiting.front();
                waiting.pop_front();
                if (next->Abandoned()) {
                    finished.emplace_back(next, ZCLOSING);
                    continue;
                }
                const int rc = IssueRead(session.m_zh, next->m_path.c_str(), next);
                if (rc == ZOK) {
                    session.m_window.Issued();
                } else {
                    // Accepted earlier, refused now: the session is over
                    // (expired or closing), and the read dies with it.
                    finished.emplace_back(next, rc == ZINVALIDSTATE ? ZCLOSING : rc);
                }
            }
        }
    }
    for (const auto& [request, rc] : finished) FailRead(request, rc);
}

std::pair<int, Connection::WatchHandle> ZooKeeperConnection::RunAsync(String path, bool child, WatchFunction watch,
                                                                      std::unique_ptr<AsyncRequest> request) const {
    // An empty watch function sets no watch at all.
    std::shared_ptr<WatchContext> ctx;
    if (watch) ctx = std::make_shared<WatchContext>(*this, std::move(watch));
    // Declared before the lock: a refused request's callbacks and the
    // handle's share are released after it, the share's release taking
    // the lock itself.
    std::shared_ptr<WatchContext> share;
    std::unique_ptr<WatchRecord> refusedRecord;
    std::shared_lock<std::shared_mutex> lock(m_sessionMtx);
    if (!m_session) {
        CountResult(ZINVALIDSTATE);
        return {ZINVALIDSTATE, WatchHandle()};
    }
    Session& session = *m_session;
    request->m_session = &session;
    if (ctx) {
        request->m_record = session.AddWatch(ctx, path, child);
        // Before the read is issued: its answer may come at once.
        share = OwnerShare(session, request->m_record, std::move(ctx));
    }
    WatchRecord* record = request->m_record;
    AsyncRequest* raw = request.release();
    // Left over once the handle is closed, handed to the client or waiting:
    // completed without issuing anything further.
    session.m_outstanding.Add(raw, [](const void* context) { FailRead(context, ZCLOSING); });
    int rc = ZOK;
    {
        // Issued now only when no read waits: the client answers in the order
        // it is given requests, and the waiting ones were asked for first.
        std::lock_guard<std::mutex> readLock(session.m_readMtx);
        if (session.m_waitingReads.empty() && session.m_window.MayIssue()) {
            rc = IssueRead(session.m_zh, path.c_str(), raw);
            if (rc == ZOK) session.m_window.Issued();
        } else {
            raw->m_path = std::move(path);
            session.m_waitingReads.push_back(raw);
        }
    }
    if (rc != ZOK) {
        // Neither the watcher nor the completion will ever be called.
        session.m_outstanding.Remove(raw);
        request.reset(raw);
        if (record) refusedRecord = session.TakeWatch(record);
        CountResult(rc);
        return {rc, WatchHandle()};
    }
    return {ZOK, share ? MakeWatchHandle(std::move(share)) : WatchHandle()};
}

ZooKeeperConnection::ReadCounts ZooKeeperConnection::Reads() const {
    ReadCounts counts;
    counts.issued = m_readsIssued.load(std::memory_order_relaxed);
    std::shared_lock<std::shared_mutex> sessionLock(m_sessionMtx);
    if (!m_session) return counts;
    std::lock_guard<std::mutex> lock(m_session->m_readMtx);
    const details::ReadWindow& window = m_session->m_window;
    counts.onWire = window.OnWire();
    counts.answersWaiting = window.AnswersWaiting();
    counts.waiting = m_session->m_waitingReads.size();
    counts.window = window.Window();
    return counts;
}

std::pair<int, Connection::WatchHandle> ZooKeeperConnection::AsyncGet(String path, WatchFunction watch,
                                                                      DataResult result) const {
    auto request = std::make_unique<AsyncRequest>();
    request->m_result.emplace<DataResult>(std::move(result));
    return RunAsync(std::move(path), false, std::move(watch), std::move(request));
}

std::pair<int, Connection::WatchHandle> ZooKeeperConnection::AsyncGetChildren(String path, WatchFunction watch,
                                                                              ChildrenResult result) const {
    auto request = std::make_unique<AsyncRequest>();
    request->m_result.emplace<ChildrenResult>(std::move(result));
    return RunAsync(std::move(path), true, std::move(watch), std::move(request));
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

int ZooKeeperConnection::GetAcl(String path, std::vector<AclEntry>& acl, Stat* stat) const {
    auto call = std::make_shared<SyncCall>();
    const int rc = RunSync(call, [&](zhandle_t* zh, const void* ctx) {
        return zoo_aget_acl(zh, path.c_str(), &SyncAclDone, ctx);
    });
    acl.clear();
    if (rc == ZOK) acl.swap(call->m_acl);
    if (rc == ZOK && stat != nullptr) *stat = call->m_stat;
    return rc;
}

namespace {

// The client's form of `acl`, pointing into it: valid while `acl` lives
// unchanged. The client copies a list into its request before returning.
std::vector<ACL> ClientAcl(const std::vector<AclEntry>& acl) {
    std::vector<ACL> entries;
    for (const AclEntry& entry : acl) {
        entries.push_back(
            ACL{entry.perms, Id{const_cast<char*>(entry.scheme.c_str()), const_cast<char*>(entry.id.c_str())}});
    }
    return entries;
}

}  // namespace

int ZooKeeperConnection::Create(String path, const String& data, const std::vector<AclEntry>& acl, int flags) const {
    std::vector<ACL> entries = ClientAcl(acl);
    const ACL_vector list{static_cast<std::int32_t>(entries.size()), entries.data()};
    return Create(std::move(path), data, list, flags);
}

int ZooKeeperConnection::SetAcl(String path, const std::vector<AclEntry>& acl, int version) const {
    std::vector<ACL> entries = ClientAcl(acl);
    ACL_vector list{static_cast<std::int32_t>(entries.size()), entries.data()};
    auto call = std::make_shared<SyncCall>();
    return RunSync(call, [&](zhandle_t* zh, const void* ctx) {
        return zoo_aset_acl(zh, path.c_str(), version, &list, &SyncVoidDone, ctx);
    });
}

}  // namespace ferrow
}  // namespace jx
