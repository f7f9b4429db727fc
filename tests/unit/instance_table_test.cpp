// The cache's storage: an instance keeps its record and the fields read
// from it; the table's id index stays right through churn that makes ids
// collide.

#include <map>
#include <random>

#include <gtest/gtest.h>

#include "cache/instance_table.h"
#include "tests/support/instances.h"

namespace jx {
namespace ferrow {
namespace {

// A random (version 4) id, the same one for the same `seed`.
ServiceId IdOf(std::uint32_t seed) {
    std::mt19937 random(seed);
    ServiceId id;
    for (std::uint8_t& byte : id.data) byte = static_cast<std::uint8_t>(random());
    id.data[6] = static_cast<std::uint8_t>(0x40 | (id.data[6] & 0x0f));
    return id;
}

// Empty fields, a host past what one length byte encodes, and metadata that
// holds the bytes of a host field: the views come from where the encoding
// put each field, not from a search.
TEST(CachedInstanceTest, KeepsTheRecordAndViewsItsOwnFields) {
    ServiceInstanceData bare;
    bare.set_port(80);
    ServiceInstanceData full = testing::MakeRecord(7, 300);
    full.set_host(std::string(200, 'h'));
    full.set_weight(0);
    (*full.mutable_metadata())["decoy"] = std::string("\x0a\x03" "bad", 5);
    for (const ServiceInstanceData& record : {bare, full}) {
        const ServiceId id = IdOf(record.port());
        const InstancePtr instance = CachedInstance::Make(id, record);
        EXPECT_EQ(instance->Id(), id);
        EXPECT_EQ(instance->Host(), record.host());
        EXPECT_EQ(instance->Zone(), record.zone());
        EXPECT_EQ(instance->Port(), record.port());
        EXPECT_TRUE(testing::SameRecord(instance->Record(), record));
    }
    EXPECT_EQ(CachedInstance::Make(IdOf(1), bare)->Weight(), 1u) << "no weight chosen: like any other";
    EXPECT_EQ(CachedInstance::Make(IdOf(2), full)->Weight(), 0u) << "0 chosen: drained";
}

// Ids built so that their hashes share the low bits (the index's home
// places) mixed with ordinary ones; thousands of random puts, replacements
// and removals against a map, checking every id's entry and the snapshots.
TEST(InstanceTableTest, FollowsAModelThroughCollidingChurn) {
    std::mt19937 random(12345);
    std::vector<ServiceId> ids;
    for (int i = 0; i < 400; ++i) {
        ServiceId id = IdOf(static_cast<std::uint32_t>(i));
        if (i % 2 == 0) {  // same low 32 bits of the hash as every other even id
            std::fill(id.data, id.data + 16, 0);
            id.data[3] = static_cast<std::uint8_t>(i);
            id.data[11] = static_cast<std::uint8_t>(i);
            id.data[6] = 0x40;
            id.data[14] = static_cast<std::uint8_t>(i >> 8);
            id.data[15] = 1;
        }
        ids.push_back(id);
    }
    InstanceTable table;
    std::map<ServiceId, std::uint32_t> model;  // id -> port
    for (int step = 0; step < 20000; ++step) {
        const ServiceId& id = ids[random() % ids.size()];
        if (random() % 3 == 0) {
            const InstancePtr removed = table.Remove(id);
            EXPECT_EQ(removed != nullptr, model.erase(id) == 1);
        } else {
            ServiceInstanceData record;
            record.set_port(static_cast<std::uint32_t>(step));
            const InstancePtr previous = table.Put(CachedInstance::Make(id, record));
            const auto known = model.find(id);
            ASSERT_EQ(previous != nullptr, known != model.end());
            if (previous) {
                EXPECT_EQ(previous->Port(), known->second);
            }
            model[id] = static_cast<std::uint32_t>(step);
        }
        if (step % 1000 != 999) continue;
        const SnapshotPtr snapshot = table.Publish();
        std::map<ServiceId, std::uint32_t> seen;
        for (const InstancePtr& instance : *snapshot) seen.emplace(instance->Id(), instance->Port());
        ASSERT_EQ(seen, model);
        ASSERT_EQ(table.size(), model.size());
    }
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
