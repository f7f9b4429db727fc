#pragma once

// The connection contract: a ZooKeeper session that delivers watch events,
// asynchronous results and session events on one thread of its own, in the
// order the client produced them, and never inside the request that
// registered them. ZooKeeperConnection (zookeeper_connection.h) is the real
// implementation; tests may substitute their own.

#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include <zookeeper/zookeeper.h>

#include "utility/observable_impl.h"
#include "utility/string.h"

namespace jx {
namespace ferrow {

// Receives the session's state changes (ZOO_SESSION_EVENT with the client's
// state), on the connection's delivery thread.
class ConnectionObserver {
public:
    virtual ~ConnectionObserver() = default;
    virtual void OnSessionEvent(int type, int state, String path) = 0;
};

// Thread-safe: every operation may be called from any thread, including the
// delivery thread from inside a callback. Result codes are the ZooKeeper
// client's (ZOK, ZNONODE, ...). Synchronous operations never block for longer
// than the session timeout; when it passes they return ZOPERATIONTIMEOUT.
class Connection : public ObservableImpl<ConnectionObserver> {
public:
    using WatchFunction = std::function<void(int type, int state, String path)>;
    using ChildrenResult = std::function<void(int rc, std::vector<String> children)>;
    using DataResult = std::function<void(int rc, String data, const Stat* stat)>;

    // Shared by the connection and the handle of one watch. An event is
    // delivered only while m_valid; m_invoking is true while m_func runs;
    // a completion callback left in m_cbk by Invalidate runs after that call.
    struct WatchContext {
        WatchContext(const Connection& conn, WatchFunction&& func);
        WatchContext(const WatchContext&) = delete;  // identity is shared
        WatchContext& operator=(const WatchContext&) = delete;

        // Marks the watch dead; never waits and never runs `cbk`. If m_func is
        // running, `cbk` is kept for the connection to run when it returns,
        // otherwise it is dropped. Returns whether it was still valid.
        bool Invalidate(std::function<void()> cbk);

        const Connection& m_conn;
        WatchFunction m_func;
        std::mutex m_mtx;  // leaf lock: guards the three fields below
        bool m_valid = true;
        bool m_invoking = false;
        std::function<void()> m_cbk;
    };

    // Owns one registered watch. Destroying the handle cancels the watch
    // (invalidates its context) and lets it go; moving it transfers
    // ownership, and move assignment lets the watch held before go without
    // invalidating its context. A connection may withdraw a watch let go
    // either way, since no handle can cancel it any more: ZooKeeperConnection
    // does, and delivers nothing of it afterwards. Not copyable: two owners
    // could not agree on when to cancel.
    class WatchHandle {
    public:
        WatchHandle() = default;
        ~WatchHandle();
        WatchHandle(WatchHandle&&) noexcept = default;
        WatchHandle& operator=(WatchHandle&&) noexcept = default;

        // Invalidates the watch and gives up this handle's share of it; a
        // no-op on an empty handle. Returns whether a live watch was cancelled.
        bool Cancel(std::function<void()> cbk);

    private:
        friend class Connection;
        explicit WatchHandle(std::shared_ptr<WatchContext> ctx);
        WatchHandle(const WatchHandle&) = delete;
        WatchHandle& operator=(const WatchHandle&) = delete;

        std::shared_ptr<WatchContext> m_ctx;
    };

    ~Connection() override = default;

    // The client's current session state (ZOO_CONNECTED_STATE, ...).
    virtual int State() const = 0;

    // Whether the calling thread is the one that runs this connection's
    // callbacks: what it holds now can only be let go after the running
    // callback returns, so it must never wait for that. False where the
    // implementation cannot tell.
    virtual bool IsDeliveryThread() const { return false; }
    // Runs `task` on the delivery thread once the callbacks queued before it
    // have run, or destroys it unrun if the connection closes first; never
    // waits. For work that must not wait for the callback running now: an
    // observer taken out of the registry there never waits for a
    // notification in progress, since notifications run on that thread. A
    // task runs only while the connection lives, so it may hold the
    // connection by a plain pointer. Runs `task` at once where the
    // implementation has no delivery thread of its own.
    virtual void Post(std::function<void()> task) const { task(); }
    // Whether requests of this connection carry a publisher's credentials,
    // so that nodes it creates can be restricted to that identity.
    virtual bool HasCredentials() const { return false; }

    // Reads a node. The incoming size of `out` is the read capacity: a node
    // larger than that leaves `out` empty and returns ZBADARGUMENTS, never a
    // cut record. On ZOK `out` holds exactly the node's bytes.
    virtual int Get(String path, String& out, Stat* stat) const = 0;

    // Reads the children of `path` (bare names) and sets a child watch. The
    // pair is the code of issuing the request and the watch's handle; on a
    // non-ZOK code `result` is never called. `watch` and `result` run later
    // on the delivery thread.
    virtual std::pair<int, WatchHandle> AsyncGetChildren(String path, WatchFunction watch,
                                                         ChildrenResult result) const = 0;

    // Reads the data of `path` and sets a data watch; as AsyncGetChildren.
    virtual std::pair<int, WatchHandle> AsyncGet(String path, WatchFunction watch,
                                                 DataResult result) const = 0;

    // Synchronous operations for publishers. `flags` are the client's
    // creation flags (ZOO_EPHEMERAL, ...); `version` -1 matches any version.
    virtual int Create(String path, const String& data, const ACL_vector& acl, int flags) const = 0;
    virtual int Set(String path, const String& data, int version, Stat* stat) const = 0;
    virtual int Delete(String path, int version) const = 0;
    virtual int Exists(String path, Stat* stat) const = 0;
    virtual int GetChildren(String path, std::vector<String>& children) const = 0;

protected:
    // For implementations: the handle given out for a newly registered watch.
    static WatchHandle MakeWatchHandle(std::shared_ptr<WatchContext> ctx);

    // Delivers one event to `ctx` under the context protocol: nothing when it
    // was invalidated, m_invoking set around the call, then the completion
    // callback left by a cancellation during the call. Exceptions from the
    // watch function propagate after the context is restored.
    static void InvokeWatch(WatchContext& ctx, int type, int state, const String& path);
};

// Makes sure `path` exists: creates every missing ancestor (persistent, with
// `acl`) and then the node, tolerating a concurrent creator. With
// `ephemeralLeaf` the node itself is created ephemeral. Returns true when this
// call created the node. Throws ZooError on any other failure.
bool EnsurePath(const Connection& conn, String path, bool ephemeralLeaf, const ACL_vector& acl);

}  // namespace ferrow
}  // namespace jx
