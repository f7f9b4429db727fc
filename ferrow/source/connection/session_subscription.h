#pragma once

// A registration for a connection's session events that ends without
// waiting for anyone else's callback.

#include <memory>

#include "ferrow/connection_v2.h"

namespace jx {
namespace ferrow {
namespace details {

// The connection's registry holds a relay, which holds the target weakly.
// Ending the subscription takes the relay out on the delivery thread (at
// once when already there), where the registry's removal never waits: a
// notification in progress for other observers, however long, delays
// nobody. Until the relay is out an event may still reach the target, so
// the target turns events away itself once it stops wanting them.
//
// Not thread-safe: its owner makes and resets it. The connection must
// outlive the subscription's owner, which holds it.
class SessionSubscription {
public:
    SessionSubscription() = default;
    SessionSubscription(Connection& conn, std::weak_ptr<ConnectionObserver> target);
    ~SessionSubscription() { Reset(); }
    SessionSubscription(SessionSubscription&& other) noexcept = default;
    SessionSubscription& operator=(SessionSubscription&& other) noexcept {
        Reset();
        m_conn = other.m_conn;
        m_relay = std::move(other.m_relay);
        return *this;
    }

    // Ends the subscription; no-op on an empty one. Never waits.
    void Reset();

private:
    struct Relay;

    Connection* m_conn = nullptr;
    std::shared_ptr<Relay> m_relay;
};

}  // namespace details
}  // namespace ferrow
}  // namespace jx
