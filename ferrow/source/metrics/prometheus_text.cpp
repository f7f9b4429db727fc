#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <map>
#include <utility>

#include "ferrow/metrics.h"

namespace jx {
namespace ferrow {

namespace {

// A label value as the exposition format quotes it.
String Escaped(const String& value) {
    String out;
    for (const char c : value) {
        if (c == '\\' || c == '"') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
    return out;
}

String Number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", value);
    return text;
}

String Number(std::uint64_t value) { return std::to_string(value); }

// One metric family: its HELP and TYPE lines, then one line per sample.
class Family {
public:
    Family(String& out, const char* name, const char* type, const char* help) : m_out(out), m_name(name) {
        m_out += "# HELP ";
        m_out += name;
        m_out += ' ';
        m_out += help;
        m_out += "\n# TYPE ";
        m_out += name;
        m_out += ' ';
        m_out += type;
        m_out += '\n';
    }

    // `labels`: name and value pairs, in order.
    template <typename Value>
    void Sample(std::initializer_list<std::pair<const char*, String>> labels, Value value) {
        m_out += m_name;
        if (labels.size() > 0) {
            char separator = '{';
            for (const auto& [label, text] : labels) {
                m_out += separator;
                m_out += label;
                m_out += "=\"";
                m_out += Escaped(text);
                m_out += '"';
                separator = ',';
            }
            m_out += '}';
        }
        m_out += ' ';
        m_out += Number(value);
        m_out += '\n';
    }

private:
    String& m_out;
    const char* const m_name;
};

using Label = std::pair<const char*, String>;

// The name of a ZooKeeper result code, as the client's header spells it.
String CodeName(int code) {
    static const std::map<int, const char*> kNames = {
        {-1, "ZSYSTEMERROR"}, {-2, "ZRUNTIMEINCONSISTENCY"}, {-3, "ZDATAINCONSISTENCY"},
        {-4, "ZCONNECTIONLOSS"}, {-5, "ZMARSHALLINGERROR"}, {-6, "ZUNIMPLEMENTED"},
        {-7, "ZOPERATIONTIMEOUT"}, {-8, "ZBADARGUMENTS"}, {-9, "ZINVALIDSTATE"},
        {-13, "ZNEWCONFIGNOQUORUM"}, {-14, "ZRECONFIGINPROGRESS"}, {-15, "ZSSLCONNECTIONERROR"},
        {-100, "ZAPIERROR"}, {-101, "ZNONODE"}, {-102, "ZNOAUTH"}, {-103, "ZBADVERSION"},
        {-108, "ZNOCHILDRENFOREPHEMERALS"}, {-110, "ZNODEEXISTS"}, {-111, "ZNOTEMPTY"},
        {-112, "ZSESSIONEXPIRED"}, {-113, "ZINVALIDCALLBACK"}, {-114, "ZINVALIDACL"},
        {-115, "ZAUTHFAILED"}, {-116, "ZCLOSING"}, {-117, "ZNOTHING"}, {-118, "ZSESSIONMOVED"},
        {-119, "ZNOTREADONLY"}, {-120, "ZEPHEMERALONLOCALSESSION"}, {-121, "ZNOWATCHER"},
        {-122, "ZRECONFIGDISABLED"}, {-123, "ZSESSIONCLOSEDREQUIRESASLAUTH"}, {-124, "ZTHROTTLEDOP"},
    };
    const auto found = kNames.find(code);
    return found != kNames.end() ? String(found->second) : "Z" + std::to_string(code);
}

// One family of counters by ZooKeeper code: a sample per code seen.
template <typename Item, typename LabelOf>
void ByCode(String& out, const std::vector<Item>& items, const char* name, const char* help, LabelOf label) {
    Family family(out, name, "counter", help);
    for (const Item& item : items) {
        for (const auto& [code, count] : item.errors) family.Sample({label(item), {"code", CodeName(code)}}, count);
    }
}

// The `service` label of a watcher's, cache's or provider's figures.
const auto kByService = [](const auto& item) { return Label{"service", item.service}; };

// One family with one sample per item: labelled `label(item)`, valued
// `value(item)`.
template <typename Item, typename LabelOf, typename ValueOf>
void Each(String& out, const std::vector<Item>& items, const char* name, const char* type, const char* help,
          LabelOf label, ValueOf value) {
    Family family(out, name, type, help);
    for (const Item& item : items) family.Sample({label(item)}, value(item));
}

// The objects of one kind summed per service, in the order services first
// appear: `merge(into, next)` folds a second object of a service into the
// first.
template <typename Item, typename Merge>
std::vector<Item> PerService(const std::vector<Item>& items, Merge merge) {
    std::vector<Item> merged;
    std::map<String, std::size_t> index;
    for (const Item& item : items) {
        const auto [it, fresh] = index.emplace(item.service, merged.size());
        if (fresh) {
            merged.push_back(item);
        } else {
            merge(merged[it->second], item);
        }
    }
    return merged;
}

void Connections(String& out, const std::vector<ConnectionMetrics>& connections) {
    if (connections.empty()) return;
    const auto byConnection = [](const ConnectionMetrics& c) { return Label{"connection", Number(c.connection)}; };
    const auto each = [&](const char* name, const char* type, const char* help, auto value) {
        Each(out, connections, name, type, help, byConnection, value);
    };
    each("ferrow_connection_connected", "gauge", "Whether the connection's ZooKeeper session is connected (1) or not (0).",
         [](const ConnectionMetrics& c) { return std::uint64_t{c.connected}; });
    {
        Family family(out, "ferrow_connection_state", "gauge",
                      "The session's state: 1 for the current one of connected, connecting, expired, auth_failed.");
        for (const ConnectionMetrics& c : connections) {
            for (const char* state : {"connected", "connecting", "expired", "auth_failed"}) {
                family.Sample({{"connection", Number(c.connection)}, {"state", state}},
                              std::uint64_t{String(state) == c.state});
            }
        }
    }
    each("ferrow_connection_disconnected_seconds", "gauge",
         "Time since the connection was last connected (or opened, if it never was); 0 while connected.",
         [](const ConnectionMetrics& c) { return c.disconnectedFor.count(); });
    ByCode(out, connections, "ferrow_connection_errors_total",
           "Requests that ended in a ZooKeeper error, by result code (ZNONODE: a node gone).", byConnection);
    each("ferrow_connection_callback_exceptions_total", "counter",
         "Exceptions that callbacks let escape to the delivery thread (each logged at ERROR).",
         [](const ConnectionMetrics& c) { return c.callbackExceptions; });
    {
        Family family(out, "ferrow_connection_session_info", "gauge",
                      "The current session of the connection, by its id; absent while there is none.");
        for (const ConnectionMetrics& c : connections) {
            if (c.sessionId == 0) continue;
            char id[24];
            std::snprintf(id, sizeof id, "0x%" PRIx64, static_cast<std::uint64_t>(c.sessionId));
            family.Sample({{"connection", Number(c.connection)}, {"session_id", id}}, std::uint64_t{1});
        }
    }
    each("ferrow_connection_sessions_opened_total", "counter", "Sessions that reached the connected state.",
         [](const ConnectionMetrics& c) { return c.sessionsOpened; });
    each("ferrow_connection_session_expiries_total", "counter", "Sessions the server expired.",
         [](const ConnectionMetrics& c) { return c.sessionExpiries; });
    each("ferrow_connection_reconnections_total", "counter",
         "Connected states regained by a session after its connection was lost.",
         [](const ConnectionMetrics& c) { return c.reconnections; });
    each("ferrow_connection_reads_in_flight", "gauge", "Asynchronous reads handed to the client and not yet delivered.",
         [](const ConnectionMetrics& c) { return std::uint64_t{c.readsInFlight}; });
    each("ferrow_connection_reads_waiting", "gauge", "Asynchronous reads waiting for room in the read window.",
         [](const ConnectionMetrics& c) { return std::uint64_t{c.readsWaiting}; });
    each("ferrow_connection_sync_requests_in_flight", "gauge",
         "Synchronous requests (create, set, delete, reads) waiting for their answer.",
         [](const ConnectionMetrics& c) { return std::uint64_t{c.syncRequestsInFlight}; });
    each("ferrow_connection_watches", "gauge", "Watches the connection holds.",
         [](const ConnectionMetrics& c) { return std::uint64_t{c.watches}; });
    each("ferrow_connection_watches_registered_total", "counter", "Watches registered.",
         [](const ConnectionMetrics& c) { return c.watchesRegistered; });
    each("ferrow_connection_watches_withdrawn_total", "counter", "Watches let go by their owners before they fired.",
         [](const ConnectionMetrics& c) { return c.watchesWithdrawn; });
}

void Watchers(String& out, const std::vector<WatcherMetrics>& all) {
    const std::vector<WatcherMetrics> watchers = PerService(all, [](WatcherMetrics& into, const WatcherMetrics& w) {
        into.instances = std::max(into.instances, w.instances);
        into.undecodable = std::max(into.undecodable, w.undecodable);
        into.serviceExists = into.serviceExists && w.serviceExists;
        into.serviceDeletions += w.serviceDeletions;
        into.serviceCreations += w.serviceCreations;
        for (const auto& [code, count] : w.errors) into.errors[code] += count;
        into.added += w.added;
        into.modified += w.modified;
        into.removed += w.removed;
        into.reads += w.reads;
        into.readRetries += w.readRetries;
        into.viewComplete = into.viewComplete && w.viewComplete;
        into.viewAge = std::max(into.viewAge, w.viewAge);
        into.lastSyncDuration = std::max(into.lastSyncDuration, w.lastSyncDuration);
    });
    if (watchers.empty()) return;
    const auto each = [&](const char* name, const char* type, const char* help, auto value) {
        Each(out, watchers, name, type, help, kByService, value);
    };
    each("ferrow_watcher_instances", "gauge", "Instances the service's watcher reported added and not removed.",
         [](const WatcherMetrics& w) { return std::uint64_t{w.instances}; });
    each("ferrow_watcher_undecodable_instances", "gauge",
         "Instances listed under the service whose record never decoded; not counted as instances.",
         [](const WatcherMetrics& w) { return std::uint64_t{w.undecodable}; });
    each("ferrow_watcher_service_exists", "gauge", "Whether the service node exists (1) or was found deleted (0).",
         [](const WatcherMetrics& w) { return std::uint64_t{w.serviceExists}; });
    {
        Family family(out, "ferrow_watcher_service_changes_total", "counter",
                      "Times the service node was found deleted, and found created again.");
        for (const WatcherMetrics& w : watchers) {
            family.Sample({{"service", w.service}, {"change", "deleted"}}, w.serviceDeletions);
            family.Sample({{"service", w.service}, {"change", "created"}}, w.serviceCreations);
        }
    }
    ByCode(out, watchers, "ferrow_watcher_errors_total",
           "Errors that reached the watcher, by result code (ZNOAUTH: an instance skipped; ZNONODE: the service "
           "node missing).",
           kByService);
    {
        Family family(out, "ferrow_watcher_events_total", "counter",
                      "Instances reported to the watcher's observers, by event: added, modified, removed.");
        for (const WatcherMetrics& w : watchers) {
            family.Sample({{"service", w.service}, {"event", "added"}}, w.added);
            family.Sample({{"service", w.service}, {"event", "modified"}}, w.modified);
            family.Sample({{"service", w.service}, {"event", "removed"}}, w.removed);
        }
    }
    each("ferrow_watcher_reads_total", "counter", "Reads of the service's children and instances issued.",
         [](const WatcherMetrics& w) { return w.reads; });
    each("ferrow_watcher_read_retries_total", "counter", "Reads issued again after a lost connection.",
         [](const WatcherMetrics& w) { return w.readRetries; });
    each("ferrow_watcher_view_complete", "gauge",
         "Whether the watcher's view is complete and current (1), or not since the connection was lost (0).",
         [](const WatcherMetrics& w) { return std::uint64_t{w.viewComplete}; });
    each("ferrow_watcher_view_age_seconds", "gauge", "Time since the view was last known current; 0 while it is.",
         [](const WatcherMetrics& w) { return w.viewAge.count(); });
    each("ferrow_watcher_last_sync_duration_seconds", "gauge",
         "How long the latest full read of the service took to complete.",
         [](const WatcherMetrics& w) { return w.lastSyncDuration.count(); });
}

void Caches(String& out, const std::vector<CacheMetrics>& all) {
    const std::vector<CacheMetrics> caches = PerService(all, [](CacheMetrics& into, const CacheMetrics& c) {
        into.instances = std::max(into.instances, c.instances);
        into.viewComplete = into.viewComplete && c.viewComplete;
        into.viewAge = std::max(into.viewAge, c.viewAge);
    });
    if (caches.empty()) return;
    const auto each = [&](const char* name, const char* help, auto value) {
        Each(out, caches, name, "gauge", help, kByService, value);
    };
    each("ferrow_cache_instances", "Instances in the cache's latest snapshot.",
         [](const CacheMetrics& c) { return std::uint64_t{c.instances}; });
    each("ferrow_cache_view_complete", "Whether the cache holds a complete view of the service (1) or not (0).",
         [](const CacheMetrics& c) { return std::uint64_t{c.viewComplete}; });
    each("ferrow_cache_view_age_seconds",
         "How long the cache's view has not been known current; it serves that view meanwhile.",
         [](const CacheMetrics& c) { return c.viewAge.count(); });
}

void Providers(String& out, const std::vector<ProviderMetrics>& all) {
    const std::vector<ProviderMetrics> providers = PerService(all, [](ProviderMetrics& into, const ProviderMetrics& p) {
        into.choices += p.choices;
        into.noChoices += p.noChoices;
        into.successes += p.successes;
        into.failures += p.failures;
        into.ends += p.ends;
        into.ejections += p.ejections;
        into.ejected += p.ejected;
        into.panicking = into.panicking || p.panicking;
    });
    if (providers.empty()) return;
    const auto each = [&](const char* name, const char* type, const char* help, auto value) {
        Each(out, providers, name, type, help, kByService, value);
    };
    {
        Family family(out, "ferrow_provider_choices_total", "counter",
                      "Choices made, by result: an instance was chosen, or none was available.");
        for (const ProviderMetrics& p : providers) {
            family.Sample({{"service", p.service}, {"result", "chosen"}}, p.choices);
            family.Sample({{"service", p.service}, {"result", "none"}}, p.noChoices);
        }
    }
    {
        Family family(out, "ferrow_provider_outcomes_total", "counter",
                      "Outcomes of calls reported to the provider: success, failure, end.");
        for (const ProviderMetrics& p : providers) {
            family.Sample({{"service", p.service}, {"outcome", "success"}}, p.successes);
            family.Sample({{"service", p.service}, {"outcome", "failure"}}, p.failures);
            family.Sample({{"service", p.service}, {"outcome", "end"}}, p.ends);
        }
    }
    each("ferrow_provider_ejections_total", "counter", "Instances ejected for their reported failures.",
         [](const ProviderMetrics& p) { return p.ejections; });
    each("ferrow_provider_ejected_instances", "gauge", "Instances ejected now.",
         [](const ProviderMetrics& p) { return std::uint64_t{p.ejected}; });
    each("ferrow_provider_panic", "gauge",
         "Whether the latest ejection was refused because too many instances were ejected already (1) or not (0).",
         [](const ProviderMetrics& p) { return std::uint64_t{p.panicking}; });
}

void Registrations(String& out, const std::vector<RegistrationMetrics>& registrations) {
    if (registrations.empty()) return;
    // The id is new at each start unless the program chooses it; the address
    // names the instance across restarts.
    const auto each = [&](const char* name, const char* type, const char* help, auto value) {
        Family family(out, name, type, help);
        for (const RegistrationMetrics& r : registrations) {
            family.Sample({{"service", r.service}, {"id", r.id}, {"address", r.address}}, value(r));
        }
    };
    each("ferrow_registration_published", "gauge",
         "Whether the instance this process publishes is surely in the registry, under this session and "
         "connected (1), or not (0).",
         [](const RegistrationMetrics& r) { return std::uint64_t{r.published}; });
    each("ferrow_registration_publish_failures_total", "counter",
         "Creations of the instance's node after the first that failed or went unanswered.",
         [](const RegistrationMetrics& r) { return r.publishFailures; });
    each("ferrow_registration_republished_total", "counter",
         "Times the instance's node was created again, after a session expiry or a deletion by someone else.",
         [](const RegistrationMetrics& r) { return r.republished; });
}

}  // namespace

String PrometheusText(const Metrics& metrics) {
    String out;
    Connections(out, metrics.connections);
    Watchers(out, metrics.watchers);
    Caches(out, metrics.caches);
    Providers(out, metrics.providers);
    Registrations(out, metrics.registrations);
    Family(out, "ferrow_build_info", "gauge", "The version of the ferrow library that wrote these metrics; always 1.")
        .Sample({{"version", FERROW_VERSION}}, std::uint64_t{1});
    return out;
}

String PrometheusText() { return PrometheusText(CollectMetrics()); }

}  // namespace ferrow
}  // namespace jx
