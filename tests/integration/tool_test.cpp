// The `ferrow` tool run as a child process against a real ZooKeeper server.

#include <signal.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/uuid/uuid_io.hpp>
#include <google/protobuf/util/json_util.h>
#include <gtest/gtest.h>

#include "ferrow/instance_data.h"
#include "ferrow/service_registration.h"
#include "ferrow/zookeeper_connection.h"
#include "messaging/ferrow/service.pb.h"
#include "tests/support/instance_writer.h"
#include "tests/support/subprocess.h"
#include "tests/support/shared_server_test.h"
#include "tests/support/zk_server.h"

namespace jx {
namespace ferrow {
namespace {

using testing::MakeRecord;
using testing::RunResult;
using testing::ReadNode;
using testing::SameRecord;
using testing::Subprocess;

constexpr std::chrono::seconds kTimeout(60);

// The protobuf JSON text of one record. Records and maps are built and read
// back only through the protobuf library and generated code (never through
// a map filled by the library and read by inline code here), which keeps
// this test valid under ThreadSanitizer with an uninstrumented libprotobuf.
ServiceInstanceData ParseRecord(const std::string& json) {
    ServiceInstanceData record;
    const auto status = google::protobuf::util::JsonStringToMessage(json, &record);
    EXPECT_TRUE(status.ok()) << status.ToString() << " in " << json;
    return record;
}

// The part of `text` between `prefix` and `suffix`, or nothing when `text`
// does not have them.
std::optional<std::string> Between(const std::string& text, const std::string& prefix, const std::string& suffix) {
    if (text.size() < prefix.size() + suffix.size() || text.compare(0, prefix.size(), prefix) != 0 ||
        text.compare(text.size() - suffix.size(), suffix.size(), suffix) != 0) {
        return std::nullopt;
    }
    return text.substr(prefix.size(), text.size() - prefix.size() - suffix.size());
}

// The elements of a JSON array of objects, as text.
std::vector<std::string> ArrayObjects(const std::string& array) {
    std::vector<std::string> objects;
    int depth = 0;
    bool inString = false;
    size_t start = 0;
    for (size_t i = 0; i < array.size(); ++i) {
        const char c = array[i];
        if (inString) {
            if (c == '\\') ++i;
            else if (c == '"') inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '{') {
            if (depth++ == 0) start = i;
        } else if (c == '}') {
            if (--depth == 0) objects.push_back(array.substr(start, i - start + 1));
        }
    }
    return objects;
}

// The record of `{"id":"<id>","instance":{...}}`, or nothing when `entry` is
// not that object for `id`.
std::optional<ServiceInstanceData> EntryRecord(const std::string& entry, const std::string& id) {
    const auto instance = Between(entry, "{\"id\":\"" + id + "\",\"instance\":", "}");
    if (!instance) return std::nullopt;
    return ParseRecord(*instance);
}

class ToolTest : public testing::SharedServerTest {
protected:
    // The tool's command line with the test server's address.
    static std::vector<std::string> Tool(std::vector<std::string> args) {
        args.insert(args.begin(), {FERROW_CLI_PATH, "--zk", s_server->ConnectString()});
        return args;
    }

    static RunResult RunTool(const std::vector<std::string>& args) {
        return testing::Run(Tool(args), kTimeout);
    }

    static std::shared_ptr<ZooKeeperConnection> Connect() { return testing::Connect(s_server->ConnectString()); }


};


TEST_F(ToolTest, WatchJsonReportsARegisteredInstanceAddedAndRemovedWhenRegisterStops) {
    Subprocess watch(Tool({"watch", "tool-watch", "--json"}));
    Subprocess reg(Tool({"register", "tool-watch", "--host", "10.0.0.1", "--port", "8080", "--zone", "eu-1",
                         "--meta", "env=prod"}));
    const auto id = reg.ReadLine(kTimeout);
    ASSERT_TRUE(id) << reg.Stderr();

    const auto added = watch.ReadLine(kTimeout);
    ASSERT_TRUE(added) << watch.Stderr();
    const auto instance =
        Between(*added, "{\"event\":\"added\",\"service\":\"tool-watch\",\"id\":\"" + *id + "\",\"instance\":", "}");
    ASSERT_TRUE(instance) << *added;
    const auto record = ParseRecord(*instance);
    EXPECT_GT(record.registered_at_ms(), 0u);
    ServiceInstanceData expected;
    expected.set_host("10.0.0.1");
    expected.set_port(8080);
    expected.set_zone("eu-1");
    (*expected.mutable_metadata())["env"] = "prod";
    expected.set_registered_at_ms(record.registered_at_ms());
    EXPECT_TRUE(SameRecord(record, expected)) << *added;

    reg.Signal(SIGTERM);
    EXPECT_EQ(reg.Wait(kTimeout), 0) << reg.Stderr();
    EXPECT_EQ(watch.ReadLine(kTimeout), "{\"event\":\"removed\",\"service\":\"tool-watch\",\"id\":\"" + *id + "\"}")
        << watch.Stderr();

    watch.Signal(SIGINT);
    EXPECT_EQ(watch.Wait(kTimeout), 0) << watch.Stderr();
    EXPECT_EQ(watch.Stdout(), "");
}

TEST_F(ToolTest, ListAndGetReadCompressedAndPlainRecordsBackEqual) {
    const auto conn = Connect();
    const auto plainRecord = MakeRecord(1);
    const auto compressedRecord = MakeRecord(2);
    ServiceRegistration plain(conn, "tool-list", plainRecord);
    ServiceRegistration compressed(conn, "tool-list", compressedRecord, true);

    const auto list = RunTool({"list", "tool-list", "--json"});
    ASSERT_EQ(list.code, 0) << list.err;
    const auto entries = ArrayObjects(list.out);
    ASSERT_EQ(entries.size(), 2u) << list.out;

    for (const auto* registration : {&plain, &compressed}) {
        const auto id = boost::uuids::to_string(registration->Id());
        const auto get = RunTool({"get", "tool-list", id, "--json"});
        ASSERT_EQ(get.code, 0) << get.err;
        ASSERT_EQ(get.out.back(), '\n');
        const auto fromGet = EntryRecord(get.out.substr(0, get.out.size() - 1), id);
        ASSERT_TRUE(fromGet) << get.out;
        EXPECT_TRUE(SameRecord(*fromGet, registration->Record())) << get.out;

        bool listed = false;
        for (const auto& entry : entries) {
            const auto fromList = EntryRecord(entry, id);
            if (!fromList) continue;
            listed = true;
            EXPECT_TRUE(SameRecord(*fromList, registration->Record())) << entry;
        }
        EXPECT_TRUE(listed) << id << " missing from " << list.out;
    }
}

TEST_F(ToolTest, RegisterCompressStoresACompressedNodeAndDeletesItOnSigterm) {
    const auto conn = Connect();
    Subprocess reg(Tool({"register", "tool-compress", "--host", "h1", "--port", "9", "--compress"}));
    const auto id = reg.ReadLine(kTimeout);
    ASSERT_TRUE(id) << reg.Stderr();
    const String path = "/srv2/tool-compress/" + *id;

    const auto bytes = ReadNode(*conn, path);
    ASSERT_TRUE(bytes);
    messaging::ferrow::ZNodeData envelope;
    envelope.ParseFromString(*bytes);
    EXPECT_EQ(envelope.data_compression(), messaging::ferrow::ZNodeData::COMP_ZLIB);
    const auto record = DecodeInstanceData(*bytes);
    EXPECT_EQ(record.host(), "h1");
    EXPECT_EQ(record.port(), 9u);

    reg.Signal(SIGTERM);
    EXPECT_EQ(reg.Wait(kTimeout), 0) << reg.Stderr();
    EXPECT_FALSE(ReadNode(*conn, path));
}

TEST_F(ToolTest, UpdateChangesOnlyTheGivenFields) {
    const auto conn = Connect();
    auto original = MakeRecord(3);
    (*original.mutable_metadata())["drop"] = "me";
    ServiceRegistration registration(conn, "tool-update", original);

    const auto update = RunTool({"update", "tool-update", boost::uuids::to_string(registration.Id()), "--weight",
                                 "77", "--meta", "added=yes", "--remove-meta", "drop"});
    ASSERT_EQ(update.code, 0) << update.err;

    auto expected = original;
    expected.set_weight(77);
    (*expected.mutable_metadata())["added"] = "yes";
    expected.mutable_metadata()->erase("drop");
    const auto bytes = ReadNode(*conn, registration.Path());
    ASSERT_TRUE(bytes);
    EXPECT_TRUE(SameRecord(DecodeInstanceData(*bytes), expected));
}

TEST_F(ToolTest, EachFailureExitsWithItsCodeAndOneMessageOnStandardError) {
    const auto conn = Connect();
    ServiceRegistration taken(conn, "tool-errors", MakeRecord(4));
    const std::string takenId = boost::uuids::to_string(taken.Id());
    const std::string missingId = "0b5a2e8c-1d7f-4c3a-9e2b-5f6a7b8c9d0e";
    const std::string unreachable = "127.0.0.1:" + std::to_string(testing::FreeLoopbackPort());
    struct Case {
        std::vector<std::string> command;
        std::vector<std::string> env;
        int code;
        std::string err;
        bool errIsWhole;  // else a part of the usage text
    };
    const Case cases[] = {
        {{FERROW_CLI_PATH, "--zk", unreachable, "--session-timeout", "1000", "list", "any"}, {}, 1,
         "ferrow: cannot connect to ZooKeeper at " + unreachable + " within 1000 ms\n", true},
        {{FERROW_CLI_PATH, "--session-timeout", "500", "list", "any"}, {"FERROW_ZK=" + unreachable}, 1,
         "ferrow: cannot connect to ZooKeeper at " + unreachable + " within 500 ms\n", true},
        {Tool({"list", "tool-no-such-service"}), {}, 1, "ferrow: service 'tool-no-such-service' does not exist\n", true},
        {Tool({"get", "tool-errors", missingId}), {}, 1,
         "ferrow: instance " + missingId + " of service 'tool-errors' does not exist\n", true},
        {Tool({"register", "tool-errors", "--host", "h", "--port", "1", "--id", takenId}), {}, 1,
         "ferrow: instance " + takenId + " of service 'tool-errors' is already registered\n", true},
        {Tool({"get", "tool-errors", "not-a-uuid"}), {}, 2, "'not-a-uuid' is not a UUID", false},
        {Tool({"register", "tool-errors", "--host", "h", "--port", "1", "--meta", "novalue"}), {}, 2,
         "'novalue' is not KEY=VALUE", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.err);
        const auto result = testing::Run(c.command, kTimeout, c.env);
        EXPECT_EQ(result.code, c.code);
        if (c.errIsWhole) {
            EXPECT_EQ(result.err, c.err);
        } else {
            EXPECT_NE(result.err.find(c.err), std::string::npos) << result.err;
        }
        EXPECT_EQ(result.out, "");
    }
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
