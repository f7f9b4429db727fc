#include "commands.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <iostream>
#include <map>
#include <memory>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "ferrow/access_control.h"
#include "ferrow/error.h"
#include "ferrow/instance_data.h"
#include "ferrow/instance_provider.h"
#include "ferrow/service_cache.h"
#include "ferrow/service_registration.h"
#include "ferrow/service_watcher.h"
#include "ferrow/zookeeper_connection.h"
#include "output.h"
#include "utility/uuid_text.h"

namespace jx {
namespace ferrow {
namespace cli {

namespace {

// Attempts of a read-modify-write before giving up on a record that keeps
// changing under us.
constexpr int kUpdateAttempts = 5;
// How long `pick` waits for a complete view: far beyond a sync of a large
// service, short enough that a script is not held for ever.
constexpr std::chrono::seconds kPickSyncDeadline{30};

// Writes one line to standard output and flushes it, so that a reader of a
// pipe sees every line as soon as it is printed.
void PrintLine(const String& line) { std::cout << line << std::endl; }

String NoInstance(const String& service, const ServiceId& id) {
    return "instance " + boost::uuids::to_string(id) + " of service '" + service + "' does not exist";
}

String NoService(const String& service) { return "service '" + service + "' does not exist"; }

// The children of the service node; a missing service is the user's error.
std::vector<String> ServiceChildren(const Connection& conn, const String& service) {
    std::vector<String> children;
    const int rc = conn.GetChildren(ServicePath(service), children);
    if (rc == ZNONODE) throw CommandError(NoService(service));
    if (rc != ZOK) throw ZooError(rc);
    return children;
}

// `register`'s exit status when the instance could not be withdrawn.
constexpr int kNotWithdrawn = 3;
// How often `register --wait-for-zookeeper` says it is still waiting, at most.
constexpr std::chrono::seconds kWaitingLine{5};

// What `register --wait-for-zookeeper` says while it waits: one line on
// standard error at most every kWaitingLine, so that a long outage does
// not flood the journal.
class WaitingReport {
public:
    void Say(const String& line) {
        const auto now = std::chrono::steady_clock::now();
        if (now < m_next) return;
        m_next = now + kWaitingLine;
        std::cerr << "ferrow: " << line << std::endl;
    }

private:
    std::chrono::steady_clock::time_point m_next{};
};

// Failures that a reachable server cures: the publication is tried again.
bool Unreachable(int code) {
    return code == ZCONNECTIONLOSS || code == ZOPERATIONTIMEOUT || code == ZINVALIDSTATE ||
           code == ZSESSIONEXPIRED || code == ZCLOSING;
}

// Waits until `conn` is connected: at most the session timeout, or with
// `patient` for as long as it takes, saying so through it each session
// timeout. A stop signal throws Interrupted; refused credentials, and the
// timeout without `patient`, throw CommandError.
void AwaitConnected(const ZooKeeperConnection& conn, const CommonOptions& common, const StopSignals& signals,
                    WaitingReport* patient) {
    const auto start = std::chrono::steady_clock::now();
    auto deadline = start + common.sessionTimeout;
    while (!conn.WaitConnected(std::chrono::milliseconds(50))) {
        if (const auto signal = signals.WaitFor(std::chrono::milliseconds(0))) throw Interrupted{*signal};
        if (conn.State() == ZOO_AUTH_FAILED_STATE) {
            throw CommandError("ZooKeeper at " + common.connect + " rejected the credentials of --auth");
        }
        const auto now = std::chrono::steady_clock::now();
        if (now < deadline) continue;
        if (!patient) {
            throw CommandError("cannot connect to ZooKeeper at " + common.connect + " within " +
                               std::to_string(common.sessionTimeout.count()) + " ms");
        }
        deadline = now + common.sessionTimeout;
        const auto waited = std::chrono::duration_cast<std::chrono::seconds>(now - start).count();
        patient->Say("cannot connect to ZooKeeper at " + common.connect + " for " + std::to_string(waited) +
                     " s; still trying");
    }
}

// Opens a session and waits until it is connected, at most the session
// timeout; or, with `patient`, for as long as it takes: for a server name to
// resolve (at boot, before the network is up), then for the first
// connection, saying so through `patient`. One connection throughout, so
// that the metrics served meanwhile follow one connection. A stop signal
// meanwhile throws Interrupted.
std::shared_ptr<ZooKeeperConnection> Connect(const CommonOptions& common, const StopSignals& signals,
                                             WaitingReport* patient = nullptr) {
    ConnectionOptions options;
    options.connect = common.connect;
    options.sessionTimeout = common.sessionTimeout;
    options.digestAuth = common.digestAuth;
    std::shared_ptr<ZooKeeperConnection> conn;
    while (!conn) {
        try {
            conn = ZooKeeperConnection::Open(options);
        } catch (const ZooError& e) {
            if (e.Code() == ZBADARGUMENTS) throw CommandError("invalid connect string '" + common.connect + "'");
            if (e.Code() != ZSYSTEMERROR) throw;
            const String why = "cannot start a session with '" + common.connect +
                               "': no server name in it resolves to an address";
            if (!patient) throw CommandError(why);
            patient->Say(why + "; still trying");
            if (const auto signal = signals.WaitFor(std::chrono::seconds(1))) throw Interrupted{*signal};
        }
    }
    AwaitConnected(*conn, common, signals, patient);
    // With a chroot, "/" is the chroot's node: every path of a command would
    // otherwise fail on its missing ancestor with a bare "no node".
    const auto chroot = common.connect.find('/');
    if (chroot != String::npos && conn->Exists("/", nullptr) == ZNONODE) {
        throw CommandError("the chroot '" + common.connect.substr(chroot) + "' of connect string '" +
                           common.connect + "' does not exist");
    }
    return conn;
}

// Reads and decodes one instance node. Returns false when it does not exist;
// throws ZooError for any other failure.
bool ReadInstance(const Connection& conn, const String& path, ServiceInstanceData& record, Stat* stat) {
    String bytes(kInstanceReadCapacity, '\0');
    const int rc = conn.Get(path, bytes, stat);
    if (rc == ZNONODE) return false;
    if (rc != ZOK) throw ZooError(rc);
    record = DecodeInstanceData(bytes);
    return true;
}

// Reads child `child` of `service` as a watcher would: returns false when it
// names no instance or has left since the listing; throws std::exception,
// naming why, when it cannot be read or decoded, or is named otherwise than
// instances name their nodes (lower case), which no watcher reads.
bool ReadListed(const Connection& conn, const String& service, const String& child, ServiceId& id,
                ServiceInstanceData& record, bool ephemeralOnly) {
    const auto parsed = ParseServiceId(child);
    if (!parsed) return false;
    id = *parsed;
    if (boost::uuids::to_string(id) != child) throw std::runtime_error("not named in lower case, so no watcher reads it");
    Stat stat{};
    return ReadInstance(conn, ServicePath(service) + "/" + child, record, &stat) &&
           !(ephemeralOnly && stat.ephemeralOwner == 0);
}

// Prints every change of a cache as one line; runs on the connection's
// delivery thread, one change at a time, so lines never interleave. The
// cache keeps its view through an expiry and passes on the difference only,
// so a consumer applying the lines never empties its view on an expiry, and
// never meets a removal of an id it was not given.
class EventPrinter : public ServiceCacheObserver {
public:
    EventPrinter(String service, bool json) : m_service(std::move(service)), m_json(json) {}

    void OnInstanceAdded(ServiceCache&, const InstancePtr& added) override { Print("added", added, true); }
    void OnInstanceModified(ServiceCache&, const InstancePtr&, const InstancePtr& after) override {
        Print("modified", after, true);
    }
    void OnInstanceRemoved(ServiceCache&, const InstancePtr& removed) override { Print("removed", removed, false); }

    // A line of news of the view or the service: "stale", "service deleted".
    void News(const String& text) const {
        String event = text;
        std::replace(event.begin(), event.end(), ' ', '-');
        PrintLine(m_json ? NewsJson(event, m_service) : text);
    }

private:
    void Print(const char* event, const InstancePtr& instance, bool withRecord) const {
        const ServiceInstanceData record = withRecord ? instance->Record() : ServiceInstanceData();
        const ServiceInstanceData* shown = withRecord ? &record : nullptr;
        PrintLine(m_json ? EventJson(event, m_service, instance->Id(), shown) : EventText(event, instance->Id(), shown));
    }

    const String m_service;
    const bool m_json;
};

}  // namespace

bool RecordFields::Empty() const {
    return !host && !port && !protocol && !version && !zone && !weight && metadata.empty() &&
           removedMetadata.empty();
}

void RecordFields::ApplyTo(ServiceInstanceData& record) const {
    if (host) record.set_host(*host);
    if (port) record.set_port(*port);
    if (protocol) record.set_protocol(*protocol);
    if (version) record.set_version(*version);
    if (zone) record.set_zone(*zone);
    if (weight) record.set_weight(*weight);
    for (const auto& key : removedMetadata) record.mutable_metadata()->erase(key);
    for (const auto& [key, value] : metadata) (*record.mutable_metadata())[key] = value;
}

std::optional<ServiceId> ParseServiceId(const String& text) {
    ServiceId id;
    if (ParseCanonicalUuid(text, id)) return id;
    return std::nullopt;
}

String ServiceNameProblem(const String& name) {
    if (name.empty()) return "a service name cannot be empty";
    if (name == "." || name == ".." || name == kRootMarker) return "'" + name + "' cannot name a service";
    for (const char c : name) {
        if (c == '/') return "a service name cannot contain '/'";
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            return "a service name cannot contain control characters";
        }
    }
    return "";
}

std::optional<std::pair<String, String>> ParseMetadata(const String& text) {
    const auto eq = text.find('=');
    if (eq == String::npos || eq == 0) return std::nullopt;
    return std::make_pair(text.substr(0, eq), text.substr(eq + 1));
}

int Watch(const CommonOptions& common, const StopSignals& signals, const String& service, bool json) {
    const auto conn = Connect(common, signals);
    // An error no retry cures ends the command: printed once, by this
    // thread, which then exits 1.
    auto failure = std::make_shared<std::atomic<int>>(ZOK);
    ServiceWatcher watcher(conn, service, [failure](int rc) {
        int none = ZOK;
        failure->compare_exchange_strong(none, rc);
    });
    watcher.IgnorePersistentInstances(common.ephemeralOnly);
    ServiceCache cache(watcher);
    const auto printer = std::make_shared<EventPrinter>(service, json);
    cache.RegisterShared(printer);
    // All on the delivery thread, in order with the changes: the synced
    // listener after the cache has published the view that completed it.
    // The count is the watcher's, which the cache's view equals once synced;
    // the listener must not reach the cache, which goes before the watcher.
    watcher.SetSyncedListener([&service, json](size_t instances) {
        PrintLine(json ? SyncedJson(service, instances) : SyncedText(instances));
    });
    watcher.SetStaleListener([printer, &service] {
        std::cerr << "ferrow: the view of '" << service
                  << "' is stale: the connection to ZooKeeper is lost; it is kept until the view is current again"
                  << std::endl;
        printer->News("stale");
    });
    watcher.SetServiceListener([printer, &service](bool exists) {
        std::cerr << "ferrow: service '" << service << "' " << (exists ? "exists again" : "was deleted")
                  << std::endl;
        printer->News(exists ? "service created" : "service deleted");
    });
    watcher.Start();
    for (;;) {
        if (signals.WaitFor(std::chrono::milliseconds(100))) return 0;
        if (const int rc = failure->load(); rc != ZOK) {
            // An instance that this session may not read (created with a
            // list that excludes it) is skipped: the watcher's log record
            // names it and the others are followed on. Only a refusal of
            // the service itself ends the command.
            std::vector<String> children;
            if (rc == ZNOAUTH && conn->GetChildren(ServicePath(service), children) == ZOK) {
                failure->store(ZOK);
                continue;
            }
            throw CommandError("ZooKeeper error while watching '" + service + "': " + zerror(rc));
        }
    }
}

int Services(const CommonOptions& common, const StopSignals& signals, bool json) {
    const auto conn = Connect(common, signals);
    std::vector<String> services;
    const int rc = conn->GetChildren("/srv2", services);
    if (rc != ZOK && rc != ZNONODE) throw ZooError(rc);  // no /srv2: no service yet
    std::sort(services.begin(), services.end());
    std::vector<String> objects;
    for (const String& service : services) {
        if (service == kRootMarker) continue;
        std::vector<String> children;
        // A service removed since the listing is not listed; one this
        // session may not read is skipped with a warning, never failing the
        // others.
        const int listed = conn->GetChildren(ServicePath(service), children);
        if (listed == ZNONODE) continue;
        if (listed != ZOK) {
            std::cerr << "ferrow: warning: service '" << service << "' skipped: " << zerror(listed) << std::endl;
            continue;
        }
        // Counted as `list` and `watch` count: instances whose record reads
        // and decodes; the others apart. A child not named by an id in
        // canonical form is no instance: no watcher reads it.
        size_t instances = 0, unreadable = 0;
        for (const String& child : children) {
            ServiceId id;
            ServiceInstanceData record;
            const std::optional<ServiceId> parsed = ParseServiceId(child);
            if (!parsed || boost::uuids::to_string(*parsed) != child) continue;
            try {
                instances += ReadListed(*conn, service, child, id, record, false);
            } catch (const std::exception&) {
                ++unreadable;
            }
        }
        if (json) {
            objects.push_back(ServiceJson(service, instances, unreadable));
        } else {
            PrintLine(service + " " + std::to_string(instances) +
                      (unreadable ? " (" + std::to_string(unreadable) + " unreadable)" : ""));
        }
    }
    if (json) PrintLine(JsonArray(objects));
    return 0;
}

int List(const CommonOptions& common, const StopSignals& signals, const String& service, bool json) {
    const auto conn = Connect(common, signals);
    std::map<ServiceId, ServiceInstanceData> instances;
    for (const auto& child : ServiceChildren(*conn, service)) {
        ServiceId id;
        ServiceInstanceData record;
        // An instance that left since the listing is not listed; one that
        // this session may not read, that does not decode, or that watchers
        // cannot read (named in upper case) is skipped with a warning naming
        // it, never failing the whole service.
        try {
            if (ReadListed(*conn, service, child, id, record, common.ephemeralOnly)) instances.emplace(id, record);
        } catch (const std::exception& e) {
            std::cerr << "ferrow: warning: instance " << child << " of service '" << service
                      << "' skipped: " << e.what() << std::endl;
        }
    }

    if (json) {
        std::vector<String> objects;
        for (const auto& [id, record] : instances) objects.push_back(InstanceJson(id, record));
        PrintLine(JsonArray(objects));
    } else {
        for (const auto& [id, record] : instances) PrintLine(InstanceText(id, record));
    }
    return 0;
}

int Pick(const CommonOptions& common, const StopSignals& signals, const String& service, const PickOptions& pick,
         bool json) {
    const auto conn = Connect(common, signals);
    // Unlike `watch`, `pick` does not create a missing service.
    ServiceChildren(*conn, service);

    auto cache = std::make_shared<ServiceCache>(conn, service, [service](int code) {
        // The service itself was read above: a refusal is of one instance,
        // which the watcher's log record names, and which is not chosen.
        if (code == ZNOAUTH) return;
        std::cerr << "ferrow: ZooKeeper error while reading '" << service << "': " << zerror(code) << std::endl;
    });
    cache->Watcher().IgnorePersistentInstances(common.ephemeralOnly);
    cache->Start();
    const auto deadline = std::chrono::steady_clock::now() + kPickSyncDeadline;
    while (!cache->WaitSynced(std::chrono::milliseconds(50))) {
        if (const auto signal = signals.WaitFor(std::chrono::milliseconds(0))) throw Interrupted{*signal};
        if (std::chrono::steady_clock::now() >= deadline) {
            throw CommandError("the view of service '" + service + "' was not complete within " +
                               std::to_string(kPickSyncDeadline.count()) + " s");
        }
    }
    ProviderOptions options;
    options.strategy = pick.strategy;
    options.zone = pick.zone;
    InstanceProvider provider(cache, options);
    for (unsigned i = 0; i < pick.count; ++i) {
        const InstancePtr chosen = pick.key.empty() ? provider.Choose() : provider.Choose(pick.key);
        if (!chosen) {
            static const char* const kWhy[] = {"the view is not complete", "it has no instance",
                                               "every instance is filtered out", "every instance is down"};
            throw CommandError("no instance of service '" + service + "' is available: " +
                               kWhy[static_cast<int>(provider.WhyNone())]);
        }
        const ServiceInstanceData record = chosen->Record();
        PrintLine(json ? InstanceJson(chosen->Id(), record) : InstanceText(chosen->Id(), record));
    }
    return 0;
}

int Get(const CommonOptions& common, const StopSignals& signals, const String& service, const ServiceId& id,
        bool json) {
    const auto conn = Connect(common, signals);
    ServiceInstanceData record;
    if (!ReadInstance(*conn, InstancePath(service, id), record, nullptr)) throw CommandError(NoInstance(service, id));
    PrintLine(json ? InstanceJson(id, record) : InstanceText(id, record));
    return 0;
}

int Register(const CommonOptions& common, const StopSignals& signals, const String& service,
             const RecordFields& fields, const std::optional<ServiceId>& id, bool compress, bool waitForZooKeeper) {
    ServiceInstanceData record;
    fields.ApplyTo(record);
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    record.set_registered_at_ms(
        static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count()));
    WaitingReport report;
    const auto conn = Connect(common, signals, waitForZooKeeper ? &report : nullptr);
    const ServiceId chosen = id ? *id : boost::uuids::random_generator()();
    const String instance = "instance " + boost::uuids::to_string(chosen) + " of service '" + service + "'";
    std::unique_ptr<ServiceRegistration> registration;
    while (!registration) {
        try {
            registration = std::make_unique<ServiceRegistration>(conn, service, chosen, record, compress);
        } catch (const ZooError& e) {
            if (waitForZooKeeper && Unreachable(e.Code())) {
                report.Say("cannot publish " + instance + ": " + e.what() + "; still trying");
                AwaitConnected(*conn, common, signals, &report);
                continue;
            }
            if (e.Code() == ZNODEEXISTS) throw CommandError(instance + " is already registered");
            if (e.Code() == ZNOAUTH) {
                // Refused either the service node, by a protected root, or the
                // instance node, by a protected service.
                std::vector<String> children;
                if (conn->GetChildren(ServicePath(service), children) == ZNONODE) {
                    throw CommandError("permission denied: create on /srv2 (only the operator and the creators "
                                       "listed on the root may add services)");
                }
                throw CommandError("permission denied: create on " + ServicePath(service) +
                                   " (the service accepts its listed publishers only; see --auth)");
            }
            throw;
        }
    }
    PrintLine(boost::uuids::to_string(registration->Id()));
    signals.Wait();
    try {
        registration->Withdraw();
    } catch (const ZooError& e) {
        std::cerr << "ferrow: " << instance << " not withdrawn: " << e.what()
                  << "; it leaves the registry when its session expires" << std::endl;
        return kNotWithdrawn;
    }
    return 0;
}

namespace {

// One line for a refused request: the node, the permission, and who may.
CommandError Denied(const AccessDenied& e, const String& service) {
    String why;
    if (e.Path() == "/srv2") {
        why = e.Permission() == "create" ? "only the operator and the creators listed on the root may add services"
                                         : "only the operator named in its access list may change it";
    } else if (e.Permission() == "admin") {
        why = "its access list does not let these credentials change it; see ferrow acl " + service;
    } else {
        why = "refused by its access list";
    }
    return CommandError("permission denied: " + e.Permission() + " on " + e.Path() + " (" + why + ")");
}

void PrintAcl(const std::vector<AclEntry>& acl, bool json) {
    if (!json) {
        for (const AclEntry& entry : acl) PrintLine(AclText(entry));
        return;
    }
    std::vector<String> objects;
    for (const AclEntry& entry : acl) objects.push_back(AclJson(entry));
    PrintLine(JsonArray(objects));
}

}  // namespace

int Protect(const CommonOptions& common, const StopSignals& signals, const String& service,
            const std::vector<String>& publishers, bool lockInstances) {
    std::vector<String> identities;
    for (const String& publisher : publishers) identities.push_back(ParseIdentity(publisher));
    const auto conn = Connect(common, signals);
    try {
        ProtectService(*conn, service, common.digestAuth, identities,
                       lockInstances ? OpenInstancePolicy::kLock : OpenInstancePolicy::kRefuse);
    } catch (const AccessDenied& e) {
        throw Denied(e, service);
    } catch (const OpenInstances& e) {
        String named;
        for (const auto& [id, reason] : e.Instances()) named += (named.empty() ? "" : "; ") + id + " (" + reason + ")";
        throw CommandError("service '" + service + "' is protected, but these instances are not safe: " + named +
                           (lockInstances ? "" : "; --lock-instances locks or removes them"));
    }
    PrintAcl(ServiceAcl(*conn, service), false);
    return 0;
}

int ProtectRoot(const CommonOptions& common, const StopSignals& signals, const std::vector<String>& creators) {
    std::vector<String> identities;
    for (const String& creator : creators) identities.push_back(ParseIdentity(creator));
    const auto conn = Connect(common, signals);
    try {
        jx::ferrow::ProtectRoot(*conn, common.digestAuth, identities);
    } catch (const AccessDenied& e) {
        throw Denied(e, String());
    } catch (const UnmanagedServices& e) {
        PrintAcl(NodeAcl(*conn, "/srv2"), false);  // protected all the same
        String names;
        for (const String& service : e.Services()) names += (names.empty() ? "'" : ", '") + service + "'";
        throw CommandError("/srv2 is protected, but the operator cannot administer services " + names +
                           ": only their creators or the server's super user can protect or remove them");
    }
    PrintAcl(NodeAcl(*conn, "/srv2"), false);
    return 0;
}

int Acl(const CommonOptions& common, const StopSignals& signals, const String& service,
        const std::optional<ServiceId>& id, bool json) {
    const auto conn = Connect(common, signals);
    std::vector<AclEntry> acl;
    const String path = id ? InstancePath(service, *id) : ServicePath(service);
    const int rc = conn->GetAcl(path, acl);
    if (rc == ZNONODE) throw CommandError(id ? NoInstance(service, *id) : NoService(service));
    if (rc != ZOK) throw ZooError(rc);
    PrintAcl(acl, json);
    return 0;
}

int Update(const CommonOptions& common, const StopSignals& signals, const String& service, const ServiceId& id,
           const RecordFields& fields, bool compress, bool json) {
    const auto conn = Connect(common, signals);
    const String path = InstancePath(service, id);
    for (int attempt = 0; attempt < kUpdateAttempts; ++attempt) {
        ServiceInstanceData record;
        Stat stat{};
        if (!ReadInstance(*conn, path, record, &stat)) throw CommandError(NoInstance(service, id));
        fields.ApplyTo(record);
        // Written only over the version just read, so a concurrent change is
        // never lost: it is read again and the fields applied on top.
        const int rc = conn->Set(path, EncodeInstanceData(record, compress), stat.version, nullptr);
        if (rc == ZBADVERSION) continue;
        if (rc == ZNONODE) throw CommandError(NoInstance(service, id));
        if (rc == ZNOAUTH) {
            throw CommandError("permission denied: write on " + path +
                               " (only the instance's publisher may change its record)");
        }
        if (rc != ZOK) throw ZooError(rc);
        PrintLine(json ? InstanceJson(id, record) : InstanceText(id, record));
        return 0;
    }
    throw CommandError("the record of instance " + boost::uuids::to_string(id) + " of service '" + service +
                       "' kept changing; nothing was written");
}

}  // namespace cli
}  // namespace ferrow
}  // namespace jx
