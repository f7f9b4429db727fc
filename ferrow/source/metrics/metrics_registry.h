#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "ferrow/metrics.h"

namespace jx {
namespace ferrow {
namespace details {

// One object's place in the process's collection of metrics: `collect`
// adds the object's figures to a Metrics. The owner makes it once it is
// ready to be read and calls Close before any member that `collect` reads
// is destroyed (first thing in its destructor): once Close returns,
// `collect` is not running and never runs again.
//
// A collection holds the source's own lock while `collect` runs, and no
// lock that making or closing another source takes; so `collect` may take
// the owner's locks, and must not make or close a source.
class MetricsSource {
public:
    explicit MetricsSource(std::function<void(Metrics&)> collect);
    ~MetricsSource();
    MetricsSource(const MetricsSource&) = delete;
    MetricsSource& operator=(const MetricsSource&) = delete;

    void Close();

    // For the registry: takes this source's lock, then lets go of
    // `registryLock` (held by the caller, so that the source cannot close
    // in between) and runs `collect` unless closed.
    void CollectInto(Metrics& metrics, std::unique_lock<std::mutex>& registryLock);

private:
    std::mutex m_mtx;  // held while collecting and while closing
    std::function<void(Metrics&)> m_collect;  // empty once closed
    std::uint64_t m_key = 0;
};

}  // namespace details
}  // namespace ferrow
}  // namespace jx
