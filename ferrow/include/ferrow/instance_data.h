#pragma once

// The bytes of an instance node: a ZNodeData envelope around a serialized
// ServiceInstanceData, raw or zlib-compressed. Publishers write nodes with
// EncodeInstanceData; anything that reads nodes by itself decodes them with
// DecodeInstanceData, exactly as the service watcher does.

#include <cstddef>
#include <cstdint>

#include "ferrow/service_watcher_observer.h"
#include "utility/string.h"

namespace jx {
namespace ferrow {

// A serialized record larger than this is compressed even when the caller
// did not ask for it: small records gain nothing from zlib, larger ones
// (long metadata) shrink well and keep node traffic down.
constexpr std::size_t kCompressionThreshold = 512;

// Readers of instance nodes accept nodes up to this size, the server's default
// limit; a larger node is refused, never cut.
constexpr std::size_t kInstanceReadCapacity = 1024 * 1024;

// The weight of a record whose publisher chose none: such an instance is
// chosen like any other. Draining is an explicit weight of 0.
constexpr std::uint32_t kDefaultWeight = 1;

// The weight a provider gives `record`: its weight when set, else
// kDefaultWeight.
inline std::uint32_t WeightOf(const ServiceInstanceData& record) {
    return record.has_weight() ? record.weight() : kDefaultWeight;
}

// The node of a service, "/srv2/<service>", and of one of its instances,
// "/srv2/<service>/<id>" with the id in its canonical text.
String ServicePath(const String& service);
String InstancePath(const String& service, const ServiceId& id);

// Returns the node bytes for `record`: compressed with zlib, with data_size
// set to the serialized size, when `compress` is true or the serialized record
// is larger than kCompressionThreshold; raw otherwise. Throws
// zlib::ZLibError only when zlib itself fails.
String EncodeInstanceData(const ServiceInstanceData& record, bool compress);

// Returns the record stored in the node bytes `nodeBytes`. Bytes that do not
// parse yield the record as far as it parsed, as the watcher reports them.
// Throws std::runtime_error "Invalid compression option" for an unknown
// compression and zlib::ZLibError for a corrupt compressed record.
ServiceInstanceData DecodeInstanceData(const String& nodeBytes);

}  // namespace ferrow
}  // namespace jx
