// Micro-benchmarks of the watcher's building blocks: the observer registry,
// the log statement, the ServiceId hash, the envelope and record decoding.

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include <boost/lexical_cast.hpp>
#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "bench_support.h"
#include "ferrow/zlib.h"
#include "logger/log_handler.h"
#include "logger/logger.h"
#include "utility/observable_impl.h"
#include "utility/uuid_text.h"
#include "watching/znode_data.h"

namespace jx {
namespace bench {
namespace {

class CountingObserver {
public:
    virtual ~CountingObserver() = default;
    virtual void OnEvent(int value) { m_sum += value; }
    long long m_sum = 0;
};

// Exposes the registry's notification to the benchmark.
class Registry : public ObservableImpl<CountingObserver> {
public:
    void Notify(int value) { NotifyObservers(&CountingObserver::OnEvent, value); }
};

// One notification to range(0) observers, all held strongly or all weakly.
void Notify(benchmark::State& state, bool strong) {
    Registry registry;
    std::vector<std::shared_ptr<CountingObserver>> observers;
    for (int64_t i = 0; i < state.range(0); ++i) {
        observers.push_back(std::make_shared<CountingObserver>());
        if (strong) {
            registry.RegisterShared(observers.back());
        } else {
            registry.RegisterWeak(observers.back());
        }
    }
    for (auto _ : state) registry.Notify(1);
    benchmark::DoNotOptimize(observers.front()->m_sum);
}
void BM_NotifyStrong(benchmark::State& state) { Notify(state, true); }
void BM_NotifyWeak(benchmark::State& state) { Notify(state, false); }
BENCHMARK(BM_NotifyStrong)->Arg(1)->Arg(10)->Arg(100);
BENCHMARK(BM_NotifyWeak)->Arg(1)->Arg(10)->Arg(100);

const logging::ConstSourcePtr g_benchLog = logging::MakeSource("ferrow.bench");

// A statement below the minimum level: only the level test runs.
void BM_LogSuppressed(benchmark::State& state) {
    logging::SetMinimumLoggingLevel(logging::JXLOG_INFO);
    int i = 0;
    for (auto _ : state) {
        JXLOG(logging::JXLOG_DEBUG, g_benchLog) << "Instance added: /srv2/bench/" << ++i;
    }
    benchmark::DoNotOptimize(i);
}
BENCHMARK(BM_LogSuppressed);

// A statement that builds the record and hands it to a handler that drops it.
void BM_LogWritten(benchmark::State& state) {
    logging::SetMinimumLoggingLevel(logging::JXLOG_DEBUG);
    logging::LogHandler previous = logging::SetLogHandler([](const logging::LogRecord&) {});
    int i = 0;
    for (auto _ : state) {
        JXLOG(logging::JXLOG_DEBUG, g_benchLog) << "Instance added: /srv2/bench/" << ++i;
    }
    logging::SetLogHandler(std::move(previous));
    logging::SetMinimumLoggingLevel(logging::JXLOG_INFO);
}
BENCHMARK(BM_LogWritten);

const std::vector<ServiceId>& HashInputs() {
    static const std::vector<ServiceId> ids = RandomIds(1024);
    return ids;
}

void BM_HashServiceId(benchmark::State& state) {
    const std::vector<ServiceId>& ids = HashInputs();
    const std::hash<ServiceId> hash;
    size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(hash(ids[i++ & 1023]));
}
BENCHMARK(BM_HashServiceId);

void BM_HashBoost(benchmark::State& state) {
    const std::vector<ServiceId>& ids = HashInputs();
    size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(boost::uuids::hash_value(ids[i++ & 1023]));
}
BENCHMARK(BM_HashBoost);

const std::vector<std::string>& IdTexts() {
    static const std::vector<std::string> texts = [] {
        std::vector<std::string> out;
        for (const ServiceId& id : HashInputs()) out.push_back(boost::uuids::to_string(id));
        return out;
    }();
    return texts;
}

// A child name read back as the watcher does it: the canonical form directly.
void BM_ParseServiceIdCanonical(benchmark::State& state) {
    const std::vector<std::string>& texts = IdTexts();
    size_t i = 0;
    ServiceId id;
    for (auto _ : state) benchmark::DoNotOptimize(ParseCanonicalUuid(texts[i++ & 1023], id));
}
BENCHMARK(BM_ParseServiceIdCanonical);

// Through the stream operator, as the watcher reads any other name.
void BM_ParseServiceIdLexicalCast(benchmark::State& state) {
    const std::vector<std::string>& texts = IdTexts();
    size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(boost::lexical_cast<ServiceId>(texts[i++ & 1023]));
}
BENCHMARK(BM_ParseServiceIdLexicalCast);

void BM_ParseServiceIdStringGenerator(benchmark::State& state) {
    const std::vector<std::string>& texts = IdTexts();
    const boost::uuids::string_generator parse;
    size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(parse(texts[i++ & 1023]));
}
BENCHMARK(BM_ParseServiceIdStringGenerator);

void BM_ParseZNodeDataRaw(benchmark::State& state) {
    const String envelope = EncodeEnvelope(MakeRecord(4242, 0));
    for (auto _ : state) benchmark::DoNotOptimize(ferrow::ParseZNodeData(envelope));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * envelope.size()));
}
BENCHMARK(BM_ParseZNodeDataRaw);

void BM_ParseZNodeDataCompressed(benchmark::State& state) {
    const String raw = MakeRecord(4242, 0).SerializeAsString();
    messaging::ferrow::ZNodeData envelope;
    envelope.set_data(ferrow::zlib::Compress(raw));
    envelope.set_data_size(raw.size());
    envelope.set_data_compression(messaging::ferrow::ZNodeData::COMP_ZLIB);
    const String bytes = envelope.SerializeAsString();
    for (auto _ : state) benchmark::DoNotOptimize(ferrow::ParseZNodeData(bytes));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_ParseZNodeDataCompressed);

void BM_ParseRecord(benchmark::State& state) {
    const String bytes = MakeRecord(4242, 0).SerializeAsString();
    ServiceInstanceData record;
    for (auto _ : state) {
        record.ParseFromString(bytes);
        benchmark::DoNotOptimize(record);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_ParseRecord);

}  // namespace
}  // namespace bench
}  // namespace jx

BENCHMARK_MAIN();
