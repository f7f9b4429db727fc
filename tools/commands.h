#pragma once

// The tool's commands. Each returns the process exit code; failures the user
// can act on are thrown as CommandError, ZooKeeper failures as ZooError.

#include <chrono>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "ferrow/instance_provider.h"
#include "ferrow/service_watcher_observer.h"
#include "signals.h"
#include "utility/string.h"

namespace jx {
namespace ferrow {
namespace cli {

// A failure explained by its message ("service 'x' does not exist"); the
// tool prints "ferrow: <message>" and exits 1.
class CommandError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A stop signal arrived before the command got going; the tool exits with
// 128 + the signal number.
struct Interrupted {
    int signal;
};

struct CommonOptions {
    String connect;
    std::chrono::milliseconds sessionTimeout{10000};
    String digestAuth;  // "user:password" or empty
    // watch, list and pick: instance nodes that are not ephemeral are left
    // out (--ephemeral-only).
    bool ephemeralOnly = false;
};

// Fields given on the command line for a record; unset ones stay unset.
struct RecordFields {
    std::optional<String> host;
    std::optional<unsigned> port;
    std::optional<String> protocol;
    std::optional<String> version;
    std::optional<String> zone;
    std::optional<unsigned> weight;
    std::vector<std::pair<String, String>> metadata;  // set, in order
    std::vector<String> removedMetadata;

    bool Empty() const;
    // Writes every given field into `record`.
    void ApplyTo(ServiceInstanceData& record) const;
};

// The id in `text` (canonical 8-4-4-4-12 hexadecimal form, any case), or
// nothing when it is not one.
std::optional<ServiceId> ParseServiceId(const String& text);

// A reason why `name` cannot name a service node, or an empty string.
String ServiceNameProblem(const String& name);

// "KEY=VALUE" split at the first '='; nothing without '=' or with an empty key.
std::optional<std::pair<String, String>> ParseMetadata(const String& text);

// Prints every event of `service` until a stop signal; returns 0. Throws
// CommandError once the watcher meets an error no retry cures.
int Watch(const CommonOptions& common, const StopSignals& signals, const String& service, bool json);

// Prints every service under /srv2 with its number of instances (children
// named by an instance id), in name order.
int Services(const CommonOptions& common, const StopSignals& signals, bool json);

// Prints the instances `service` has now.
int List(const CommonOptions& common, const StopSignals& signals, const String& service, bool json);

// How `pick` chooses.
struct PickOptions {
    ChoiceStrategy strategy = ChoiceStrategy::kRoundRobin;
    String zone;
    String key;  // with kByKey
    unsigned count = 1;
};

// Waits until the view of `service` is complete, then prints `count`
// choices of one provider, one line each. Fails when the service does not
// exist or has no instance available.
int Pick(const CommonOptions& common, const StopSignals& signals, const String& service, const PickOptions& pick,
         bool json);

// Gives the service node the protected access list (access_control.h) with
// the operator of --auth and `publishers` ("user:password", or
// "digest:user:hash"), then prints the list as Acl does. Instances anyone
// may change make it fail, naming them, unless `lockInstances`.
int Protect(const CommonOptions& common, const StopSignals& signals, const String& service,
            const std::vector<String>& publishers, bool lockInstances);

// Gives /srv2 the protected root list: `creators` may add services, the
// operator of --auth everything, everyone else reads. Prints the new list.
int ProtectRoot(const CommonOptions& common, const StopSignals& signals, const std::vector<String>& creators);

// Prints the access list of the service node, or of its instance `id`, one
// entry a line ("digest:alice:<hash> create,delete"), or with `json` one
// array of {"scheme","id","perms":[...]}.
int Acl(const CommonOptions& common, const StopSignals& signals, const String& service,
        const std::optional<ServiceId>& id, bool json);

// Prints one instance's record.
int Get(const CommonOptions& common, const StopSignals& signals, const String& service, const ServiceId& id,
        bool json);

// Publishes an instance, prints its id, keeps it published until a stop
// signal, then withdraws it; returns 0, or 3 after one line on standard
// error when the withdrawal failed (the node then goes with the session).
// With `waitForZooKeeper`, an unreachable ZooKeeper is waited for, and the
// publication tried again, until it succeeds or a stop signal arrives
// (Interrupted), saying so on standard error every few seconds.
int Register(const CommonOptions& common, const StopSignals& signals, const String& service,
             const RecordFields& fields, const std::optional<ServiceId>& id, bool compress,
             bool waitForZooKeeper);

// Rewrites the given fields of an existing instance's record in place and
// prints the new record.
int Update(const CommonOptions& common, const StopSignals& signals, const String& service, const ServiceId& id,
           const RecordFields& fields, bool compress, bool json);

}  // namespace cli
}  // namespace ferrow
}  // namespace jx
