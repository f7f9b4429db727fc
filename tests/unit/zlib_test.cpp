#include "ferrow/zlib.h"

#include <gtest/gtest.h>

namespace jx {
namespace ferrow {
namespace zlib {
namespace {

String Text(std::size_t size) {
    String text(size, '\0');
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + (i * 7 + i / 13) % 26);
    return text;
}

String ErrorOf(const String& compressed, unsigned long size) {
    try {
        Decompress(compressed, size);
    } catch (const ZLibError& e) {
        return e.what();
    }
    return "no error";
}

TEST(ZlibTest, RoundTripIgnoresWrongSizeClaims) {
    const String raw = Text(100000);
    const String compressed = Compress(raw);
    EXPECT_LT(compressed.size(), raw.size());
    EXPECT_EQ(Decompress(compressed, raw.size()), raw);
    EXPECT_EQ(Decompress(compressed, 0), raw);
    EXPECT_EQ(Decompress(compressed, 1), raw);
    EXPECT_EQ(Decompress(compressed, ~0UL), raw);
    EXPECT_EQ(Decompress(Compress(String()), 16320), String());
}

TEST(ZlibTest, OutputIsCappedWhateverTheSizeClaim) {
    const String atCap(kMaxDecompressedSize, 'x');
    EXPECT_EQ(Decompress(Compress(atCap), 0), atCap);
    const String bomb = Compress(String(kMaxDecompressedSize + 1, 'x'));
    EXPECT_EQ(ErrorOf(bomb, ~0UL), "inflated data exceed the size limit");
    EXPECT_EQ(ErrorOf(bomb, kMaxDecompressedSize + 1), "inflated data exceed the size limit");
}

TEST(ZlibTest, MalformedStreamsThrowZLibErrorOfTheLibraryFamily) {
    const String compressed = Compress(Text(5000));
    EXPECT_EQ(ErrorOf(String(), 10), "truncated zlib stream");
    EXPECT_EQ(ErrorOf(compressed.substr(0, compressed.size() - 3), 5000), "truncated zlib stream");
    EXPECT_EQ(ErrorOf(compressed + "junk", 5000), "trailing bytes after the zlib stream");
    EXPECT_EQ(ErrorOf("definitely not zlib", 5000), "incorrect header check");
    String flipped = compressed;
    flipped[compressed.size() / 2] ^= 0x55;
    EXPECT_NE(ErrorOf(flipped, 5000), "no error");
    using FerrowError = details::ExceptionWrapper<FerrowErrorTag, std::runtime_error>;
    EXPECT_THROW(Decompress("x", 1), FerrowError);
}

}  // namespace
}  // namespace zlib
}  // namespace ferrow
}  // namespace jx
