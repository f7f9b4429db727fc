#include "znode_data.h"

#include <gtest/gtest.h>

namespace jx {
namespace ferrow {
namespace {

using messaging::ferrow::ZNodeData;

String Envelope(const String& data, int compression, const unsigned long* size = nullptr) {
    ZNodeData envelope;
    envelope.set_data(data);
    envelope.set_data_compression(static_cast<ZNodeData::Compression>(compression));
    if (size != nullptr) envelope.set_data_size(*size);
    return envelope.SerializeAsString();
}

TEST(ZNodeDataTest, EmptyInputIsAnEmptyUncompressedRecord) { EXPECT_EQ(ParseZNodeData(String()), String()); }

TEST(ZNodeDataTest, UncompressedPayloadIsReturnedAsIs) {
    EXPECT_EQ(ParseZNodeData(Envelope("record bytes", ZNodeData::COMP_NONE)), "record bytes");
}

TEST(ZNodeDataTest, CompressedPayloadIsInflatedWithOrWithoutItsSize) {
    // Larger than the size assumed when none is given.
    const String raw(3 * kDefaultInflatedSize, 'r');
    const unsigned long exact = raw.size();
    const unsigned long zero = 0;
    EXPECT_EQ(ParseZNodeData(Envelope(zlib::Compress(raw), ZNodeData::COMP_ZLIB, &exact)), raw);
    EXPECT_EQ(ParseZNodeData(Envelope(zlib::Compress(raw), ZNodeData::COMP_ZLIB)), raw);
    EXPECT_EQ(ParseZNodeData(Envelope(zlib::Compress(raw), ZNodeData::COMP_ZLIB, &zero)), raw);
}

TEST(ZNodeDataTest, CorruptCompressedPayloadThrowsZLibError) {
    EXPECT_THROW(ParseZNodeData(Envelope("not zlib", ZNodeData::COMP_ZLIB)), zlib::ZLibError);
}

TEST(ZNodeDataTest, UnknownCompressionIsRefused) {
    try {
        ParseZNodeData(Envelope("x", 2));
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Invalid compression option");
    }
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
