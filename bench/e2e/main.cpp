// End-to-end benchmark: the service watcher against the same protocol written
// directly on the ZooKeeper C client. Prints a markdown table and one
// "RESULT figure=... client=... n=... median=... min=... max=..." line per
// figure. See --help.

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_support.h"
#include "child.h"
#include "delay_relay.h"
#include "tests/support/zk_server.h"

extern char** environ;

namespace jx {
namespace bench {

namespace {

const char* const kUsage =
    "usage: ferrow_bench_e2e [options]\n"
    "  --zk HOST:PORT     use this ZooKeeper instead of starting a throwaway one\n"
    "  --reps R           measured repetitions of every figure (default 5)\n"
    "  --warmup W         unmeasured repetitions before the first figure (default 1)\n"
    "  --sizes A,B        instance counts of the initial sync (default 1000,10000;\n"
    "                     an empty list skips the figure, likewise below)\n"
    "  --large            also sync 50000 instances\n"
    "  --updates K        updates timed for the change latency (default 200)\n"
    "  --churn-sizes A,B  instance counts before the churn (default 100,1000,5000)\n"
    "  --joins J          instances joining in the churn (default 500)\n"
    "  --resolution-delay MS  the baseline calls zoo_set_servers_resolution_delay(MS)\n"
    "                     (default: the client's default, as the library runs)\n"
    "  --delay-ms D       the measured clients reach the server through a relay that\n"
    "                     holds every byte D ms each way (a round trip of 2D ms)\n"
    "  --cache            also measure the library's cache (ServiceCache), which keeps\n"
    "                     the records itself, and the baseline keeping node bytes (raw)\n"
    "  --smoke            tiny run: sizes 20, 5 updates, 10 joins, 1 rep, no warm-up\n";

struct Options {
    std::string zk;
    int delayMs = 0;
    std::string clientZk;  // the measured clients' way to the server: zk, or the relay
    size_t reps = 5;
    size_t warmup = 1;
    std::vector<size_t> sizes{1000, 10000};
    size_t updates = 200;
    std::vector<size_t> churnSizes{100, 1000, 5000};
    size_t joins = 500;
    std::string resolutionDelay;  // empty: the client's default
    std::vector<std::string> clients{"ferrow", "baseline"};
};

std::vector<size_t> ParseList(const std::string& text) {
    std::vector<size_t> values;
    std::stringstream in(text);
    for (std::string item; std::getline(in, item, ',');) values.push_back(std::stoul(item));
    std::sort(values.begin(), values.end());
    return values;
}

Options ParseOptions(int argc, char** argv) {
    Options options;
    bool large = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) throw std::runtime_error(arg + " needs a value");
            return argv[++i];
        };
        if (arg == "--cache") {
            options.clients = {"ferrow", "cache", "baseline", "raw"};
        } else if (arg == "--zk") {
            options.zk = value();
        } else if (arg == "--delay-ms") {
            options.delayMs = std::stoi(value());
        } else if (arg == "--reps") {
            options.reps = std::stoul(value());
        } else if (arg == "--warmup") {
            options.warmup = std::stoul(value());
        } else if (arg == "--sizes") {
            options.sizes = ParseList(value());
        } else if (arg == "--large") {
            large = true;
        } else if (arg == "--updates") {
            options.updates = std::stoul(value());
        } else if (arg == "--churn-sizes") {
            options.churnSizes = ParseList(value());
        } else if (arg == "--joins") {
            options.joins = std::stoul(value());
        } else if (arg == "--resolution-delay") {
            options.resolutionDelay = value();
        } else if (arg == "--smoke") {
            options.reps = 1;
            options.warmup = 0;
            options.sizes = {20};
            options.updates = 5;
            options.churnSizes = {20};
            options.joins = 10;
        } else {
            throw std::runtime_error("unknown option " + arg + "\n" + kUsage);
        }
    }
    if (large) options.sizes.push_back(50000);
    if (options.reps == 0) throw std::runtime_error("--reps must be at least 1");
    return options;
}

// Runs this binary with `args` and returns its "CHILD key=value" figures.
// Throws when it exits non-zero; its stderr passes through.
std::map<std::string, double> RunChildProcess(const std::vector<std::string>& args) {
    int out[2];
    if (::pipe(out) != 0) throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    posix_spawn_file_actions_addclose(&actions, out[1]);
    std::vector<std::string> all{"/proc/self/exe"};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& arg : all) argv.push_back(arg.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    if (spawned != 0) {
        ::close(out[0]);
        throw std::runtime_error(std::string("cannot start a child: ") + std::strerror(spawned));
    }
    std::string text;
    char buffer[4096];
    for (ssize_t got; (got = ::read(out[0], buffer, sizeof buffer)) != 0;) {
        if (got > 0) text.append(buffer, static_cast<size_t>(got));
    }
    ::close(out[0]);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error("child run failed");
    std::map<std::string, double> figures;
    std::stringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("CHILD ", 0) != 0) continue;
        const size_t eq = line.find('=');
        figures[line.substr(6, eq - 6)] = std::stod(line.substr(eq + 1));
    }
    return figures;
}

// Samples of every figure, and the rows of the table in first-seen order.
class Results {
public:
    void Add(const std::string& figure, const std::string& client, size_t n, double value) {
        const Row row{figure, n};
        if (std::find(m_rows.begin(), m_rows.end(), row) == m_rows.end()) m_rows.push_back(row);
        m_samples[{figure, client, n}].push_back(value);
    }

    void Print() const {
        const bool cached = std::any_of(m_samples.begin(), m_samples.end(),
                                        [](const auto& entry) { return std::get<1>(entry.first) == "cache"; });
        std::printf("\n| figure | n | ferrow median (min–max) | baseline median (min–max) | ferrow/baseline |%s\n",
                    cached ? " cache median (min–max) | cache/ferrow | raw median (min–max) | cache/raw |" : "");
        std::printf("|---|---:|---:|---:|---:|%s\n", cached ? "---:|---:|---:|---:|" : "");
        for (const Row& row : m_rows) {
            const Stats ferrow = Summarise(row, "ferrow");
            const Stats baseline = Summarise(row, "baseline");
            std::printf("| %s | %zu | %s | %s | %s |", row.figure.c_str(), row.n, Cell(ferrow).c_str(),
                        Cell(baseline).c_str(), Ratio(ferrow, baseline).c_str());
            if (cached) {
                const Stats cache = Summarise(row, "cache");
                const Stats raw = Summarise(row, "raw");
                std::printf(" %s | %s | %s | %s |", Cell(cache).c_str(), Ratio(cache, ferrow).c_str(), Cell(raw).c_str(),
                            Ratio(cache, raw).c_str());
            }
            std::printf("\n");
        }
        std::printf("\n");
        for (const auto& entry : m_samples) {
            const Stats stats = Summarise({std::get<0>(entry.first), std::get<2>(entry.first)}, std::get<1>(entry.first));
            std::printf("RESULT figure=%s client=%s n=%zu median=%s min=%s max=%s\n", std::get<0>(entry.first).c_str(),
                        std::get<1>(entry.first).c_str(), std::get<2>(entry.first), Format(stats.median).c_str(),
                        Format(stats.min).c_str(), Format(stats.max).c_str());
        }
    }

private:
    struct Row {
        std::string figure;
        size_t n;
        bool operator==(const Row& other) const { return figure == other.figure && n == other.n; }
    };
    struct Stats {
        size_t count = 0;
        double median = 0, min = 0, max = 0;
    };

    Stats Summarise(const Row& row, const std::string& client) const {
        Stats stats;
        auto it = m_samples.find({row.figure, client, row.n});
        if (it == m_samples.end()) return stats;
        std::vector<double> sorted = it->second;
        std::sort(sorted.begin(), sorted.end());
        stats.count = sorted.size();
        const size_t mid = sorted.size() / 2;
        stats.median = sorted.size() % 2 ? sorted[mid] : (sorted[mid - 1] + sorted[mid]) / 2;
        stats.min = sorted.front();
        stats.max = sorted.back();
        return stats;
    }

    static std::string Format(double value) {
        char text[32];
        std::snprintf(text, sizeof text, "%.4g", value);
        return text;
    }

    static std::string Ratio(const Stats& a, const Stats& b) {
        return a.count && b.count && b.median != 0 ? Format(a.median / b.median) : "";
    }

    static std::string Cell(const Stats& stats) {
        if (stats.count == 0) return "";
        return Format(stats.median) + " (" + Format(stats.min) + "–" + Format(stats.max) + ")";
    }

    std::vector<Row> m_rows;
    std::map<std::tuple<std::string, std::string, size_t>, std::vector<double>> m_samples;
};

// The clients in the order of repetition `rep`: each goes first in turn.
std::vector<std::string> ClientOrder(const Options& options, size_t rep) {
    std::vector<std::string> order = options.clients;
    std::rotate(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(rep % order.size()), order.end());
    return order;
}

// Grows `service` from `have` to `want` instances with fresh ids.
void Populate(ZkWriter& writer, const std::string& service, size_t have, size_t want) {
    std::vector<std::pair<std::string, std::string>> nodes;
    const std::vector<ServiceId> ids = RandomIds(want - have);
    for (size_t i = 0; i < ids.size(); ++i) {
        nodes.emplace_back(InstancePath(service, ids[i]), EncodeEnvelope(MakeRecord(have + i, 0)));
    }
    if (!nodes.empty()) writer.CreateAll(nodes);
}

std::vector<std::string> ChildArgs(const char* mode, const std::string& client, const Options& options,
                                   const std::string& service, size_t n) {
    std::vector<std::string> args{"--child", mode,    "--client", client,           "--zk",
                                  options.clientZk, "--service", service, "--n", std::to_string(n)};
    if (client == "baseline" && !options.resolutionDelay.empty()) {
        args.push_back("--resolution-delay");
        args.push_back(options.resolutionDelay);
    }
    return args;
}

void MeasureSync(const Options& options, ZkWriter& writer, Results& results) {
    if (options.sizes.empty()) return;
    const std::string service = "bench";
    writer.EnsurePath(ServicePath(service));
    // The change latency is measured once, after the largest sync up to 10,000.
    size_t latencyN = options.sizes.front();
    for (size_t n : options.sizes) {
        if (n <= 10000) latencyN = n;
    }
    size_t have = 0;
    for (size_t n : options.sizes) {
        std::cerr << "# populating /srv2/" << service << " to " << n << " instances" << std::endl;
        Populate(writer, service, have, n);
        have = n;
        if (n == options.sizes.front()) {
            for (size_t w = 0; w < options.warmup; ++w) {
                for (const std::string& client : options.clients) RunChildProcess(ChildArgs("sync", client, options, service, n));
            }
        }
        for (size_t rep = 0; rep < options.reps; ++rep) {
            std::map<std::string, double> heapPerInstance;
            for (const std::string& client : ClientOrder(options, rep)) {
                std::cerr << "# sync n=" << n << " rep " << rep + 1 << "/" << options.reps << " " << client << std::endl;
                std::vector<std::string> args = ChildArgs("sync", client, options, service, n);
                if (n == latencyN && options.updates > 0) {
                    args.push_back("--updates");
                    args.push_back(std::to_string(options.updates));
                }
                std::map<std::string, double> f = RunChildProcess(args);
                const double perK = 1000.0 / static_cast<double>(n);
                results.Add("initial_sync_ms", client, n, f["sync_ms"]);
                results.Add("initial_sync_reads", client, n, f["sync_data_reads"] + f["sync_children_reads"]);
                results.Add("peak_rss_mib", client, n, f["peak_rss_kib"] / 1024);
                results.Add("rss_growth_kib_per_1k", client, n, (f["peak_rss_kib"] - f["rss_before_kib"]) * perK);
                results.Add("cpu_ms_per_1k", client, n, f["cpu_s"] * 1000 * perK);
                heapPerInstance[client] = f["heap_growth_bytes"] / static_cast<double>(n);
                results.Add("heap_bytes_per_instance", client, n, heapPerInstance[client]);
                if (f.count("latency_p50_ms")) {
                    results.Add("change_latency_p50_ms", client, n, f["latency_p50_ms"]);
                    results.Add("change_latency_p99_ms", client, n, f["latency_p99_ms"]);
                    results.Add("change_latency_max_ms", client, n, f["latency_max_ms"]);
                }
            }
            results.Add("watcher_own_bytes_per_instance", "ferrow", n,
                        heapPerInstance["ferrow"] - heapPerInstance["baseline"]);
        }
    }
}

void MeasureChurn(const Options& options, ZkWriter& writer, Results& results) {
    for (size_t n : options.churnSizes) {
        const std::string service = "churn-" + std::to_string(n);
        std::cerr << "# populating /srv2/" << service << " with " << n << " instances" << std::endl;
        writer.RemoveTree(ServicePath(service));
        writer.EnsurePath(ServicePath(service));
        Populate(writer, service, 0, n);
        for (size_t rep = 0; rep < options.reps; ++rep) {
            for (const std::string& client : ClientOrder(options, rep)) {
                std::cerr << "# churn n=" << n << " rep " << rep + 1 << "/" << options.reps << " " << client << std::endl;
                std::vector<std::string> args = ChildArgs("churn", client, options, service, n);
                args.push_back("--joins");
                args.push_back(std::to_string(options.joins));
                std::map<std::string, double> f = RunChildProcess(args);
                results.Add("churn_ms", client, n, f["churn_ms"]);
                results.Add("churn_data_reads", client, n, f["churn_data_reads"]);
                results.Add("churn_children_reads", client, n, f["churn_children_reads"]);
                results.Add("churn_child_names", client, n, f["churn_child_names"]);
            }
        }
        writer.RemoveTree(ServicePath(service));
    }
}

int Run(int argc, char** argv) {
    Options options = ParseOptions(argc, argv);
    std::unique_ptr<testing::ZkServer> server;
    if (options.zk.empty()) {
        std::cerr << "# starting a throwaway ZooKeeper on loopback" << std::endl;
        server = std::make_unique<testing::ZkServer>();
        server->Start(std::chrono::seconds(60));
        options.zk = server->ConnectString();
    }
    options.clientZk = options.zk;
    std::unique_ptr<DelayRelay> relay;
    if (options.delayMs > 0) {
        const size_t colon = options.zk.rfind(':');
        if (colon == std::string::npos || options.zk.find(',') != std::string::npos) {
            throw std::runtime_error("--delay-ms needs one HOST:PORT server");
        }
        relay = std::make_unique<DelayRelay>(std::stoi(options.zk.substr(colon + 1)),
                                             std::chrono::milliseconds(options.delayMs));
        options.clientZk = relay->ConnectString();
    }
    ZkWriter writer(options.zk);
    writer.RemoveTree(ServicePath("bench"));
    std::printf("# ZooKeeper %s; record envelope %zu bytes; %zu reps, alternating order; %d ms each way\n",
                options.zk.c_str(), EncodeEnvelope(MakeRecord(123456, 0)).size(), options.reps, options.delayMs);
    Results results;
    MeasureSync(options, writer, results);
    MeasureChurn(options, writer, results);
    writer.RemoveTree(ServicePath("bench"));
    results.Print();
    return 0;
}

}  // namespace

}  // namespace bench
}  // namespace jx

int main(int argc, char** argv) {
    zoo_set_debug_level(ZOO_LOG_LEVEL_ERROR);
    if (argc > 1 && std::strcmp(argv[1], "--child") == 0) return jx::bench::RunChild(argc, argv);
    if (argc > 1 && std::strcmp(argv[1], "--help") == 0) {
        std::printf("%s", jx::bench::kUsage);
        return 0;
    }
    try {
        return jx::bench::Run(argc, argv);
    } catch (const std::exception& e) {
        std::cerr << "ferrow_bench_e2e: " << e.what() << std::endl;
        return 1;
    }
}
