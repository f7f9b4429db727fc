// The whole decoding of an instance node as the watcher performs it: the
// envelope, then the ServiceInstanceData record parsed with its result
// unchecked. A record that parsed survives a serialize-parse round trip.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>

#include <google/protobuf/stubs/logging.h>

#include "watching/znode_data.h"

// Protobuf reports invalid UTF-8 in string fields on stderr; the fuzzer
// produces it constantly, and the parse result says enough.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    google::protobuf::SetLogHandler(nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using jx::messaging::ferrow::ServiceInstanceData;
    jx::String payload;
    try {
        payload = jx::ferrow::ParseZNodeData(jx::String(reinterpret_cast<const char*>(data), size));
    } catch (const std::runtime_error&) {
        return 0;
    }
    ServiceInstanceData record;
    if (!record.ParseFromString(payload)) return 0;
    ServiceInstanceData again;
    if (!again.ParseFromString(record.SerializeAsString())) std::abort();
    if (again.host() != record.host() || again.port() != record.port() || again.metadata_size() != record.metadata_size()) {
        std::abort();
    }
    return 0;
}
