#pragma once

// How many asynchronous reads a session hands the ZooKeeper client at a time.
//
// Two bounds, for two different costs:
//  - the window bounds the reads on the wire (handed to the client, not yet
//    answered). It starts at its floor and grows by one for each answer that
//    spent no more than a few reads' worth of its round trip queued behind
//    others, so it doubles every round trip while the distance to the server,
//    not the server, is what holds the reads back; it shrinks again, down to
//    its floor, while answers show reads queued at the server or client. A
//    server 20 ms away thus gets the reads a round trip needs, and one on a
//    local network is not sent more than it answers;
//  - the answers limit bounds the answers that have arrived and wait for the
//    delivery thread, which is what a large sync holds in memory when its
//    owner is slower than the server. While it is reached nothing is issued;
//    once half of them have been delivered issuing resumes.
//
// Pure bookkeeping: no clock, no lock, no client. Its owner guards it with
// one mutex and reports every read's issue, answer and delivery.

#include <algorithm>
#include <chrono>
#include <cstddef>

namespace jx {
namespace ferrow {
namespace details {

class ReadWindow {
public:
    using Duration = std::chrono::steady_clock::duration;

    // The most reads it ever keeps on the wire.
    static constexpr size_t kMaxWindow = 16384;
    // An answer that waited behind fewer reads than this grows the window;
    // behind more than kShrinkQueued, it shrinks it.
    static constexpr size_t kGrowQueued = 64;
    static constexpr size_t kShrinkQueued = 256;

    // `floor`: the first and smallest window, 0 for no window at all (every
    // read issued at once); `answersLimit`: 0 for no limit.
    ReadWindow(size_t floor, size_t answersLimit)
        : m_floor(floor), m_answersLimit(answersLimit), m_window(floor) {}

    // Whether one more read may go to the client now. A refusal for the
    // answers limit is remembered: Delivered says when to try again.
    bool MayIssue() {
        if (m_answersLimit != 0 && m_answersWaiting >= m_answersLimit) {
            m_stalled = true;
            return false;
        }
        return m_floor == 0 || m_onWire < m_window;
    }

    // Whether a refill of `waiting` reads held back may start now: once an
    // eighth of the window is free (or all of them fit), so that the client
    // sends reads in batches rather than one per answer.
    bool MayRefill(size_t waiting) const {
        if (m_floor == 0) return true;
        const size_t room = m_onWire < m_window ? m_window - m_onWire : 0;
        return room >= std::min(waiting, std::max<size_t>(1, m_window / 8));
    }

    void Issued() { ++m_onWire; }

    // A read's answer arrived `roundTrip` after it was issued; `readsWait`:
    // reads are held back for room, so the window is what limits them.
    void Answered(Duration roundTrip, bool readsWait) {
        --m_onWire;
        ++m_answersWaiting;
        if (m_floor == 0) return;
        if (!readsWait) {
            // Nothing on the wire and nothing waiting for room: the next
            // burst measures the bare round trip again, which may have
            // changed meanwhile.
            if (m_onWire == 0) m_baseRoundTrip = Duration::zero();
            return;
        }
        if (m_baseRoundTrip == Duration::zero() || roundTrip < m_baseRoundTrip) m_baseRoundTrip = roundTrip;
        if (roundTrip <= Duration::zero()) return;
        // The share of the round trip this answer spent queued, times the
        // reads on the wire: about how many reads were queued ahead of it.
        const double queued = static_cast<double>(m_window) *
                              (1.0 - static_cast<double>(m_baseRoundTrip.count()) / static_cast<double>(roundTrip.count()));
        if (queued < static_cast<double>(kGrowQueued)) {
            m_window = std::min(m_window + 1, std::max(kMaxWindow, m_floor));
        } else if (queued > static_cast<double>(kShrinkQueued) && m_window > m_floor) {
            --m_window;
        }
    }

    // An answer counted by Answered was delivered. Returns true when issuing,
    // stopped by the answers limit, may resume now.
    bool Delivered() {
        --m_answersWaiting;
        if (!m_stalled || m_answersWaiting > m_answersLimit / 2) return false;
        m_stalled = false;
        return true;
    }

    size_t Window() const { return m_window; }
    size_t OnWire() const { return m_onWire; }
    size_t AnswersWaiting() const { return m_answersWaiting; }

private:
    const size_t m_floor;
    const size_t m_answersLimit;
    size_t m_window;
    size_t m_onWire = 0;
    size_t m_answersWaiting = 0;
    bool m_stalled = false;
    // The shortest round trip of a held-back burst since the session last
    // went idle: what a read costs with nothing queued ahead of it.
    Duration m_baseRoundTrip = Duration::zero();
};

}  // namespace details
}  // namespace ferrow
}  // namespace jx
