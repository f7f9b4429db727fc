#pragma once

// The parts of a ZooKeeperConnection that its three source files share: one
// client handle with its registry of watch records, and the completion
// context of an asynchronous read. zookeeper_connection.cpp runs the
// session's life, connection_requests.cpp the requests, watch_registry.cpp
// the watches.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <variant>

#include "ferrow/zookeeper_connection.h"
#include "connection/read_window.h"

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

}  // namespace details

// One watch of a session. Owned by its session's registry; the client holds
// its address as the watcher context while the watch is registered there.
//
// A record whose m_ctx is null is no longer wanted: its one event was
// delivered (or reported by a re-arm), or its handle let it go. Once the
// client holds it (kArmed), the session thread withdraws it from the client
// and the server; in any other state the completion that settles it frees it.
struct ZooKeeperConnection::WatchRecord {
    enum class State : std::uint8_t {
        kReading,    // the read that registers it is in flight
        kArmed,      // the client holds the registration
        kTakenOut,   // taken out of the client; armed again once connected
        kRearming,   // the read that arms it again is in flight
    };

    // A record in state kReading, its path kept right behind it in the same
    // allocation: one allocation per watch.
    static std::unique_ptr<WatchRecord> Make(Session& session, std::shared_ptr<WatchContext> ctx,
                                             std::string_view path, bool child) {
        return std::unique_ptr<WatchRecord>(new (PathBytes{path.size()})
                                                WatchRecord(session, std::move(ctx), path, child));
    }
    WatchRecord(const WatchRecord&) = delete;  // its path lives behind it
    WatchRecord& operator=(const WatchRecord&) = delete;
    static void operator delete(void* record) { ::operator delete(record); }

    // The watched node, NUL-terminated.
    const char* Path() const { return reinterpret_cast<const char*>(this + 1); }
    std::string_view PathView() const { return std::string_view(Path(), m_pathSize); }

    Session& m_session;

    // The fields below are guarded by m_session.m_watchMtx, but m_owner,
    // which is set before the read that registers the record is issued.
    // Moved out before the record is freed on a client thread, so that the
    // context (and the user's function in it) is released on the delivery
    // thread: it may hold the last reference to the connection.
    std::shared_ptr<WatchContext> m_ctx;
    // The handle's share of the context: expired once the handle let the
    // watch go (cancelled, destroyed or released by a move assignment). An
    // answer or event that finds it expired at delivery reaches nobody.
    std::weak_ptr<WatchContext> m_owner;
    // The node's mzxid (pzxid for a child watch) when the watch was armed.
    std::int64_t m_zxid = 0;
    const std::uint32_t m_pathSize;
    const bool m_child;  // a child watch; a data watch otherwise
    State m_state = State::kReading;
    // The session thread or a removal request in flight is taking the
    // registration away; a firing meanwhile sets m_fired and leaves the
    // freeing to whoever set m_busy.
    bool m_busy = false;
    bool m_fired = false;

private:
    struct PathBytes {
        std::size_t size;
    };
    static void* operator new(std::size_t size, PathBytes path) { return ::operator new(size + path.size + 1); }
    static void operator delete(void* record, PathBytes) { ::operator delete(record); }

    WatchRecord(Session& session, std::shared_ptr<WatchContext> ctx, std::string_view path, bool child)
        : m_session(session), m_ctx(std::move(ctx)), m_pathSize(static_cast<std::uint32_t>(path.size())),
          m_child(child) {
        char* bytes = reinterpret_cast<char*>(this + 1);
        path.copy(bytes, path.size());
        bytes[path.size()] = '\0';
    }
};

// One client handle and the watch records registered through it. Outlives
// the handle: it is destroyed only after zookeeper_close returned.
struct ZooKeeperConnection::Session {
    Session(ZooKeeperConnection& conn, std::uint64_t generation)
        : m_conn(conn), m_generation(generation),
          m_window(conn.m_options.readWindow, conn.m_options.answersWaiting) {}

    // Adds a record in state kReading.
    WatchRecord* AddWatch(std::shared_ptr<WatchContext> ctx, std::string_view path, bool child);
    // Removes `record` from the registry and returns it (null if absent).
    std::unique_ptr<WatchRecord> TakeWatch(WatchRecord* record);
    // As TakeWatch; requires m_watchMtx held.
    std::unique_ptr<WatchRecord> TakeWatchLocked(WatchRecord* record);
    // Queues a watch event for `watch`, delivered only if its handle, whose
    // share is `owner`, still holds the watch then.
    void PushEvent(std::shared_ptr<WatchContext> watch, std::weak_ptr<WatchContext> owner, int type, int state,
                   String path);
    // Moves every record out (the handle is closed; nothing can fire).
    std::unordered_map<WatchRecord*, std::unique_ptr<WatchRecord>> TakeAll();

    ZooKeeperConnection& m_conn;
    const std::uint64_t m_generation;
    zhandle_t* m_zh = nullptr;
    // The state of the client's latest session event, set on its completion
    // thread before the session thread is asked to maintain the watches.
    std::atomic<int> m_lastState{0};
    // The credentials could not be added yet: the client refuses them between
    // two connection attempts. They are added on the first connected event,
    // and until then the session does not count as connected.
    std::atomic<bool> m_authPending{false};
    std::mutex m_watchMtx;
    std::unordered_map<WatchRecord*, std::unique_ptr<WatchRecord>> m_watches;  // guarded by m_watchMtx
    size_t m_resetBytes = 0;  // guarded by m_watchMtx: estimate over m_watches
    details::Outstanding m_outstanding;
    // The room for reads (see ReadWindow), and the reads waiting for it in
    // the order they were asked for. A leaf lock but for the client's own,
    // which issuing takes under it.
    std::mutex m_readMtx;
    std::deque<AsyncRequest*> m_waitingReads;  // guarded by m_readMtx; owned through m_outstanding
    details::ReadWindow m_window;              // guarded by m_readMtx
    // Set before the handle is closed: nothing is issued any more, and the
    // waiting reads are completed with the leftovers of m_outstanding.
    bool m_closing = false;  // guarded by m_readMtx
    // A watch whose read may still wait was let go: the waiting reads are
    // searched for the abandoned ones at the next issuing.
    std::atomic<bool> m_sweepWaiting{false};
};

// The completion context of an asynchronous read: a data or a children
// read. m_record is null for a read that sets no watch.
struct ZooKeeperConnection::AsyncRequest {
    // A read whose handle let its watch go before it was sent: nobody wants
    // its answer, which would be ZCLOSING. Only for a read that waits.
    bool Abandoned() const { return m_record != nullptr && m_record->m_owner.expired(); }

    Session* m_session = nullptr;
    WatchRecord* m_record = nullptr;
    std::variant<DataResult, ChildrenResult> m_result;
    String m_path;  // only while it waits for its turn
    std::chrono::steady_clock::time_point m_issuedAt;  // when the client was handed it
};

}  // namespace ferrow
}  // namespace jx
