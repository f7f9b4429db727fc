#include "utility/uuid_hash.h"

#include <cstdint>
#include <cstring>

#include <boost/uuid/name_generator_sha1.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid.hpp>
#include <gtest/gtest.h>

namespace {

using boost::uuids::uuid;

uuid WithVersionNibble(unsigned char nibble) {
    uuid id{};
    for (unsigned char i = 0; i < 16; ++i) id.data[i] = static_cast<unsigned char>(0x11 * i + 3);
    id.data[6] = static_cast<unsigned char>((nibble << 4) | (id.data[6] & 0x0f));
    return id;
}

std::size_t HalvesXor(const uuid& id) {
    std::uint64_t first;
    std::uint64_t last;
    std::memcpy(&first, id.data, 8);
    std::memcpy(&last, id.data + 8, 8);
    return static_cast<std::size_t>(first ^ last);
}

TEST(UuidHashTest, RandomUuidHashesToTheXorOfItsHalves) {
    const std::hash<uuid> hash;
    const uuid fixed = WithVersionNibble(4);
    ASSERT_NE(HalvesXor(fixed), boost::uuids::hash_value(fixed));
    EXPECT_EQ(hash(fixed), HalvesXor(fixed));

    const uuid random = boost::uuids::random_generator()();
    ASSERT_EQ(random.version(), uuid::version_random_number_based);
    EXPECT_EQ(hash(random), HalvesXor(random));
}

TEST(UuidHashTest, OtherVersionsHashWithBoostHashValue) {
    const std::hash<uuid> hash;
    for (unsigned char nibble : {0, 1, 2, 3, 5, 15}) {
        const uuid id = WithVersionNibble(nibble);
        ASSERT_NE(HalvesXor(id), boost::uuids::hash_value(id));
        EXPECT_EQ(hash(id), boost::uuids::hash_value(id)) << "version nibble " << int(nibble);
    }
    const uuid named = boost::uuids::name_generator_sha1(boost::uuids::ns::dns())("ferrow.example");
    ASSERT_EQ(named.version(), uuid::version_name_based_sha1);
    EXPECT_EQ(hash(named), boost::uuids::hash_value(named));
}

}  // namespace
