#pragma once

// How the tool prints instances: one line of text for people, or JSON whose
// records are the protobuf JSON mapping of ServiceInstanceData with the
// field names of the .proto file and every field present (uint64
// registered_at_ms is a JSON string in that mapping).

#include <vector>

#include "ferrow/service_watcher_observer.h"
#include "ferrow/zookeeper_connection.h"
#include "utility/string.h"

namespace jx {
namespace ferrow {
namespace cli {

// "<id> <host>:<port>" followed by key=value for protocol, version and zone
// when set, weight always, metadata entries in key order, and
// registered_at_ms as UTC time when set.
String InstanceText(const ServiceId& id, const ServiceInstanceData& record);

// {"id":"<id>","instance":{...}}
String InstanceJson(const ServiceId& id, const ServiceInstanceData& record);

// One watch event. `record` is null for "removed".
// Text: "<event> <InstanceText>" or "removed <id>".
String EventText(const char* event, const ServiceId& id, const ServiceInstanceData* record);
// {"event":"<event>","service":"<service>","id":"<id>","instance":{...}},
// without "instance" when `record` is null.
String EventJson(const char* event, const String& service, const ServiceId& id,
                 const ServiceInstanceData* record);

// "[a,b,...]" of JSON texts.
String JsonArray(const std::vector<String>& elements);

// {"scheme":"digest","id":"alice:<hash>","perms":["create","delete"]}
String AclJson(const AclEntry& entry);

// {"service":"<service>","instances":<instances>,"unreadable":<unreadable>}
String ServiceJson(const String& service, size_t instances, size_t unreadable);

// News of the view or the service, without an instance:
// {"event":"<event>","service":"<service>"}.
String NewsJson(const String& event, const String& service);

// The view of `service` became complete with `instances` instances.
// Text: "synced <instances> instances";
// JSON: {"event":"synced","service":"<service>","instances":<instances>}.
String SyncedText(size_t instances);
String SyncedJson(const String& service, size_t instances);

}  // namespace cli
}  // namespace ferrow
}  // namespace jx
