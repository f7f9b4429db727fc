// ParseZNodeData on arbitrary node contents: it returns the envelope's
// payload (inflated when compressed, at most kMaxDecompressedSize bytes) or
// throws ZLibError or "Invalid compression option", nothing else.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "watching/znode_data.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace jx::ferrow;
    const jx::String node(reinterpret_cast<const char*>(data), size);
    jx::messaging::ferrow::ZNodeData envelope;
    envelope.ParseFromString(node);
    try {
        const jx::String payload = ParseZNodeData(node);
        if (envelope.data_compression() == envelope.COMP_NONE && payload != envelope.data()) std::abort();
        if (envelope.data_compression() == envelope.COMP_ZLIB && payload.size() > zlib::kMaxDecompressedSize) {
            std::abort();
        }
    } catch (const zlib::ZLibError&) {
        if (envelope.data_compression() != envelope.COMP_ZLIB) std::abort();
    } catch (const std::runtime_error& e) {
        if (std::strcmp(e.what(), "Invalid compression option") != 0) std::abort();
        if (envelope.data_compression() == envelope.COMP_NONE || envelope.data_compression() == envelope.COMP_ZLIB) {
            std::abort();
        }
    }
    return 0;
}
