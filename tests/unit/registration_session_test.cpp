// ServiceRegistration's answer to session events, over the scripted
// connection.

#include <memory>

#include <gtest/gtest.h>

#include "ferrow/error.h"
#include "ferrow/service_registration.h"
#include "tests/support/fake_connection.h"

namespace jx {
namespace ferrow {
namespace {

using jx::testing::FakeConnection;

// The session's first connected event can reach a registration after it
// joined the connection's observers and before its constructor created the
// node. That event is no new session: answering it by publishing would make
// the constructor's own create fail on a node that is already there.
TEST(RegistrationSessionTest, AConnectedEventBeforeTheFirstCreatePublishesNothing) {
    const auto conn = std::make_shared<FakeConnection>();
    conn->AfterRegisterWeak([&conn] {
        conn->SessionEvent(ZOO_SESSION_EVENT, ZOO_CONNECTED_STATE);
        ASSERT_TRUE(conn->Drain());
    });
    ServiceInstanceData record;
    record.set_host("10.0.0.1");
    std::unique_ptr<ServiceRegistration> registration;
    ASSERT_NO_THROW(registration = std::make_unique<ServiceRegistration>(conn, "svc", record));
    conn->AfterRegisterWeak(nullptr);

    String data;
    data.resize(1024);
    EXPECT_EQ(conn->Get(registration->Path(), data, nullptr), ZOK);
    EXPECT_TRUE(conn->Errors().empty());
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
