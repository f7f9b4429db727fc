// zlib::Decompress on arbitrary streams and size claims. Input: 8 bytes of
// size claim (little-endian), then the stream. Whatever the input, the call
// returns at most kMaxDecompressedSize bytes or throws ZLibError, and what it
// returns compresses and inflates back to itself.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ferrow/zlib.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace jx::ferrow;
    std::uint64_t claim = 0;
    const size_t claimBytes = size < sizeof(claim) ? size : sizeof(claim);
    for (size_t i = 0; i < claimBytes; ++i) claim |= std::uint64_t{data[i]} << (8 * i);
    const jx::String stream(reinterpret_cast<const char*>(data) + claimBytes, size - claimBytes);
    jx::String out;
    try {
        out = zlib::Decompress(stream, static_cast<unsigned long>(claim));
    } catch (const zlib::ZLibError&) {
        return 0;
    }
    if (out.size() > zlib::kMaxDecompressedSize) std::abort();
    if (zlib::Decompress(zlib::Compress(out), out.size()) != out) std::abort();
    return 0;
}
