#include "ferrow/zlib.h"

#include <algorithm>
#include <climits>

#include <zlib.h>

namespace jx {
namespace ferrow {
namespace zlib {

namespace {

// Output grows by at least this much at a time once the expected size is
// exhausted, so that a small or absent size claim costs few reallocations.
constexpr unsigned long kGrowthChunk = 64UL * 1024;

// zlib's message for a failed call: the stream's own when it set one.
String ErrorText(const z_stream& stream, int rc) {
    return stream.msg != nullptr ? String(stream.msg) : String(zError(rc));
}

// Ends the inflate stream however Decompress leaves.
class InflateGuard {
public:
    explicit InflateGuard(z_stream& stream) : m_stream(stream) {}
    ~InflateGuard() { inflateEnd(&m_stream); }
    InflateGuard(const InflateGuard&) = delete;  // ends the stream once
    InflateGuard& operator=(const InflateGuard&) = delete;

private:
    z_stream& m_stream;
};

}  // namespace

ZLibError::ZLibError(const String& message)
    : details::ExceptionWrapper<FerrowErrorTag, std::runtime_error>(message) {}

String Compress(const String& raw) {
    uLongf length = compressBound(raw.size());
    String out(length, '\0');
    const int rc = compress2(reinterpret_cast<Bytef*>(&out[0]), &length,
                             reinterpret_cast<const Bytef*>(raw.data()), raw.size(), Z_DEFAULT_COMPRESSION);
    if (rc != Z_OK) throw ZLibError(zError(rc));
    out.resize(length);
    return out;
}

String Decompress(const String& compressed, unsigned long size) {
    if (compressed.size() > UINT_MAX) throw ZLibError("compressed input too large");

    z_stream stream{};
    const int init = inflateInit(&stream);
    if (init != Z_OK) throw ZLibError(ErrorText(stream, init));
    InflateGuard guard(stream);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(compressed.data()));
    stream.avail_in = static_cast<uInt>(compressed.size());

    String out(std::min(size, kMaxDecompressedSize), '\0');
    std::size_t produced = 0;
    for (;;) {
        if (produced == out.size() && out.size() < kMaxDecompressedSize) {
            out.resize(std::min(kMaxDecompressedSize, std::max(2 * out.size(), out.size() + kGrowthChunk)));
        }
        // At the cap a one-byte probe tells a stream that ends exactly there
        // from one that has more to give.
        const bool atCap = produced == out.size();
        Bytef probe;
        stream.next_out = atCap ? &probe : reinterpret_cast<Bytef*>(&out[produced]);
        stream.avail_out = atCap ? 1 : static_cast<uInt>(out.size() - produced);

        const int rc = inflate(&stream, Z_NO_FLUSH);
        if (atCap) {
            if (stream.avail_out == 0) throw ZLibError("inflated data exceed the size limit");
        } else {
            produced = out.size() - stream.avail_out;
        }
        if (rc == Z_STREAM_END) break;
        if (rc == Z_OK) continue;
        if (rc == Z_BUF_ERROR && stream.avail_in == 0) throw ZLibError("truncated zlib stream");
        throw ZLibError(ErrorText(stream, rc));
    }
    if (stream.avail_in != 0) throw ZLibError("trailing bytes after the zlib stream");
    out.resize(produced);
    return out;
}

}  // namespace zlib
}  // namespace ferrow
}  // namespace jx
