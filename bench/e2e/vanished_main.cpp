// What a service watcher keeps for instances that vanished before it read
// them. A writer session creates instances and deletes them again at once,
// cycle after cycle, so that some are listed by the watcher and gone before
// their first read; once everything is answered, the watcher's core is asked
// how many watch handles it holds beyond the instances it knows, and the
// heap (mallinfo2) says what they cost. An expiry of the watcher's session
// must then bring the count back to zero. Prints a summary and one
// "RESULT figure=... value=..." line per figure. See --help.

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

#include "bench_support.h"
#include "ferrow/service_watcher.h"
#include "ferrow/zookeeper_connection.h"
#include "logger/logger.h"
#include "tests/support/zk_server.h"
#include "watching/service_watcher_impl.h"

namespace jx {
namespace bench {

namespace {

const char* const kUsage =
    "usage: ferrow_bench_vanished [options]\n"
    "  --zk HOST:PORT  use this ZooKeeper instead of starting a throwaway one\n"
    "  --cycles C      churn cycles before the expiry (default 40)\n"
    "  --batch B       instances created and deleted per cycle (default 500)\n"
    "  --lag L         each delete is issued L creates behind its own create (default 20)\n"
    "  --smoke         tiny run: 3 cycles of 50\n";

// Every wait is bounded: a watcher that stops answering fails the run.
constexpr std::chrono::seconds kWaitLimit(60);
const std::string kService = "vanished";

struct Options {
    std::string zk;
    size_t cycles = 40;
    size_t batch = 500;
    size_t lag = 20;
};

Options Parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const auto next = [&]() -> std::string {
            if (i + 1 >= argc) throw std::runtime_error(arg + " needs a value\n" + kUsage);
            return argv[++i];
        };
        if (arg == "--zk") {
            options.zk = next();
        } else if (arg == "--cycles") {
            options.cycles = std::stoul(next());
        } else if (arg == "--batch") {
            options.batch = std::stoul(next());
        } else if (arg == "--lag") {
            options.lag = std::stoul(next());
        } else if (arg == "--smoke") {
            options.cycles = 3;
            options.batch = 50;
        } else {
            throw std::runtime_error(std::string(arg == "--help" ? "" : "unknown option " + arg + "\n") + kUsage);
        }
    }
    return options;
}

// Allocated and not freed, every arena, mmapped chunks included: the handle
// map's bucket array passes the mmap threshold at a few thousand entries.
double HeapBytes() {
    const struct mallinfo2 heap = mallinfo2();
    return static_cast<double>(heap.uordblks + heap.hblkhd);
}

// Counts the core's removals of instances it never reported added: those
// that vanished before their first read, when the connection reports a
// watched read that found no node as a deletion (as it once did), and those
// whose handles an expiry clears.
class VanishedCounter : public ferrow::ServiceWatcherObserver {
public:
    void OnInstanceAdded(ferrow::ServiceWatcher&, const ServiceId& id, const ServiceInstanceData&) override {
        std::lock_guard<std::mutex> lock(m_mtx);
        m_known.insert(id);
    }
    void OnInstanceRemoved(ferrow::ServiceWatcher&, const ServiceId& id) override {
        std::lock_guard<std::mutex> lock(m_mtx);
        if (m_known.erase(id) == 0) ++m_unknownRemoved;
    }
    size_t UnknownRemoved() const {
        std::lock_guard<std::mutex> lock(m_mtx);
        return m_unknownRemoved;
    }

private:
    mutable std::mutex m_mtx;
    std::unordered_set<ServiceId> m_known;  // guarded by m_mtx
    size_t m_unknownRemoved = 0;            // guarded by m_mtx
};

// One read of the service node on the watcher's own connection, without a
// watch, waited for. Its answer comes after every event the server sent that
// session before it, and is delivered after every answer and event queued
// before it.
bool Barrier(const ferrow::Connection& conn) {
    struct Done {
        std::mutex mtx;
        std::condition_variable cv;
        bool done = false;
    };
    const auto done = std::make_shared<Done>();
    const auto [rc, handle] = conn.AsyncGet(ServicePath(kService), {}, [done](int, String, const Stat*) {
        std::lock_guard<std::mutex> lock(done->mtx);
        done->done = true;
        done->cv.notify_all();
    });
    if (rc != ZOK) return false;
    std::unique_lock<std::mutex> lock(done->mtx);
    return done->cv.wait_for(lock, kWaitLimit, [&] { return done->done; });
}

// Waits until the watcher has answered everything the writer did so far: a
// barrier across which the core issued no read leaves nothing of it on the
// wire or queued for delivery.
void Quiet(const ferrow::Connection& conn, const ferrow::ServiceWatcherImpl& core) {
    const auto until = Clock::now() + kWaitLimit;
    for (;;) {
        const std::uint64_t reads = core.Reads();
        if (Barrier(conn) && core.Reads() == reads) return;
        if (Clock::now() >= until) throw std::runtime_error("the watcher did not settle");
    }
}

// Ends the session of `conn` on the server, as an expiry does: another
// client attaches to it with its id and password and closes it, until
// `conn` runs a new session.
void ExpireSession(const std::string& connect, const ferrow::ZooKeeperConnection& conn) {
    const std::int64_t old = conn.SessionId();
    const auto renewed = [&] { return conn.SessionId() != 0 && conn.SessionId() != old; };
    const auto until = Clock::now() + kWaitLimit;
    while (!renewed()) {
        if (Clock::now() >= until) throw std::runtime_error("the session did not expire");
        const String password = conn.SessionPassword();
        clientid_t id{old, {}};
        std::memcpy(id.passwd, password.data(), std::min(sizeof(id.passwd), password.size()));
        zhandle_t* zh = zookeeper_init(connect.c_str(), nullptr, 10000, &id, nullptr, 0);
        if (zh == nullptr) throw std::runtime_error("cannot attach to the session");
        const auto attached = [zh] {
            return zoo_state(zh) == ZOO_CONNECTED_STATE || zoo_state(zh) == ZOO_EXPIRED_SESSION_STATE;
        };
        testing::PollUntil(attached, std::chrono::seconds(10));
        zookeeper_close(zh);
        testing::PollUntil(renewed, std::chrono::seconds(5));
    }
    if (!conn.WaitConnected(kWaitLimit)) throw std::runtime_error("no new session");
}

void Result(const char* figure, double value) { std::printf("RESULT figure=%s value=%.6g\n", figure, value); }

int Run(const Options& options) {
    std::unique_ptr<testing::ZkServer> server;
    std::string connect = options.zk;
    if (connect.empty()) {
        std::cerr << "# starting a throwaway ZooKeeper on loopback" << std::endl;
        server = std::make_unique<testing::ZkServer>();
        server->Start(kWaitLimit);
        connect = server->ConnectString();
    }
    zoo_set_debug_level(ZOO_LOG_LEVEL_ERROR);
    logging::SetMinimumLoggingLevel(logging::JXLOG_WARNING);
    ZkWriter writer(connect);
    writer.RemoveTree(ServicePath(kService));
    writer.EnsurePath(ServicePath(kService));

    ferrow::ConnectionOptions connection;
    connection.connect = connect;
    const auto conn = ferrow::ZooKeeperConnection::Open(connection);
    if (!conn->WaitConnected(kWaitLimit)) throw std::runtime_error("cannot connect to " + connect);
    // The core alone, as the watcher's unit tests build it: its owner is
    // only named in the reports and never started.
    ferrow::ServiceWatcher owner(conn, kService, [](int) {});
    const auto core = std::make_shared<ferrow::ServiceWatcherImpl>(
        owner, conn, kService, [](int rc) { std::fprintf(stderr, "watcher error: %s\n", zerror(rc)); });
    const auto counter = std::make_shared<VanishedCounter>();
    core->RegisterShared(counter);
    core->Start();
    Quiet(*conn, *core);

    const std::string data = EncodeEnvelope(MakeRecord(0, 0));
    const auto churn = [&] {
        std::vector<std::pair<std::string, std::string>> nodes;
        for (const ServiceId& id : RandomIds(options.batch)) nodes.emplace_back(InstancePath(kService, id), data);
        writer.CreateAndDeleteAll(nodes, options.lag);
        Quiet(*conn, *core);
    };
    const auto kept = [&] {
        return static_cast<double>(core->WatchHandleCount()) - static_cast<double>(core->InstanceCount());
    };

    // One unmeasured cycle grows what any churn grows (buffers, queues).
    churn();
    const double keptBefore = kept(), heapBefore = HeapBytes();
    std::printf("cycle kept_handles\n");
    for (size_t cycle = 1; cycle <= options.cycles; ++cycle) {
        churn();
        if (cycle % std::max<size_t>(1, options.cycles / 8) == 0 || cycle == options.cycles) {
            std::printf("%5zu %.0f\n", cycle, kept());
        }
    }
    const double keptAfter = kept(), heapAfter = HeapBytes();
    const size_t knownAfter = core->InstanceCount();
    const size_t unknownRemoved = counter->UnknownRemoved();
    const size_t watchRecords = conn->PendingWatchCount();

    ExpireSession(connect, *conn);
    Quiet(*conn, *core);
    const double handlesAfterExpiry = static_cast<double>(core->WatchHandleCount());
    // The expiry reports every handle's instance removed, those never added too.
    const size_t unknownRemovedAtExpiry = counter->UnknownRemoved() - unknownRemoved;
    const double heapAfterExpiry = HeapBytes();

    const double grown = keptAfter - keptBefore;
    // Below this many handles, a few KiB of unrelated heap would weigh.
    const bool measurable = grown >= 1000;
    // The unmeasured cycle counts among the churn, not in the heap figure.
    Result("vanished_cycles", static_cast<double>(options.cycles + 1));
    Result("vanished_churned", static_cast<double>((options.cycles + 1) * options.batch));
    Result("vanished_known_after_quiet", static_cast<double>(knownAfter));
    Result("vanished_removed_unknown", static_cast<double>(unknownRemoved));
    Result("vanished_handles_kept", keptAfter);
    Result("vanished_connection_watch_records", static_cast<double>(watchRecords));
    if (measurable) {
        Result("vanished_heap_bytes_per_kept_handle", (heapAfter - heapBefore) / grown);
        Result("vanished_heap_freed_per_kept_handle_at_expiry", (heapAfter - heapAfterExpiry) / keptAfter);
    } else {
        std::printf("heap per kept handle: not measured, %.0f handles kept (at least 1000 needed)\n", grown);
    }
    Result("vanished_handles_after_expiry", handlesAfterExpiry);
    Result("vanished_removed_unknown_at_expiry", static_cast<double>(unknownRemovedAtExpiry));

    core->Close();
    return handlesAfterExpiry == 0 ? 0 : 1;
}

}  // namespace

}  // namespace bench
}  // namespace jx

int main(int argc, char** argv) {
    try {
        return jx::bench::Run(jx::bench::Parse(argc, argv));
    } catch (const std::exception& e) {
        std::cerr << e.what() << "\n";
        return 2;
    }
}
