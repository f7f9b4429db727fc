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

TEST(ZNodeDataTest, PayloadIsReturnedAsIsOrInflatedWithOrWithoutItsSize) {
    EXPECT_EQ(ParseZNodeData(String()), String());
    EXPECT_EQ(ParseZNodeData(Envelope("record bytes", ZNodeData::COMP_NONE)), "record bytes");
    // Larger than the size assumed when none is given.
    const String raw(3 * kDefaultInflatedSize, 'r');
    const unsigned long exact = raw.size();
    const unsigned long zero = 0;
    for (const unsigned long* size : {&exact, &zero, static_cast<const unsigned long*>(nullptr)})
        EXPECT_EQ(ParseZNodeData(Envelope(zlib::Compress(raw), ZNodeData::COMP_ZLIB, size)), raw);
}

TEST(ZNodeDataTest, CorruptOrUnknownCompressionIsRefused) {
    EXPECT_THROW(ParseZNodeData(Envelope("not zlib", ZNodeData::COMP_ZLIB)), zlib::ZLibError);
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
