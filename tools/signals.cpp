#include "signals.h"

#include <pthread.h>

#include <cstring>
#include <ctime>
#include <stdexcept>
#include <string>

namespace jx {
namespace ferrow {
namespace cli {

StopSignals::StopSignals() {
    sigemptyset(&m_set);
    sigaddset(&m_set, SIGINT);
    sigaddset(&m_set, SIGTERM);
    const int rc = pthread_sigmask(SIG_BLOCK, &m_set, nullptr);
    if (rc != 0) throw std::runtime_error(std::string("cannot block signals: ") + std::strerror(rc));
}

int StopSignals::Wait() const {
    int signal = 0;
    sigwait(&m_set, &signal);  // fails only for an invalid set
    return signal;
}

std::optional<int> StopSignals::WaitFor(std::chrono::milliseconds timeout) const {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(timeout);
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(seconds.count());
    ts.tv_nsec = static_cast<long>(std::chrono::nanoseconds(timeout - seconds).count());
    const int signal = sigtimedwait(&m_set, nullptr, &ts);
    if (signal > 0) return signal;
    return std::nullopt;  // EAGAIN: timed out; EINTR: another signal, treated as no stop
}

}  // namespace cli
}  // namespace ferrow
}  // namespace jx
