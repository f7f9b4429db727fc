#include "ferrow/instance_data.h"

#include <boost/uuid/uuid_io.hpp>

#include "ferrow/zlib.h"
#include "watching/znode_data.h"

namespace jx {
namespace ferrow {

String ServicePath(const String& service) { return "/srv2/" + service; }

String InstancePath(const String& service, const ServiceId& id) {
    return ServicePath(service) + "/" + boost::uuids::to_string(id);
}

String EncodeInstanceData(const ServiceInstanceData& record, bool compress) {
    using messaging::ferrow::ZNodeData;
    const String serialized = record.SerializeAsString();
    ZNodeData envelope;
    if (compress || serialized.size() > kCompressionThreshold) {
        envelope.set_data(zlib::Compress(serialized));
        envelope.set_data_size(serialized.size());
        envelope.set_data_compression(ZNodeData::COMP_ZLIB);
    } else {
        envelope.set_data(serialized);
        envelope.set_data_compression(ZNodeData::COMP_NONE);
    }
    return envelope.SerializeAsString();
}

ServiceInstanceData DecodeInstanceData(const String& nodeBytes) {
    ServiceInstanceData record;
    // A record that does not parse is returned as far as it parsed.
    record.ParseFromString(ParseZNodeData(nodeBytes));
    return record;
}

}  // namespace ferrow
}  // namespace jx
