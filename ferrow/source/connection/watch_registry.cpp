// The watches of a ZooKeeperConnection: the registry of each session, the
// withdrawal of cancelled watches, and the re-arming around reconnections.

#include "ferrow/zookeeper_connection.h"

#include <functional>
#include <shared_mutex>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "connection/connection_session.h"
#include "connection/delivery_queue.h"
#include "logger/logger.h"

namespace jx {
namespace ferrow {

namespace {

const logging::ConstSourcePtr g_log = logging::MakeSource("ferrow.connection");

// What one watch adds to the request that re-registers the watches after a
// reconnection: its path and the path's length field.
size_t ResetRequestBytes(std::string_view path) { return path.size() + 4; }

// A watched node and kind, by a hash of both: a collision only makes a
// withdrawal stay local, leaving the server one watch until it fires.
std::size_t NodeKey(std::string_view path, bool child) {
    return std::hash<std::string_view>{}(path) * 2 + (child ? 1 : 0);
}

ZooWatcherType WatcherType(bool child) { return child ? ZWATCHTYPE_CHILD : ZWATCHTYPE_DATA; }

// zoo_aremove_all_watches declares its completion as a pointer to a
// completion function but stores and calls the pointer it is given as the
// function itself.
void_completion_t* AsDeclared(void_completion_t completion) { return reinterpret_cast<void_completion_t*>(completion); }

}  // namespace

ZooKeeperConnection::WatchRecord* ZooKeeperConnection::Session::AddWatch(std::shared_ptr<WatchContext> ctx,
                                                                         std::string_view path, bool child) {
    std::unique_ptr<WatchRecord> record = WatchRecord::Make(*this, std::move(ctx), path, child);
    WatchRecord* raw = record.get();
    {
        std::lock_guard<std::mutex> lock(m_watchMtx);
        m_resetBytes += ResetRequestBytes(raw->PathView());
        m_watches.emplace(raw, std::move(record));
    }
    ++m_conn.m_pendingWatches;
    m_conn.m_watchesRegistered.fetch_add(1, std::memory_order_relaxed);
    return raw;
}

std::unique_ptr<ZooKeeperConnection::WatchRecord> ZooKeeperConnection::Session::TakeWatch(WatchRecord* record) {
    std::lock_guard<std::mutex> lock(m_watchMtx);
    return TakeWatchLocked(record);
}

std::unique_ptr<ZooKeeperConnection::WatchRecord> ZooKeeperConnection::Session::TakeWatchLocked(WatchRecord* record) {
    std::unique_ptr<WatchRecord> taken;
    auto it = m_watches.find(record);
    if (it == m_watches.end()) return taken;
    taken = std::move(it->second);
    m_watches.erase(it);
    m_resetBytes -= ResetRequestBytes(taken->PathView());
    --m_conn.m_pendingWatches;
    return taken;
}

std::unordered_map<ZooKeeperConnection::WatchRecord*, std::unique_ptr<ZooKeeperConnection::WatchRecord>>
ZooKeeperConnection::Session::TakeAll() {
    std::unordered_map<WatchRecord*, std::unique_ptr<WatchRecord>> all;
    {
        std::lock_guard<std::mutex> lock(m_watchMtx);
        all.swap(m_watches);
        m_resetBytes = 0;
    }
    m_conn.m_pendingWatches -= all.size();
    return all;
}

std::shared_ptr<Connection::WatchContext> ZooKeeperConnection::OwnerShare(const Session& session, WatchRecord* record,
                                                                           std::shared_ptr<WatchContext> ctx) const {
    // When the handle lets go of the context, cancelled or only released by
    // a move assignment, nobody can want the watch any more, and the record
    // is withdrawn. A watch released without being cancelled would otherwise
    // stay with the client and the server until it fired, and be delivered
    // to an owner that has armed its successor already: one change reported
    // twice. Runs on whatever thread lets the handle go, never waits for a
    // server, and does nothing once the connection is gone. The context is
    // released here too, not with the last weak reference to this share,
    // which a client thread may hold.
    WatchContext* raw = ctx.get();
    auto release = [ctx = std::move(ctx), self = m_self, generation = session.m_generation, record](WatchContext*) mutable {
        if (const std::shared_ptr<ZooKeeperConnection> conn = self.lock()) conn->WithdrawWatch(generation, record, ctx.get());
        ctx.reset();
    };
    std::shared_ptr<WatchContext> share(raw, std::move(release));
    record->m_owner = share;
    return share;
}

void ZooKeeperConnection::WithdrawWatch(std::uint64_t generation, WatchRecord* record, const WatchContext* ctx) {
    // Both released after the locks.
    std::shared_ptr<WatchContext> dropped;
    std::unique_ptr<WatchRecord> freed;
    bool withdraw = false;
    bool sweep = false;
    {
        std::shared_lock<std::shared_mutex> sessionLock(m_sessionMtx);
        // The records of a closed session were freed with it.
        if (!m_session || m_session->m_generation != generation) return;
        Session& session = *m_session;
        std::lock_guard<std::mutex> lock(session.m_watchMtx);
        // The address may be a newer record's by now; the context, which the
        // caller still holds, cannot be. A record without it is done already.
        if (session.m_watches.count(record) == 0 || record->m_ctx.get() != ctx) return;
        dropped = std::move(record->m_ctx);
        m_watchesWithdrawn.fetch_add(1, std::memory_order_relaxed);
        // The client holds an armed record: the session thread withdraws it.
        // One in flight is settled by its read's completion; one taken out
        // is not in the client at all.
        withdraw = record->m_state == WatchRecord::State::kArmed && !record->m_busy;
        if (record->m_state == WatchRecord::State::kTakenOut) freed = session.TakeWatchLocked(record);
        // Its read may not have been sent yet: then it never is.
        sweep = record->m_state == WatchRecord::State::kReading;
        if (sweep) session.m_sweepWaiting = true;
    }
    if (withdraw) RequestMaintenance(generation);
    if (sweep) RequestIssue(generation);
}

void ZooKeeperConnection::MaintainWatches(Session& session) {
    using State = WatchRecord::State;
    // By the client's latest session event, not by zoo_state: the client
    // reports a lost connection before its own state says so, and a take-out
    // decided on a stale "connected" would never be asked for again.
    const auto reconnecting = [&session] { return session.m_lastState.load() == ZOO_CONNECTING_STATE; };
    const bool connected = session.m_lastState.load() == ZOO_CONNECTED_STATE && zoo_state(session.m_zh) == ZOO_CONNECTED_STATE;
    const bool disconnected = reconnecting();
    std::vector<WatchRecord*> takeOut;
    std::vector<WatchRecord*> rearm;
    size_t bytes = 0;
    {
        std::lock_guard<std::mutex> lock(session.m_watchMtx);
        bytes = session.m_resetBytes;
        if (disconnected && bytes > m_options.resetRequestLimit) {
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
                    // Cancelled, or reported by its re-arm already: withdrawn.
                    record->m_busy = true;
                    takeOut.push_back(record);
                }
            }
        }
    }
    if (disconnected) {
        // Stops as soon as the client reconnects: what it still holds then
        // went out in its reset request.
        const size_t takenOut = Unregister(session, takeOut, reconnecting);
        if (takenOut == 0) return;
        JXLOG(logging::JXLOG_INFO, g_log) << "Connection lost while watching " << takenOut
                                          << " nodes (reset request of about " << bytes
                                          << " bytes): the watches are armed again one by one after reconnecting";
        return;
    }
    for (WatchRecord* record : rearm) Rearm(session, record);
    Withdraw(session, takeOut);
}

template <typename Allowed>
size_t ZooKeeperConnection::Unregister(Session& session, const std::vector<WatchRecord*>& records, Allowed&& allowed) {
    size_t unregistered = 0;
    for (WatchRecord* record : records) {
        // From the client alone: while reconnecting, the server has already
        // forgotten the lost connection's watches; while connected, the
        // caller keeps the server's watch for another record.
        const int rc = allowed() ? zoo_remove_watches(session.m_zh, record->Path(), WatcherType(record->m_child),
                                                      &OnClientWatchEvent, record, 1)
                                 : ZINVALIDSTATE;
        // Freed records hold no context: their event took it. ZNOWATCHER
        // means the client holds no watch for the record: either it has
        // collected an event for it and will still call OnClientWatchEvent
        // with it, or a removal of every watch of the node took it, when
        // nothing will. A record still wanted keeps waiting for its event;
        // one let go is forgotten after a round trip, which any event
        // collected before it precedes.
        std::unique_ptr<WatchRecord> freed;
        bool forget = false;
        {
            std::lock_guard<std::mutex> lock(session.m_watchMtx);
            record->m_busy = false;
            if (record->m_fired || (rc == ZOK && !record->m_ctx)) {
                freed = session.TakeWatchLocked(record);
            } else if (rc == ZOK) {
                record->m_state = WatchRecord::State::kTakenOut;
            } else if (rc == ZNOWATCHER && !record->m_ctx) {
                record->m_busy = true;
                forget = true;
            }
        }
        if (forget) Forget(session, record);
        unregistered += rc == ZOK;
    }
    return unregistered;
}

void ZooKeeperConnection::Forget(Session& session, WatchRecord* record) {
    // An unwatched existence check of the node: its answer is delivered
    // after every event the client had collected when it was sent.
    if (zoo_aexists(session.m_zh, record->Path(), 0, &OnForgotten, record) == ZOK) return;
    // Not sent (the session is ending or the client refused): the record
    // stays, idle, and the next withdrawal of unwanted records tries again.
    std::unique_ptr<WatchRecord> freed;
    std::lock_guard<std::mutex> lock(session.m_watchMtx);
    record->m_busy = false;
    if (record->m_fired) freed = session.TakeWatchLocked(record);
}

void ZooKeeperConnection::OnForgotten(int, const Stat*, const void* data) {
    // Whatever the answer: the client holds no watch for the record, and
    // an event collected for it was delivered before this (marking it
    // fired, as it was busy). Nothing can reach it any more.
    auto* record = static_cast<WatchRecord*>(const_cast<void*>(data));
    Session& session = record->m_session;
    std::unique_ptr<WatchRecord> freed;
    std::lock_guard<std::mutex> lock(session.m_watchMtx);
    freed = session.TakeWatchLocked(record);
}

void ZooKeeperConnection::Withdraw(Session& session, const std::vector<WatchRecord*>& records) {
    // The server keeps one watch per node and kind for every record of the
    // session: only the last record of a node asks the server to drop it.
    // Of several in this batch, the others go first, from the client alone.
    // By node and kind: the batch's last record there, and how many records
    // of the session watch it so.
    std::unordered_map<std::size_t, std::pair<WatchRecord*, std::uint32_t>> lastOfNode;
    std::vector<WatchRecord*> local;
    for (WatchRecord* record : records) {
        WatchRecord*& last = lastOfNode[NodeKey(record->PathView(), record->m_child)].first;
        if (last != nullptr) local.push_back(last);
        last = record;
    }
    Unregister(session, local, [] { return true; });
    local.clear();
    {
        // Issued under the lock, so that no read can register the node again
        // between the count and the request: the server answers in order,
        // and the client registers a read's watch only when its answer comes.
        std::lock_guard<std::mutex> lock(session.m_watchMtx);
        // Counted now rather than kept per watch: withdrawals come in batches
        // (a watcher stopping, a session's leftovers), and a count kept per
        // watch would cost every watch a map entry. Only records still wanted
        // share the server's watch, with the record withdrawn here: another
        // one let go is a read never sent, which registers nothing, or one
        // whose answer or removal in flight deals with the server itself.
        for (const auto& entry : session.m_watches) {
            const auto node = lastOfNode.find(NodeKey(entry.first->PathView(), entry.first->m_child));
            if (node != lastOfNode.end() && (entry.first->m_ctx || entry.first == node->second.first)) ++node->second.second;
        }
        for (const auto& [key, node] : lastOfNode) {
            const auto [record, sharers] = node;
            if (sharers != 1 || zoo_aremove_all_watches(session.m_zh, record->Path(), WatcherType(record->m_child),
                                                        0, AsDeclared(&OnWithdrawn), record) != ZOK) {
                local.push_back(record);
            }
        }
    }
    Unregister(session, local, [] { return true; });
}

void ZooKeeperConnection::OnWithdrawn(int rc, const void* data) {
    auto* record = static_cast<WatchRecord*>(const_cast<void*>(data));
    Session& session = record->m_session;
    std::unique_ptr<WatchRecord> freed;
    bool lost = false;
    {
        std::lock_guard<std::mutex> lock(session.m_watchMtx);
        record->m_busy = false;
        bool gone = rc == ZOK || record->m_fired;
        if (rc == ZNOWATCHER && !record->m_fired) {
            // The server held none (its event is on the way, the watch was
            // never set again after a reconnection, or another record's
            // removal of the node's watches took it): the client's own goes,
            // if it still holds it. The client delivers a node's events and
            // this answer on one thread in the order they arrived, so an
            // event collected before this answer would have marked the
            // record fired by now: none will come for it, and it is freed.
            zoo_remove_watches(session.m_zh, record->Path(), WatcherType(record->m_child), &OnClientWatchEvent, record, 1);
            gone = true;
        }
        // Otherwise (the connection was lost meanwhile) it stays armed and
        // unwanted, and is withdrawn once connected.
        if (gone) freed = session.TakeWatchLocked(record);
        lost = !gone && (rc == ZCONNECTIONLOSS || rc == ZOPERATIONTIMEOUT);
    }
    // The connected event may have come already, while the removal was in
    // flight and the record busy: the session thread is asked again, and
    // withdraws it now if connected, else at that event.
    if (lost) session.m_conn.RequestMaintenance(session.m_generation);
}

void ZooKeeperConnection::Rearm(Session& session, WatchRecord* record) {
    const char* path = record->Path();
    const int rc = record->m_child ? zoo_awget_children2(session.m_zh, path, &OnClientWatchEvent, record,
                                                         &OnRearmChildren, record)
                                   : zoo_awget(session.m_zh, path, &OnClientWatchEvent, record, &OnRearmData, record);
    if (rc != ZOK) FinishRearm(record, rc, 0);  // not issued
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
    String path(record->PathView());
    int type = 0;
    std::shared_ptr<WatchContext> watch;
    std::weak_ptr<WatchContext> owner;
    std::unique_ptr<WatchRecord> freed;
    bool unwanted = false;
    {
        std::lock_guard<std::mutex> lock(session.m_watchMtx);
        if (rc == ZOK) {
            record->m_state = WatchRecord::State::kArmed;
            if (record->m_ctx && zxid > record->m_zxid) {
                // Changed while not watched: reported now.
                type = record->m_child ? ZOO_CHILD_EVENT : ZOO_CHANGED_EVENT;
                watch = std::move(record->m_ctx);
                owner = record->m_owner;
            }
            // Reported now or cancelled meanwhile: the registration just made
            // is withdrawn by the session thread.
            unwanted = !record->m_ctx;
        } else if (rc == ZCONNECTIONLOSS || rc == ZINVALIDSTATE || rc == ZCLOSING || rc == ZSESSIONEXPIRED) {
            // Connection lost again or session ending: nothing was registered,
            // and the next connected event arms it again.
            record->m_state = WatchRecord::State::kTakenOut;
            if (!record->m_ctx) freed = session.TakeWatchLocked(record);
        } else {
            // Gone, or refused (ZNOAUTH after an access list changed, ...)
            // where a retry may fail forever: nothing was registered. Reported
            // as a change, so that the owner reads the node again and meets
            // the answer itself.
            type = rc == ZNONODE ? ZOO_DELETED_EVENT : record->m_child ? ZOO_CHILD_EVENT : ZOO_CHANGED_EVENT;
            watch = std::move(record->m_ctx);
            owner = record->m_owner;
            freed = session.TakeWatchLocked(record);
        }
    }
    if (unwanted) session.m_conn.RequestMaintenance(session.m_generation);
    if (watch) session.PushEvent(std::move(watch), std::move(owner), type, ZOO_CONNECTED_STATE, std::move(path));
}

void ZooKeeperConnection::Session::PushEvent(std::shared_ptr<WatchContext> watch, std::weak_ptr<WatchContext> owner,
                                             int type, int state, String path) {
    m_conn.m_queue->Push(m_generation, false,
                         [watch = std::move(watch), owner = std::move(owner), type, state, path = std::move(path)] {
                             // Held while the event runs: a handle let go
                             // inside the call withdraws its watch after it.
                             if (const std::shared_ptr<WatchContext> held = owner.lock()) {
                                 InvokeWatch(*watch, type, state, path);
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
    std::weak_ptr<WatchContext> owner;
    std::unique_ptr<WatchRecord> freed;
    {
        std::lock_guard<std::mutex> lock(session.m_watchMtx);
        watch = std::move(record->m_ctx);
        owner = record->m_owner;
        if (record->m_busy) {
            record->m_fired = true;
        } else {
            freed = session.TakeWatchLocked(record);
        }
    }
    if (!watch) return;  // reported by its re-arm already, or let go
    session.PushEvent(std::move(watch), std::move(owner), type, state, String(path ? path : ""));
}

std::shared_ptr<Connection::WatchContext> ZooKeeperConnection::Settle(Session& session, WatchRecord* record, int rc,
                                                                     std::int64_t zxid,
                                                                     std::weak_ptr<WatchContext>& owner) {
    std::shared_ptr<WatchContext> unused;
    if (record == nullptr) return unused;
    std::unique_ptr<WatchRecord> freed;
    bool withdraw = false;
    {
        std::lock_guard<std::mutex> lock(session.m_watchMtx);
        owner = record->m_owner;
        if (rc == ZOK) {
            record->m_state = WatchRecord::State::kArmed;
            record->m_zxid = zxid;
            withdraw = !record->m_ctx;  // let go while its read was in flight
        } else {
            // The client registers the watch only when the read succeeds.
            unused = std::move(record->m_ctx);
            freed = session.TakeWatchLocked(record);
        }
    }
    if (withdraw) session.m_conn.RequestMaintenance(session.m_generation);
    return unused;
}

size_t ZooKeeperConnection::PendingWatchCount() const { return m_pendingWatches.load(); }

}  // namespace ferrow
}  // namespace jx
