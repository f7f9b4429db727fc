#include "ferrow/connection_v2.h"

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace jx {
namespace ferrow {
namespace {

// A connection with no session: only the watch-context plumbing is real.
class IdleConnection : public Connection {
public:
    using Connection::InvokeWatch;
    using Connection::MakeWatchHandle;

    int State() const override { return 0; }
    int Get(String, String&, Stat*) const override { return ZOK; }
    std::pair<int, WatchHandle> AsyncGetChildren(String, WatchFunction, ChildrenResult) const override {
        return {ZOK, WatchHandle()};
    }
    std::pair<int, WatchHandle> AsyncGet(String, WatchFunction, DataResult) const override {
        return {ZOK, WatchHandle()};
    }
    int Create(String, const String&, const ACL_vector&, int) const override { return ZOK; }
    int Set(String, const String&, int, Stat*) const override { return ZOK; }
    int Delete(String, int) const override { return ZOK; }
    int Exists(String, Stat*) const override { return ZOK; }
    int GetChildren(String, std::vector<String>&) const override { return ZOK; }
};

bool IsValid(Connection::WatchContext& ctx) {
    std::lock_guard<std::mutex> lock(ctx.m_mtx);
    return ctx.m_valid;
}

class WatchHandleTest : public ::testing::Test {
protected:
    // A context whose watch function appends "watch:<path>" to m_journal and
    // then runs m_duringWatch.
    std::shared_ptr<Connection::WatchContext> MakeContext() {
        return std::make_shared<Connection::WatchContext>(m_conn, [this](int, int, String path) {
            m_journal.push_back("watch:" + path);
            if (m_duringWatch) m_duringWatch();
        });
    }
    std::function<void()> Completion() {
        return [this] { m_journal.push_back("completion"); };
    }

    IdleConnection m_conn;
    std::vector<std::string> m_journal;
    std::function<void()> m_duringWatch;
};

TEST_F(WatchHandleTest, CancelDuringTheWatchCallRunsOnlyTheLastCompletionAfterTheCallReturns) {
    auto ctx = MakeContext();
    Connection::WatchHandle handle = IdleConnection::MakeWatchHandle(ctx);
    m_duringWatch = [&] {
        {
            std::lock_guard<std::mutex> lock(ctx->m_mtx);
            EXPECT_TRUE(ctx->m_invoking);
        }
        ctx->Invalidate([this] { m_journal.push_back("replaced"); });
        handle.Cancel(Completion());
        m_journal.push_back("watch returns");
    };
    IdleConnection::InvokeWatch(*ctx, ZOO_CHANGED_EVENT, ZOO_CONNECTED_STATE, "/a");
    IdleConnection::InvokeWatch(*ctx, ZOO_CHANGED_EVENT, ZOO_CONNECTED_STATE, "/b");

    EXPECT_EQ(m_journal, (std::vector<std::string>{"watch:/a", "watch returns", "completion"}));
    EXPECT_FALSE(IsValid(*ctx));
    EXPECT_FALSE(ctx->m_invoking);
    EXPECT_EQ(ctx.use_count(), 1);
}

TEST_F(WatchHandleTest, CancelOrDestructionWhileIdleInvalidatesTheWatchAndDropsTheCompletionUnrun) {
    auto cancelled = MakeContext();
    auto destroyed = MakeContext();
    auto token = std::make_shared<int>(0);
    {
        Connection::WatchHandle handle = IdleConnection::MakeWatchHandle(cancelled);
        handle.Cancel([this, token] { m_journal.push_back("completion"); });
        IdleConnection::InvokeWatch(*cancelled, ZOO_CHANGED_EVENT, ZOO_CONNECTED_STATE, "/a");
    }
    { Connection::WatchHandle handle = IdleConnection::MakeWatchHandle(destroyed); }
    IdleConnection::InvokeWatch(*destroyed, ZOO_DELETED_EVENT, ZOO_CONNECTED_STATE, "/b");

    EXPECT_TRUE(m_journal.empty());
    EXPECT_EQ(token.use_count(), 1);
    for (const auto* ctx : {&cancelled, &destroyed}) {
        EXPECT_FALSE(IsValid(**ctx));
        EXPECT_EQ(ctx->use_count(), 1);
    }
}

TEST_F(WatchHandleTest, WatchFunctionExceptionPropagatesAfterTheContextIsRestored) {
    auto ctx = MakeContext();
    Connection::WatchHandle handle = IdleConnection::MakeWatchHandle(ctx);
    m_duringWatch = [&] {
        handle.Cancel(Completion());
        throw std::runtime_error("watch failed");
    };
    EXPECT_THROW(IdleConnection::InvokeWatch(*ctx, ZOO_CHANGED_EVENT, ZOO_CONNECTED_STATE, "/a"),
                 std::runtime_error);
    EXPECT_EQ(m_journal, (std::vector<std::string>{"watch:/a", "completion"}));
    EXPECT_FALSE(ctx->m_invoking);
}

TEST_F(WatchHandleTest, MovingAHandleTransfersTheWatchAndCancelsNothing) {
    Connection::WatchHandle empty;
    EXPECT_FALSE(empty.Cancel(Completion()));

    auto older = MakeContext();
    auto newer = MakeContext();
    Connection::WatchHandle owner = IdleConnection::MakeWatchHandle(older);
    Connection::WatchHandle movedTo(std::move(owner));
    EXPECT_FALSE(owner.Cancel(Completion()));
    { Connection::WatchHandle movedFrom = std::move(owner); }
    EXPECT_TRUE(IsValid(*older));

    movedTo = IdleConnection::MakeWatchHandle(newer);
    EXPECT_TRUE(IsValid(*older)) << "move assignment released the older watch without cancelling it";
    EXPECT_EQ(older.use_count(), 1);
    IdleConnection::InvokeWatch(*older, ZOO_CHANGED_EVENT, ZOO_CONNECTED_STATE, "/older");
    EXPECT_EQ(m_journal, (std::vector<std::string>{"watch:/older"}));
    EXPECT_TRUE(IsValid(*newer));
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
