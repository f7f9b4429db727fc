#pragma once

#include <string>

#include <gtest/gtest.h>

#include "tests/support/instances.h"
#include "tests/support/zk_server.h"

namespace jx {
namespace testing {

// A suite whose tests share one standalone server, started before its first
// test and killed after its last; each test writes the service named after
// it through `writer`.
class ServerSuite : public ::testing::Test {
protected:
    static void SetUpTestSuite() { (s_server = new ZkServer())->Start(); }
    static void TearDownTestSuite() {
        delete s_server;
        s_server = nullptr;
    }
    static inline ZkServer* s_server = nullptr;
    const std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    InstanceWriter writer{s_server->ConnectString(), name};
};

}  // namespace testing
}  // namespace jx
