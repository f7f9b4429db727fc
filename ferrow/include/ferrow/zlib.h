#pragma once

// zlib streams (RFC 1950) for instance records. Compressed data arrives from
// other processes and may be hostile: Decompress bounds the memory it
// allocates whatever the data or the caller's size claim.

#include <stdexcept>

#include "ferrow/error.h"
#include "utility/string.h"

namespace jx {
namespace ferrow {
namespace zlib {

// The largest output Decompress will produce or allocate: 4 MiB, far above
// any instance record, far below what a decompression bomb would need.
constexpr unsigned long kMaxDecompressedSize = 4UL * 1024 * 1024;

// A stream that could not be compressed or inflated. what() is zlib's own
// message for the failure when it gives one, otherwise a text of ours.
class ZLibError : public details::ExceptionWrapper<FerrowErrorTag, std::runtime_error> {
public:
    explicit ZLibError(const String& message);
    ZLibError(const ZLibError&) = default;
    ZLibError(ZLibError&&) = default;
    virtual ~ZLibError() = default;
};

// Returns `raw` as one complete zlib stream. Throws ZLibError only when zlib
// itself fails (out of memory).
String Compress(const String& raw);

// Inflates one complete zlib stream. `size` is the expected output size: it
// sizes the first allocation (at most kMaxDecompressedSize) but is not
// enforced, so a larger output is accepted up to kMaxDecompressedSize.
// Throws ZLibError when the output would exceed kMaxDecompressedSize, when
// the stream is corrupt or truncated, or when bytes follow its end.
String Decompress(const String& compressed, unsigned long size);

}  // namespace zlib
}  // namespace ferrow
}  // namespace jx
