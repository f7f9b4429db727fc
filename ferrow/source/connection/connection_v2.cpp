#include "ferrow/connection_v2.h"

#include "ferrow/error.h"

namespace jx {
namespace ferrow {

ZooError::ZooError(int code)
    : details::ExceptionWrapper<FerrowErrorTag, std::runtime_error>(zerror(code)), m_code(code) {}

Connection::WatchContext::WatchContext(const Connection& conn, WatchFunction&& func)
    : m_conn(conn), m_func(std::move(func)) {}

bool Connection::WatchContext::Invalidate(std::function<void()> cbk) {
    std::lock_guard<std::mutex> lock(m_mtx);
    const bool wasValid = m_valid;
    m_valid = false;
    if (m_invoking) m_cbk = std::move(cbk);
    return wasValid;
}

Connection::WatchHandle::WatchHandle(std::shared_ptr<WatchContext> ctx) : m_ctx(std::move(ctx)) {}

Connection::WatchHandle::~WatchHandle() { Cancel(std::function<void()>()); }

bool Connection::WatchHandle::Cancel(std::function<void()> cbk) {
    if (!m_ctx) return false;
    const bool cancelled = m_ctx->Invalidate(std::move(cbk));
    m_ctx.reset();
    return cancelled;
}

Connection::WatchHandle Connection::MakeWatchHandle(std::shared_ptr<WatchContext> ctx) {
    return WatchHandle(std::move(ctx));
}

void Connection::InvokeWatch(WatchContext& ctx, int type, int state, const String& path) {
    {
        std::lock_guard<std::mutex> lock(ctx.m_mtx);
        if (!ctx.m_valid) return;
        ctx.m_invoking = true;
    }
    // Restores the context however m_func ends, then runs a completion that a
    // cancellation during the call left behind.
    auto finish = [&ctx] {
        std::function<void()> completion;
        {
            std::lock_guard<std::mutex> lock(ctx.m_mtx);
            ctx.m_invoking = false;
            completion.swap(ctx.m_cbk);
        }
        if (completion) completion();
    };
    try {
        ctx.m_func(type, state, path);
    } catch (...) {
        finish();
        throw;
    }
    finish();
}

namespace {

// Creates `path` unless it exists. Returns true when this call created it.
bool CreateIfMissing(const Connection& conn, const String& path, const ACL_vector& acl, int flags) {
    const int rc = conn.Create(path, String(), acl, flags);
    if (rc == ZOK) return true;
    if (rc == ZNODEEXISTS) return false;
    throw ZooError(rc);
}

}  // namespace

bool EnsurePath(const Connection& conn, String path, bool ephemeralLeaf, const ACL_vector& acl) {
    // Fast path: most calls find the node there already.
    const int rc = conn.Exists(path, nullptr);
    if (rc == ZOK) return false;
    if (rc != ZNONODE) throw ZooError(rc);

    for (String::size_type slash = path.find('/', 1); slash != String::npos;
         slash = path.find('/', slash + 1)) {
        CreateIfMissing(conn, path.substr(0, slash), acl, 0);
    }
    return CreateIfMissing(conn, path, acl, ephemeralLeaf ? ZOO_EPHEMERAL : 0);
}

}  // namespace ferrow
}  // namespace jx
