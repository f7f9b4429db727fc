#include "tests/integration/watch_harness.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "tests/support/expire_session.h"
#include "tests/support/poll.h"

namespace jx {
namespace testing {

using ferrow::ServiceId;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

namespace {

// What differs between the watcher's view and `truth`, or "" when nothing.
std::string Difference(const InstanceMap& truth, const InstanceMap& picture, std::vector<ServiceId> listed) {
    const ::testing::AssertionResult same = SameInstances(truth, picture);
    std::sort(listed.begin(), listed.end());
    std::vector<ServiceId> expected;
    for (const auto& entry : truth) expected.push_back(entry.first);
    if (same && listed == expected) return std::string();
    std::string why = same ? std::string("the picture matches") : std::string(same.message());
    if (listed != expected) {
        why += "; ListInstances has " + std::to_string(listed.size()) + " ids, the truth " +
               std::to_string(expected.size());
    }
    return why;
}

}  // namespace

std::optional<double> AwaitConvergence(const ferrow::ServiceWatcher& watcher,
                                       const std::function<InstanceMap()>& picture,
                                       const std::function<InstanceMap()>& truth, seconds deadline,
                                       std::string* why) {
    const auto start = steady_clock::now();
    std::string difference;
    const bool converged = PollUntil(
        [&] {
            try {
                const InstanceMap expected = truth();
                difference = Difference(expected, picture(), watcher.ListInstances());
            } catch (const std::exception& e) {
                difference = e.what();
            }
            return difference.empty();
        },
        deadline, milliseconds(50));
    if (converged) return std::chrono::duration<double>(steady_clock::now() - start).count();
    if (why != nullptr) *why = difference;
    return std::nullopt;
}

Churn::Churn(const std::string& connect, const std::string& service, size_t maxInstances, std::uint32_t seed)
    : m_writer(connect, service, milliseconds(4000)), m_maxInstances(maxInstances), m_random(seed) {}

Churn::~Churn() { Stop(); }

void Churn::Start() {
    m_stop = false;
    m_thread = std::thread([this] { Run(); });
}

void Churn::Stop() {
    m_stop = true;
    if (m_thread.joinable()) m_thread.join();
}

bool Churn::AwaitProgress(std::uint64_t count, seconds deadline) const {
    const std::uint64_t target = m_succeeded + count;
    return PollUntil([&] { return m_succeeded >= target; }, deadline);
}

void Churn::Run() {
    static const Encoding kEncodings[] = {Encoding::Raw, Encoding::Zlib, Encoding::ZlibWithoutSize};
    while (!m_stop) {
        // Joins dominate while the service is small, leaves while it is full.
        const unsigned roll = m_random() % 100;
        const size_t live = m_live.size();
        const Encoding encoding = kEncodings[m_random() % 3];
        const size_t index = live == 0 ? 0 : m_random() % live;
        try {
            if (live == 0 || (live < m_maxInstances && roll < 40)) {
                ServiceId id;
                for (auto& byte : id.data) byte = static_cast<std::uint8_t>(m_random());
                // A lost connection may hide a create that took place: the id
                // is remembered before the attempt.
                m_live.push_back(id);
                m_writer.Create(id, MakeRecord(++m_version), encoding);
            } else if (roll < 75) {
                m_writer.Set(m_live[index], MakeRecord(++m_version), encoding);
            } else {
                m_writer.Remove(m_live[index]);
                m_live[index] = m_live.back();
                m_live.pop_back();
            }
            ++m_succeeded;
        } catch (const std::runtime_error&) {
            ++m_failed;
            // An id whose node is known to be absent is forgotten.
            if (live > 0 && index < m_live.size() &&
                m_writer.Connection().Exists(m_writer.InstancePath(m_live[index]), nullptr) == ZNONODE) {
                m_live[index] = m_live.back();
                m_live.pop_back();
            }
            // Paces the retries through an outage instead of spinning.
            std::this_thread::sleep_for(milliseconds(20));
        }
    }
}

bool ExpireAndAwaitNewSession(const std::string& connect, const ferrow::ZooKeeperConnection& conn) {
    const std::int64_t old = conn.SessionId();
    for (int attempt = 0; attempt < 10; ++attempt) {
        try {
            ExpireSession(connect, conn, seconds(10));
        } catch (const std::runtime_error&) {
            // The session may already be gone: look for the new one below.
        }
        const auto renewed = [&] {
            const std::int64_t now = conn.SessionId();
            return now != 0 && now != old;
        };
        if (PollUntil(renewed, seconds(3))) return true;
    }
    return false;
}

std::string Seconds(double seconds) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.1f s", seconds);
    return text;
}

}  // namespace testing
}  // namespace jx
