#pragma once

// The ZNodeData envelope in which every instance node stores its record.

#include <stdexcept>

#include "ferrow/zlib.h"
#include "messaging/ferrow/service.pb.h"
#include "utility/string.h"

namespace jx {
namespace ferrow {

// The inflated size assumed for a compressed envelope that states none.
constexpr unsigned long kDefaultInflatedSize = 16320;

// Returns the serialized ServiceInstanceData inside the envelope `data`.
// Bytes that do not parse as an envelope are decoded as far as they parsed
// (empty input is an uncompressed empty record). Throws std::runtime_error
// "Invalid compression option" for an unknown compression, and lets the
// zlib::ZLibError of a corrupt compressed payload through.
inline String ParseZNodeData(const String& data) {
    using messaging::ferrow::ZNodeData;
    ZNodeData envelope;
    envelope.ParseFromString(data);
    switch (envelope.data_compression()) {
    case ZNodeData::COMP_NONE:
        return envelope.data();
    case ZNodeData::COMP_ZLIB:
        return zlib::Decompress(envelope.data(),
                                envelope.has_data_size() ? envelope.data_size() : kDefaultInflatedSize);
    default:
        throw std::runtime_error("Invalid compression option");
    }
}

}  // namespace ferrow
}  // namespace jx
