// The README's example programs against a real ZooKeeper server: one
// publishes an instance and changes it, the other reports what happened.

#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/subprocess.h"
#include "tests/support/zk_server.h"

namespace jx {
namespace {

using testing::Subprocess;

constexpr std::chrono::seconds kTimeout(60);

TEST(ExampleTest, WatchServicePrintsWhatPublishInstanceDoes) {
    testing::ZkServer server;
    server.Start();

    Subprocess watch({WATCH_SERVICE_PATH, server.ConnectString(), "example", "3", "60"});
    ASSERT_EQ(watch.ReadLine(kTimeout), "watching example") << watch.Stderr();

    Subprocess publish({PUBLISH_INSTANCE_PATH, server.ConnectString(), "example", "10.1.2.3", "8443"});
    const auto id = publish.ReadLine(kTimeout);
    ASSERT_TRUE(id) << publish.Stderr();
    EXPECT_EQ(watch.ReadLine(kTimeout), "added " + *id + " 10.1.2.3:8443") << watch.Stderr();

    publish.WriteStdin("state=draining\n");
    EXPECT_EQ(watch.ReadLine(kTimeout), "modified " + *id + " 10.1.2.3:8443") << watch.Stderr();

    publish.CloseStdin();
    EXPECT_EQ(publish.Wait(kTimeout), 0) << publish.Stderr();
    EXPECT_EQ(watch.ReadLine(kTimeout), "removed " + *id) << watch.Stderr();
    EXPECT_EQ(watch.Wait(kTimeout), 0) << watch.Stderr();
}

}  // namespace
}  // namespace jx
