#include "output.h"

#include <cstdio>
#include <ctime>
#include <map>
#include <stdexcept>

#include <boost/uuid/uuid_io.hpp>
#include <google/protobuf/util/json_util.h>

#include "ferrow/access_control.h"
#include "ferrow/instance_data.h"

namespace jx {
namespace ferrow {
namespace cli {

namespace {

String Quote(const String& text) {
    String out = "\"";
    for (const char c : text) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
                out += escaped;
            } else {
                out += c;
            }
        }
    }
    return out + "\"";
}

String RecordJson(const ServiceInstanceData& record) {
    google::protobuf::util::JsonPrintOptions options;
    options.preserve_proto_field_names = true;
    // Every field present, so that consumers need no knowledge of defaults:
    // the weight is the one clients choose by (kDefaultWeight when the
    // publisher chose none; 0 means drained).
    options.always_print_primitive_fields = true;
    ServiceInstanceData shown = record;
    shown.set_weight(WeightOf(record));
    String json;
    const auto status = google::protobuf::util::MessageToJsonString(shown, &json, options);
    if (!status.ok()) throw std::runtime_error("cannot print the record as JSON: " + status.ToString());
    return json;
}

// "2024-05-01T10:00:00.123Z"
String UtcTime(std::uint64_t ms) {
    const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
    std::tm tm{};
    gmtime_r(&seconds, &tm);
    char text[80];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03uZ", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<unsigned>(ms % 1000));
    return text;
}

}  // namespace

String InstanceText(const ServiceId& id, const ServiceInstanceData& record) {
    String text = boost::uuids::to_string(id) + " " + record.host() + ":" + std::to_string(record.port());
    if (!record.protocol().empty()) text += " protocol=" + record.protocol();
    if (!record.version().empty()) text += " version=" + record.version();
    if (!record.zone().empty()) text += " zone=" + record.zone();
    text += " weight=" + std::to_string(WeightOf(record));
    const std::map<String, String> metadata(record.metadata().begin(), record.metadata().end());
    for (const auto& [key, value] : metadata) text += " " + key + "=" + value;
    if (record.registered_at_ms() != 0) text += " registered=" + UtcTime(record.registered_at_ms());
    return text;
}

String InstanceJson(const ServiceId& id, const ServiceInstanceData& record) {
    return "{\"id\":" + Quote(boost::uuids::to_string(id)) + ",\"instance\":" + RecordJson(record) + "}";
}

String EventText(const char* event, const ServiceId& id, const ServiceInstanceData* record) {
    if (record == nullptr) return String(event) + " " + boost::uuids::to_string(id);
    return String(event) + " " + InstanceText(id, *record);
}

String EventJson(const char* event, const String& service, const ServiceId& id,
                 const ServiceInstanceData* record) {
    String json = "{\"event\":" + Quote(event) + ",\"service\":" + Quote(service) +
                  ",\"id\":" + Quote(boost::uuids::to_string(id));
    if (record != nullptr) json += ",\"instance\":" + RecordJson(*record);
    return json + "}";
}

String AclJson(const AclEntry& entry) {
    std::vector<String> perms;
    for (const String& name : PermissionNames(entry.perms)) perms.push_back(Quote(name));
    return "{\"scheme\":" + Quote(entry.scheme) + ",\"id\":" + Quote(entry.id) + ",\"perms\":" + JsonArray(perms) + "}";
}

String JsonArray(const std::vector<String>& elements) {
    String array = "[";
    for (const String& element : elements) array += (array.size() > 1 ? "," : "") + element;
    return array + "]";
}

String ServiceJson(const String& service, size_t instances, size_t unreadable) {
    return "{\"service\":" + Quote(service) + ",\"instances\":" + std::to_string(instances) +
           ",\"unreadable\":" + std::to_string(unreadable) + "}";
}

String NewsJson(const String& event, const String& service) {
    return "{\"event\":" + Quote(event) + ",\"service\":" + Quote(service) + "}";
}

String SyncedText(size_t instances) { return "synced " + std::to_string(instances) + " instances"; }

String SyncedJson(const String& service, size_t instances) {
    return "{\"event\":\"synced\",\"service\":" + Quote(service) + ",\"instances\":" + std::to_string(instances) + "}";
}

}  // namespace cli
}  // namespace ferrow
}  // namespace jx
