#pragma once

#include <memory>

#include <gtest/gtest.h>

#include "tests/support/zk_server.h"

namespace jx {
namespace testing {

// Base of a test suite whose tests share one real server: started before the
// suite's first test, stopped by its process id after the last one.
class SharedServerTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        s_server = std::make_unique<ZkServer>();
        s_server->Start();
    }
    static void TearDownTestSuite() { s_server.reset(); }

    static inline std::unique_ptr<ZkServer> s_server;
};

}  // namespace testing
}  // namespace jx
