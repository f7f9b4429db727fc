// Publishing, the `ferrow` tool and the README's examples against a real
// server: the library's registration, the built programs run as child
// processes.

#include <signal.h>

#include <boost/uuid/uuid_io.hpp>
#include <google/protobuf/util/json_util.h>
#include <gtest/gtest.h>

#include "ferrow/error.h"
#include "ferrow/instance_data.h"
#include "ferrow/service_registration.h"
#include "tests/support/instances.h"
#include "tests/support/support.h"
#include "tests/support/subprocess.h"
#include "tests/support/zk_server.h"

namespace jx {
namespace ferrow {
namespace {

using testing::MakeRecord;
using testing::ReadNode;
using testing::SameRecord;
using testing::Subprocess;
constexpr std::chrono::seconds kTimeout(60);

class ToolTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { (s_server = new testing::ZkServer())->Start(); }
    static void TearDownTestSuite() { delete s_server; }
    // The tool's command line with the test server's address.
    static std::vector<std::string> Tool(std::vector<std::string> args) {
        args.insert(args.begin(), {FERROW_CLI_PATH, "--zk", s_server->ConnectString()});
        return args;
    }
    static inline testing::ZkServer* s_server = nullptr;
};

// The record inside `line` = prefix + record JSON + "}", or a failure.
ServiceInstanceData RecordIn(const std::optional<std::string>& line, const std::string& prefix) {
    ServiceInstanceData record;
    EXPECT_TRUE(line && line->rfind(prefix, 0) == 0 && line->back() == '}') << line.value_or("(no line)");
    if (line && line->size() > prefix.size()) {
        EXPECT_TRUE(google::protobuf::util::JsonStringToMessage(line->substr(prefix.size(), line->size() - prefix.size() - 1), &record).ok());
    }
    return record;
}

TEST_F(ToolTest, RegisterUpdateWatchListAndGetAgreeWithWhatIsStored) {
    const auto conn = testing::Connect(s_server->ConnectString());
    Subprocess watch(Tool({"watch", "tool", "--json"}));
    Subprocess reg(Tool({"register", "tool", "--host", "10.0.0.1", "--port", "8080", "--zone", "eu-1", "--meta", "env=prod",
                         "--meta", "drop=me", "--compress"}));
    const auto id = reg.ReadLine(kTimeout);
    ASSERT_TRUE(id) << reg.Stderr();
    const String path = "/srv2/tool/" + *id;
    const String prefix = "{\"event\":\"added\",\"service\":\"tool\",\"id\":\"" + *id + "\",\"instance\":";
    ServiceInstanceData expected = RecordIn(watch.ReadLine(kTimeout), prefix);
    EXPECT_GT(expected.registered_at_ms(), 0u);
    EXPECT_EQ(expected.host() + expected.zone() + expected.metadata().at("env"), "10.0.0.1eu-1prod");
    auto bytes = ReadNode(*conn, path);
    ASSERT_TRUE(bytes);
    EXPECT_TRUE(SameRecord(DecodeInstanceData(*bytes), expected));
    EXPECT_NE(bytes->find('\x78'), std::string::npos) << "stored compressed";

    const auto update = testing::Run(Tool({"update", "tool", *id, "--weight", "77", "--meta", "added=yes", "--remove-meta", "drop"}), kTimeout);
    ASSERT_EQ(update.code, 0) << update.err;
    expected.set_weight(77);
    (*expected.mutable_metadata())["added"] = "yes";
    expected.mutable_metadata()->erase("drop");
    EXPECT_TRUE(SameRecord(RecordIn(watch.ReadLine(kTimeout), "{\"event\":\"modified\"" + prefix.substr(16)), expected));
    const auto get = testing::Run(Tool({"get", "tool", *id, "--json"}), kTimeout);
    EXPECT_TRUE(SameRecord(RecordIn(get.out.substr(0, get.out.size() - 1), "{\"id\":\"" + *id + "\",\"instance\":"), expected));
    const auto list = testing::Run(Tool({"list", "tool", "--json"}), kTimeout);
    EXPECT_TRUE(SameRecord(RecordIn(list.out.substr(1, list.out.size() - 3), "{\"id\":\"" + *id + "\",\"instance\":"), expected));

    reg.Signal(SIGTERM);
    EXPECT_EQ(reg.Wait(kTimeout), 0) << reg.Stderr();
    EXPECT_FALSE(ReadNode(*conn, path));
    EXPECT_EQ(watch.ReadLine(kTimeout), "{\"event\":\"removed\",\"service\":\"tool\",\"id\":\"" + *id + "\"}");
    watch.Signal(SIGINT);
    EXPECT_EQ(watch.Wait(kTimeout), 0) << watch.Stderr();
}

TEST_F(ToolTest, EachFailureExitsWithItsCodeAndOneLineOnStandardError) {
    ServiceRegistration taken(testing::Connect(s_server->ConnectString()), "tool-errors", MakeRecord(4));
    const std::string takenId = boost::uuids::to_string(taken.Id());
    const std::string missingId = "0b5a2e8c-1d7f-4c3a-9e2b-5f6a7b8c9d0e";
    const std::string unreachable = "127.0.0.1:" + std::to_string(testing::FreeLoopbackPort());
    struct Row {
        std::vector<std::string> command;
        std::vector<std::string> env;
        int code;
        std::string err;  // the whole of standard error, or for code 2 a part of the usage text
    };
    const Row rows[] = {
        {{FERROW_CLI_PATH, "--zk", unreachable, "--session-timeout", "1000", "list", "any"}, {}, 1,
         "ferrow: cannot connect to ZooKeeper at " + unreachable + " within 1000 ms\n"},
        {{FERROW_CLI_PATH, "--session-timeout", "500", "list", "any"}, {"FERROW_ZK=" + unreachable}, 1,
         "ferrow: cannot connect to ZooKeeper at " + unreachable + " within 500 ms\n"},
        {Tool({"list", "tool-no-such-service"}), {}, 1, "ferrow: service 'tool-no-such-service' does not exist\n"},
        {Tool({"get", "tool-errors", missingId}), {}, 1, "ferrow: instance " + missingId + " of service 'tool-errors' does not exist\n"},
        {Tool({"register", "tool-errors", "--host", "h", "--port", "1", "--id", takenId}), {}, 1,
         "ferrow: instance " + takenId + " of service 'tool-errors' is already registered\n"},
        {Tool({"get", "tool-errors", "not-a-uuid"}), {}, 2, "'not-a-uuid' is not a UUID"},
        {Tool({"register", "tool-errors", "--host", "h", "--port", "1", "--meta", "novalue"}), {}, 2, "'novalue' is not KEY=VALUE"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.err);
        const auto result = testing::Run(row.command, kTimeout, row.env);
        EXPECT_EQ(result.code, row.code);
        EXPECT_TRUE(row.code == 2 ? result.err.find(row.err) != std::string::npos : result.err == row.err) << result.err;
        EXPECT_EQ(result.out, "");
    }
}

TEST_F(ToolTest, RegistrationPublishesCompressesUpdatesRefusesATakenIdAndReappearsAfterExpiry) {
    const auto conn = testing::Connect(s_server->ConnectString());
    String path;
    {
        ServiceRegistration registration(conn, "reg", MakeRecord(1));
        path = registration.Path();
        EXPECT_EQ(path, "/srv2/reg/" + boost::uuids::to_string(registration.Id()));
        EXPECT_EQ(registration.Id().version(), boost::uuids::uuid::version_random_number_based);
        EXPECT_TRUE(SameRecord(DecodeInstanceData(*ReadNode(*conn, path)), MakeRecord(1)));
    }
    EXPECT_FALSE(ReadNode(*conn, path)) << "deleted with the registration";

    const auto large = MakeRecord(3, 4 * kCompressionThreshold);
    const ServiceRegistration plain(conn, "reg", MakeRecord(2)), forced(conn, "reg", MakeRecord(2), true), big(conn, "reg", large);
    EXPECT_EQ(ReadNode(*conn, plain.Path()), EncodeInstanceData(MakeRecord(2), false));
    EXPECT_EQ(ReadNode(*conn, forced.Path()), EncodeInstanceData(MakeRecord(2), true));
    EXPECT_TRUE(SameRecord(DecodeInstanceData(*ReadNode(*conn, big.Path())), large));
    EXPECT_LT(ReadNode(*conn, big.Path())->size(), large.ByteSizeLong()) << "large records are stored compressed";
    try {
        ServiceRegistration second(conn, "reg", plain.Id(), MakeRecord(7));
        ADD_FAILURE() << "a second registration under the same id was accepted";
    } catch (const ZooError& e) {
        EXPECT_EQ(e.Code(), ZNODEEXISTS);
    }

    ServiceRegistration registration(conn, "reg", MakeRecord(8));
    registration.Update(MakeRecord(9));
    const auto old = conn->SessionId();
    ASSERT_TRUE(testing::ExpireSession(s_server->ConnectString(), *conn));
    // Re-created means: owned by a new session of the same connection, with
    // the latest record.
    const auto republished = [&] {
        Stat stat{};
        String bytes(kInstanceReadCapacity, '\0');
        return conn->Get(registration.Path(), bytes, &stat) == ZOK && stat.ephemeralOwner != old &&
               bytes == EncodeInstanceData(MakeRecord(9), false);
    };
    EXPECT_TRUE(testing::PollUntil(republished, std::chrono::seconds(60))) << "the node was not published again";
}

TEST_F(ToolTest, WatchServiceExamplePrintsWhatPublishInstanceExampleDoes) {
    Subprocess watch({WATCH_SERVICE_PATH, s_server->ConnectString(), "example", "3", "60"});
    ASSERT_EQ(watch.ReadLine(kTimeout), "watching example") << watch.Stderr();
    Subprocess publish({PUBLISH_INSTANCE_PATH, s_server->ConnectString(), "example", "10.1.2.3", "8443"});
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
}  // namespace ferrow
}  // namespace jx
