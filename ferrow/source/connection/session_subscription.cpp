#include "connection/session_subscription.h"

#include <utility>

namespace jx {
namespace ferrow {
namespace details {

struct SessionSubscription::Relay : ConnectionObserver {
    explicit Relay(std::weak_ptr<ConnectionObserver> target) : target(std::move(target)) {}
    void OnSessionEvent(int type, int state, String path) override {
        if (const std::shared_ptr<ConnectionObserver> alive = target.lock()) {
            alive->OnSessionEvent(type, state, std::move(path));
        }
    }
    const std::weak_ptr<ConnectionObserver> target;
};

SessionSubscription::SessionSubscription(Connection& conn, std::weak_ptr<ConnectionObserver> target)
    : m_conn(&conn), m_relay(std::make_shared<Relay>(std::move(target))) {
    conn.RegisterWeak(std::weak_ptr<ConnectionObserver>(m_relay));
}

void SessionSubscription::Reset() {
    if (!m_relay) return;
    Connection* conn = m_conn;
    std::shared_ptr<Relay> relay = std::move(m_relay);
    if (conn->IsDeliveryThread()) return conn->UnregisterRaw(relay.get());
    // Held by the task, so that the registry can still match it there; the
    // task runs only while the connection lives.
    conn->Post([conn, relay] { conn->UnregisterRaw(relay.get()); });
}

}  // namespace details
}  // namespace ferrow
}  // namespace jx
