#include "ferrow/instance_snapshot.h"

namespace jx {
namespace ferrow {

CachedInstance::CachedInstance(const ServiceId& id, const ServiceInstanceData& record)
    : id(id),
      host(record.host()),
      port(record.port()),
      zone(record.zone()),
      weight(record.weight()),
      m_bytes(record.SerializeAsString()) {}

ServiceInstanceData CachedInstance::Record() const {
    ServiceInstanceData record;
    // Bytes this object serialized itself: they always parse.
    record.ParseFromString(m_bytes);
    return record;
}

InstancePtr InstanceSnapshot::Find(const ServiceId& id) const {
    for (const InstancePtr& instance : *this) {
        if (instance->id == id) return instance;
    }
    return nullptr;
}

}  // namespace ferrow
}  // namespace jx
