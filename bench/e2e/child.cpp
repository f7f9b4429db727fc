#include "child.h"

#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>

#include "bench_support.h"

namespace jx {
namespace bench {

namespace {

// Every wait of a child is bounded: a client that stops delivering fails the
// run instead of hanging it.
constexpr std::chrono::seconds kWaitLimit(120);

struct Resources {
    double cpuSeconds = 0;   // user + system, all threads
    double rssKiB = 0;       // VmRSS
    double peakRssKiB = 0;   // VmHWM
    double heapBytes = 0;    // allocated and not freed, every arena
};

double StatusKiB(const std::string& status, const char* key) {
    const size_t at = status.find(key);
    return at == std::string::npos ? 0 : std::stod(status.substr(at + std::string(key).size()));
}

Resources Sample() {
    Resources sample;
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    sample.cpuSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                        static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    std::ifstream in("/proc/self/status");
    const std::string status((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    sample.rssKiB = StatusKiB(status, "VmRSS:");
    sample.peakRssKiB = StatusKiB(status, "VmHWM:");
    const struct mallinfo2 heap = mallinfo2();
    sample.heapBytes = static_cast<double>(heap.uordblks + heap.hblkhd);
    return sample;
}

void Print(const std::string& key, double value) {
    std::printf("CHILD %s=%.6g\n", key.c_str(), value);
}

void PrintReads(const std::string& prefix, const ReadCounts& before, const ReadCounts& after) {
    Print(prefix + "_data_reads", static_cast<double>(after.data - before.data));
    Print(prefix + "_children_reads", static_cast<double>(after.children - before.children));
    Print(prefix + "_child_names", static_cast<double>(after.childNames - before.childNames));
}

double Millis(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// The nearest-rank percentile of sorted samples.
double Percentile(const std::vector<double>& sorted, double p) {
    const size_t rank = static_cast<size_t>(std::ceil(p * static_cast<double>(sorted.size())));
    return sorted[std::max<size_t>(rank, 1) - 1];
}

void Require(bool ok, const std::string& what) {
    if (!ok) throw std::runtime_error(what);
}

struct Args {
    std::string mode, client, zk, service;
    size_t n = 0, updates = 0, joins = 0;
    int resolutionDelayMs = 0;
};

Args Parse(int argc, char** argv) {
    std::map<std::string, std::string> values;
    for (int i = 1; i + 1 < argc; i += 2) values[argv[i]] = argv[i + 1];
    auto get = [&](const char* key) {
        auto it = values.find(key);
        if (it == values.end()) throw std::runtime_error(std::string("child: missing ") + key);
        return it->second;
    };
    auto number = [&](const char* key) { return values.count(key) ? std::stoul(values[key]) : 0UL; };
    Args args;
    args.mode = get("--child");
    args.client = get("--client");
    args.zk = get("--zk");
    args.service = get("--service");
    args.n = std::stoul(get("--n"));
    args.updates = number("--updates");
    args.joins = number("--joins");
    if (values.count("--resolution-delay")) args.resolutionDelayMs = std::stoi(values["--resolution-delay"]);
    return args;
}

std::unique_ptr<WatchClient> MakeClient(const Args& args, InstanceSink& sink) {
    if (args.client == "ferrow") return MakeFerrowClient(args.zk, args.service, sink);
    if (args.client == "cache") return MakeCacheClient(args.zk, args.service, sink);
    if (args.client == "raw") return MakeRawClient(args.zk, args.service, sink);
    if (args.client == "baseline") return MakeBaselineClient(args.zk, args.service, args.resolutionDelayMs, sink);
    throw std::runtime_error("child: unknown client " + args.client);
}

void MeasureLatency(const Args& args, InstanceSink& sink) {
    const std::vector<ServiceId> ids = sink.Ids();
    ZkWriter writer(args.zk);
    std::vector<double> samples;
    for (size_t k = 0; k < args.updates; ++k) {
        const ServiceId& id = ids[(k * 7919) % ids.size()];
        const std::string data = EncodeEnvelope(MakeRecord(k, k + 1));
        const std::string path = InstancePath(args.service, id);
        const Clock::time_point before = Clock::now();
        writer.Set(path, data);
        Clock::time_point notified;
        Require(sink.WaitModified(k + 1, Clock::now() + kWaitLimit, notified), "no modification notice for " + path);
        samples.push_back(Millis(notified - before));
    }
    std::sort(samples.begin(), samples.end());
    Print("latency_p50_ms", Percentile(samples, 0.50));
    Print("latency_p99_ms", Percentile(samples, 0.99));
    Print("latency_max_ms", samples.back());
}

void RunSync(const Args& args) {
    InstanceSink sink(args.client != "cache" && args.client != "raw");
    std::unique_ptr<WatchClient> client = MakeClient(args, sink);
    const Resources before = Sample();
    const ReadCounts readsBefore = client->Reads();
    const Clock::time_point start = Clock::now();
    client->Start();
    Require(sink.WaitAdded(args.n, start + kWaitLimit), "initial sync did not complete");
    const Clock::time_point synced = Clock::now();
    const Resources after = Sample();
    Print("sync_ms", Millis(synced - start));
    PrintReads("sync", readsBefore, client->Reads());
    Print("cpu_s", after.cpuSeconds - before.cpuSeconds);
    Print("rss_before_kib", before.rssKiB);
    Print("rss_after_kib", after.rssKiB);
    Print("peak_rss_kib", after.peakRssKiB);
    Print("heap_growth_bytes", after.heapBytes - before.heapBytes);
    if (args.updates > 0) MeasureLatency(args, sink);
}

void RunChurn(const Args& args) {
    InstanceSink sink(args.client != "cache" && args.client != "raw");
    std::unique_ptr<WatchClient> client = MakeClient(args, sink);
    client->Start();
    Require(sink.WaitAdded(args.n, Clock::now() + kWaitLimit), "initial sync did not complete");

    ZkWriter writer(args.zk);
    const std::vector<ServiceId> ids = RandomIds(args.joins);
    std::vector<std::string> paths;
    for (const ServiceId& id : ids) paths.push_back(InstancePath(args.service, id));
    const ReadCounts readsBefore = client->Reads();
    const Clock::time_point start = Clock::now();
    for (size_t i = 0; i < ids.size(); ++i) {
        writer.Create(paths[i], EncodeEnvelope(MakeRecord(args.n + i, 0)));
        Require(sink.WaitAdded(args.n + i + 1, Clock::now() + kWaitLimit), "no added notice for " + paths[i]);
    }
    const Clock::time_point done = Clock::now();
    Print("churn_ms", Millis(done - start));
    PrintReads("churn", readsBefore, client->Reads());

    client.reset();
    writer.DeleteAll(paths);
}

}  // namespace

int RunChild(int argc, char** argv) {
    try {
        const Args args = Parse(argc, argv);
        if (args.mode == "sync") {
            RunSync(args);
        } else if (args.mode == "churn") {
            RunChurn(args);
        } else {
            throw std::runtime_error("child: unknown mode " + args.mode);
        }
    } catch (const std::exception& e) {
        std::cerr << "child failed: " << e.what() << std::endl;
        return 1;
    }
    std::fflush(stdout);
    return 0;
}

}  // namespace bench
}  // namespace jx
