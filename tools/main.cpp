// ferrow: follows and publishes service instances in ZooKeeper from the
// command line. Standard output carries only the results (one line each,
// flushed as printed); messages and logs go to standard error.
//
// Exit codes: 0 success (watch and register: stopped by SIGINT or SIGTERM),
// 1 failure (cannot connect, no such service or instance, no instance to pick,
// permission denied, ZooKeeper error),
// 2 invalid command line, 3 register stopped but its instance not withdrawn
// (it leaves the registry when its session expires), 128 + signal when
// stopped before connecting (register --wait-for-zookeeper: before publishing).

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "metrics_server.h"
#include "secrets.h"
#include "ferrow/error.h"
#include "ferrow/instance_data.h"
#include "logger/log_handler.h"

namespace {

using jx::String;
using jx::ferrow::ChoiceStrategy;
using namespace jx::ferrow::cli;

// The log level when neither --log-level nor FERROW_LOG_LEVEL says
// otherwise: errors only, since the ZooKeeper client warns many times a
// second while it cannot reach a server.
constexpr auto kDefaultLogLevel = jx::logging::JXLOG_ERROR;

const char* const kFooter = R"(Common options (--zk, --session-timeout, --auth, --auth-file, --log-level)
may be given before or after the command. Credentials belong in a file
(--auth-file, readable by its owner only) or in FERROW_AUTH: --auth shows the
password in the process list until the tool has read it.

Environment:
  FERROW_ZK         connect string used when --zk is not given
  FERROW_AUTH       digest credentials used when neither --auth nor --auth-file is given
  CREDENTIALS_DIRECTORY  under systemd: its file ferrow-auth (LoadCredential=ferrow-auth:FILE)
                    holds the credentials when nothing else gives any
  FERROW_LOG_LEVEL  log level used when --log-level is not given

Exit status: 0 success (watch and register: stopped by SIGINT or SIGTERM),
1 failure (cannot connect, no such service or instance, no instance to pick,
permission denied, ZooKeeper error),
2 invalid command line,
3 register stopped but could not withdraw its instance (ZooKeeper unreachable:
  the instance leaves the registry when its session expires),
128 + signal number when stopped before connecting (register
  --wait-for-zookeeper: before publishing).)";

const CLI::Validator kServiceName(
    [](String& name) { return ServiceNameProblem(name); }, "SERVICE");

const CLI::Validator kUuid(
    [](String& text) {
        return ParseServiceId(text) ? String() : "'" + text + "' is not a UUID (8-4-4-4-12 hexadecimal digits)";
    },
    "UUID");

// Checks the form only, and never repeats the text: it holds a password.
const CLI::Validator kCredentials(
    [](String& text) {
        const auto colon = text.find(':');
        if (colon == String::npos || colon == 0) return String("credentials must read USER:PASSWORD");
        return colon + 1 == text.size() ? String("credentials give an empty password") : String();
    },
    "");

const CLI::Validator kMetadata(
    [](String& text) { return ParseMetadata(text) ? String() : "'" + text + "' is not KEY=VALUE"; }, "");

const CLI::Validator kLogLevel(
    [](String& text) {
        return jx::logging::ParseLogLevel(text) ? String()
                                                : "'" + text + "' is not debug, info, warning, error, critical "
                                                               "or a number";
    },
    "LEVEL");

// The record options shared by `register` and `update`, written into
// `fields` as they are parsed; --meta goes to `metadata` for validation.
// --host and --port are required when the command publishes a new instance.
void AddRecordOptions(CLI::App& command, RecordFields& fields, std::vector<String>& metadata, bool addressRequired) {
    command.add_option_function<String>("--host", [&fields](const String& v) { fields.host = v; },
                                        "Host name or address of the instance")
        ->required(addressRequired);
    command.add_option_function<unsigned>("--port", [&fields](unsigned v) { fields.port = v; }, "Port of the instance")
        ->required(addressRequired)
        ->check(CLI::Range(1, 65535));
    command.add_option_function<String>("--protocol", [&fields](const String& v) { fields.protocol = v; },
                                        "Protocol spoken by the instance, e.g. http or grpc");
    command.add_option_function<String>("--version", [&fields](const String& v) { fields.version = v; },
                                        "Version of the software the instance runs");
    command.add_option_function<String>("--zone", [&fields](const String& v) { fields.zone = v; },
                                        "Zone or data centre of the instance");
    command.add_option_function<unsigned>("--weight", [&fields](unsigned v) { fields.weight = v; },
                                          "Relative share of traffic for the instance");
    command.add_option("--meta", metadata, "Metadata entry; repeat for several")
        ->check(kMetadata)
        ->allow_extra_args(false)
        ->type_name("KEY=VALUE");
}

}  // namespace

int main(int argc, char** argv) {
    try {
        // Before the connection starts its threads, so they inherit the mask.
        const StopSignals signals;

        CLI::App app("Follow and publish the instances of services kept in ZooKeeper under /srv2/<service>.",
                     "ferrow");
        app.require_subcommand(1);
        app.fallthrough();
        app.footer(kFooter);
        app.failure_message([](const CLI::App*, const CLI::Error& e) {
            return "ferrow: " + String(e.what()) + " (see ferrow --help)\n";
        });

        CommonOptions common;
        common.connect = "127.0.0.1:2181";
        int sessionTimeoutMs = static_cast<int>(common.sessionTimeout.count());
        String logLevel;
        app.set_version_flag("--version", "ferrow " FERROW_VERSION);
        app.add_option("--zk", common.connect,
                       "ZooKeeper connect string: host:port[,host:port...][/chroot]")
            ->envname("FERROW_ZK")
            ->capture_default_str();
        app.add_option("--session-timeout", sessionTimeoutMs,
                       "Session timeout in milliseconds; also how long to wait for the first connection")
            ->check(CLI::Range(100, 3600000))
            ->capture_default_str()
            ->type_name("MS");
        String authFile;
        CLI::Option* authOption = app.add_option("--auth", common.digestAuth,
                                                 "Digest credentials for every session (shown in the process list: "
                                                 "prefer --auth-file or FERROW_AUTH)")
                                      ->envname("FERROW_AUTH");
        app.add_option("--auth-file", authFile,
                       "A file whose first line (blank and # lines skipped) holds the credentials; it must not be "
                       "readable by others than its owner")
            ->type_name("FILE");
        authOption
            ->type_name("USER:PASSWORD");
        app.add_option("--log-level", logLevel,
                       "Least severe log record written to standard error: debug, info, warning, error (default) "
                       "or critical")
            ->check(kLogLevel);

        String service;
        String idText;
        bool json = false;
        bool compress = false;
        bool waitForZooKeeper = false;
        RecordFields fields;
        std::vector<String> metadata;
        String metricsAddress;
        const auto addMetrics = [&metricsAddress](CLI::App* command) {
            command
                ->add_option("--metrics", metricsAddress,
                             "Serve the process's metrics in the Prometheus text format at http://HOST:PORT/metrics "
                             "(port 0: any free one; the address is printed on standard error)")
                ->type_name("HOST:PORT");
        };
        const auto addService = [&service](CLI::App* command) {
            command->add_option("SERVICE", service, "Service name")->required()->check(kServiceName);
        };
        const auto addId = [&idText](CLI::App* command) {
            command->add_option("ID", idText, "Instance id")->required()->check(kUuid);
        };
        const auto addCompress = [&compress](CLI::App* command) {
            command->add_flag("--compress", compress,
                              "Store the record zlib-compressed (records over " +
                                  std::to_string(jx::ferrow::kCompressionThreshold) + " bytes always are)");
        };

        CLI::App* watch = app.add_subcommand(
            "watch",
            "Print one line per instance event (added, modified, removed) until SIGINT or SIGTERM. Text lines "
            "read '<event> <id> <host>:<port> key=value...'; with --json each line is "
            "{\"event\":...,\"service\":...,\"id\":...,\"instance\":{...}} (no instance for removed). "
            "Creates /srv2/<service> when it is missing.");
        // A reader's choice to leave out planted instance nodes.
        const auto addEphemeralOnly = [&common](CLI::App* command) {
            command->add_flag("--ephemeral-only", common.ephemeralOnly,
                              "Leave out instance nodes that are not ephemeral: ferrow publishes ephemeral ones only, "
                              "so on a protected service a persistent one was planted");
        };
        addService(watch);
        addEphemeralOnly(watch);
        watch->add_flag("--json", json, "One JSON object per line");
        addMetrics(watch);

        CLI::App* services = app.add_subcommand(
            "services",
            "Print every service under /srv2 with its number of instances, one line each ('payments 12'); with "
            "--json one array of {\"service\":...,\"instances\":N}.");
        services->add_flag("--json", json, "One JSON array");

        PickOptions pick;
        const std::map<String, ChoiceStrategy> strategies = {{"round-robin", ChoiceStrategy::kRoundRobin},
                                                             {"random", ChoiceStrategy::kRandom},
                                                             {"weighted", ChoiceStrategy::kWeighted},
                                                             {"sticky", ChoiceStrategy::kSticky},
                                                             {"least-request", ChoiceStrategy::kLeastRequest},
                                                             {"by-key", ChoiceStrategy::kByKey}};
        CLI::App* pickCommand = app.add_subcommand(
            "pick",
            "Wait until the view of the service is complete, then choose instances as a client of the service "
            "would and print each choice on a line, in the format of list (with --json one "
            "{\"id\":...,\"instance\":{...}} per line). Drained instances (weight 0) come last; see the "
            "README's \"Calling a service\". Fails when no instance is available.");
        addService(pickCommand);
        addEphemeralOnly(pickCommand);
        pickCommand
            ->add_option_function<String>(
                "--strategy",
                [&pick, &strategies](const String& name) {
                    String lower = name;
                    std::transform(lower.begin(), lower.end(), lower.begin(),
                                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
                    const auto it = strategies.find(lower);
                    if (it == strategies.end()) {
                        throw CLI::ValidationError("--strategy", "'" + name +
                                                                     "' is none of round-robin, random, weighted, "
                                                                     "sticky, least-request and by-key");
                    }
                    pick.strategy = it->second;
                },
                "round-robin (default), random, weighted, sticky, least-request or by-key (with --key)")
            ->type_name("STRATEGY");
        pickCommand->add_option("--zone", pick.zone, "Prefer instances of this zone");
        pickCommand->add_option("--key", pick.key, "Choose by this key (a user, a shard): implies --strategy by-key");
        pickCommand->add_option("--count", pick.count, "Number of choices to print")
            ->check(CLI::Range(1u, 1000000u))
            ->capture_default_str();
        pickCommand->add_flag("--json", json, "One JSON object per line");

        std::vector<String> publishers;
        String publishersFile;
        bool lockInstances = false;
        CLI::App* protect = app.add_subcommand(
            "protect",
            "Protect the service, run with the operator's --auth: its node (created when missing) grants read to "
            "everyone, create and delete to each publisher, and everything to the operator; prints the new "
            "access list. Passwords are hashed here and never stored. See the README's \"Access control\".");
        addService(protect);
        protect->add_option("--publisher", publishers,
                            "A publisher's USER:PASSWORD, or its identity as digest:USER:HASH; repeat for several")
            ->type_name("IDENTITY");
        protect->add_flag("--lock-instances", lockInstances,
                          "Give instances that anyone may change to the operator (their publishers then register "
                          "again with credentials) instead of refusing");
        protect->add_option("--publishers-file", publishersFile,
                            "A file of publisher identities, one a line in either form, which keeps passwords "
                            "out of the process list")
            ->type_name("FILE");

        CLI::App* acl = app.add_subcommand(
            "acl", "Print the service node's access list, one entry a line ('world:anyone read'); with --json "
                   "one array of {\"scheme\":...,\"id\":...,\"perms\":[...]}.");
        addService(acl);
        acl->add_option("ID", idText, "An instance, whose list is printed instead")->check(kUuid);
        acl->add_flag("--json", json, "One JSON array");

        std::vector<String> creators;
        CLI::App* protectRoot = app.add_subcommand(
            "protect-root",
            "Protect /srv2 itself, run once with the operator's credentials: everyone reads, each --creator may add "
            "services, the operator may do everything and nobody else may change its list. Prints the new list. "
            "See the README's \"Access control\".");
        protectRoot
            ->add_option("--creator", creators,
                         "An identity that may add services: USER:PASSWORD or digest:USER:HASH; repeat for several")
            ->type_name("IDENTITY");

        CLI::App* list = app.add_subcommand(
            "list",
            "Print the instances the service has now, one line each; with --json one array of "
            "{\"id\":...,\"instance\":{...}}. Fails when the service does not exist.");
        addService(list);
        addEphemeralOnly(list);
        list->add_flag("--json", json, "One JSON array");

        CLI::App* get = app.add_subcommand(
            "get", "Print the record of one instance; with --json {\"id\":...,\"instance\":{...}}. Fails when "
                   "the instance does not exist.");
        addService(get);
        addId(get);
        get->add_flag("--json", json, "Print JSON");

        CLI::App* reg = app.add_subcommand(
            "register",
            "Publish an instance (an ephemeral node, registered_at_ms = now), print its id as the first line "
            "of output, keep it published until SIGINT or SIGTERM, then withdraw it. If the session expires "
            "meanwhile, the instance is published again by itself. Exits 3 when the instance could not be "
            "withdrawn (it then leaves the registry when its session expires).");
        addService(reg);
        AddRecordOptions(*reg, fields, metadata, true);
        reg->add_option("--id", idText, "Instance id to use instead of a random one")->check(kUuid);
        reg->add_flag("--wait-for-zookeeper", waitForZooKeeper,
                      "While ZooKeeper is unreachable at the start, keep trying to connect and to publish (saying "
                      "so on standard error every few seconds) until it succeeds or SIGINT or SIGTERM arrives, "
                      "instead of exiting 1; --metrics is served meanwhile");
        addMetrics(reg);
        addCompress(reg);

        CLI::App* update = app.add_subcommand(
            "update",
            "Change fields of a published instance's record in place and print the new record. Fields not "
            "given keep their value. The change is made by this command, not by the process that registered "
            "the instance: if that process's session expires, it publishes its own record again.");
        addService(update);
        addId(update);
        AddRecordOptions(*update, fields, metadata, false);
        update->add_option_function<std::vector<String>>(
                  "--remove-meta",
                  [&fields](const std::vector<String>& keys) {
                      fields.removedMetadata.insert(fields.removedMetadata.end(), keys.begin(), keys.end());
                  },
                  "Metadata key to delete; repeat for several")
            ->allow_extra_args(false)
            ->type_name("KEY");
        addCompress(update);
        update->add_flag("--json", json, "Print the new record as JSON");

        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& e) {
            // No command recognised: the first word that is neither an
            // option nor an option's value is named, not "a subcommand is
            // required".
            if (app.get_subcommands().empty() && e.get_name() == "RequiredError") {
                static const char* const kValued[] = {"--zk", "--session-timeout", "--auth", "--auth-file",
                                                      "--log-level"};
                for (int i = 1; i < argc; ++i) {
                    const String arg = argv[i];
                    if (arg.empty() || arg[0] != '-') {
                        std::cerr << "ferrow: unknown command '" << arg << "' (see ferrow --help)" << std::endl;
                        return 2;
                    }
                    i += std::any_of(std::begin(kValued), std::end(kValued), [&](const char* o) { return arg == o; });
                }
            }
            return app.exit(e) == 0 ? 0 : 2;
        }
        if (common.connect.empty()) throw UsageError("--zk: the connect string is empty");
        // Named by what gave the credentials: --auth, or FERROW_AUTH.
        if (authOption->count() > 0) {
            const bool given = std::any_of(argv + 1, argv + argc, [](const char* arg) {
                return std::strcmp(arg, "--auth") == 0 || std::strncmp(arg, "--auth=", 7) == 0;
            });
            if (!authFile.empty()) {
                throw UsageError(given ? "--auth excludes --auth-file"
                                       : "FERROW_AUTH excludes --auth-file: unset it, or drop --auth-file");
            }
            if (const String problem = kCredentials(common.digestAuth); !problem.empty()) {
                throw UsageError(String(given ? "--auth" : "FERROW_AUTH") + ": " + problem);
            }
        }
        for (const String& option : HidePasswordArguments(argc, argv)) {
            std::cerr << "ferrow: warning: " << option << " showed the password in the process list; use "
                      << (option == "--auth" ? "--auth-file or FERROW_AUTH"
                                             : option == "--publisher" ? "--publishers-file or digest:USER:HASH"
                                                                       : "digest:USER:HASH")
                      << std::endl;
        }
        if (!authFile.empty()) common.digestAuth = ReadAuthFile(authFile);
        // Under systemd, credentials given to the unit with
        // LoadCredential=ferrow-auth:FILE, when nothing else gave any.
        if (common.digestAuth.empty()) {
            if (const char* directory = std::getenv("CREDENTIALS_DIRECTORY")) {
                const String loaded = String(directory) + "/ferrow-auth";
                struct stat status {};
                if (::stat(loaded.c_str(), &status) == 0) {
                    common.digestAuth = ReadAuthFile(loaded, "the unit's credential (LoadCredential=ferrow-auth:...)");
                }
            }
        }

        if (!logLevel.empty()) {
            jx::logging::SetMinimumLoggingLevel(*jx::logging::ParseLogLevel(logLevel));
        } else if (std::getenv("FERROW_LOG_LEVEL") == nullptr) {
            jx::logging::SetMinimumLoggingLevel(kDefaultLogLevel);
        }
        common.sessionTimeout = std::chrono::milliseconds(sessionTimeoutMs);
        for (const auto& entry : metadata) fields.metadata.push_back(*ParseMetadata(entry));
        const auto id = idText.empty() ? std::nullopt : ParseServiceId(idText);

        // Served for as long as the command runs, from before it connects.
        std::optional<MetricsServer> metricsServer;
        if (!metricsAddress.empty()) {
            metricsServer.emplace(metricsAddress);
            std::cerr << "ferrow: serving metrics at " << metricsServer->Url() << std::endl;
        }
        if (*watch) return Watch(common, signals, service, json);
        if (*services) return Services(common, signals, json);
        if (*list) return List(common, signals, service, json);
        if (*pickCommand) {
            if (!pick.key.empty() && pick.strategy == ChoiceStrategy::kRoundRobin) pick.strategy = ChoiceStrategy::kByKey;
            if ((pick.strategy == ChoiceStrategy::kByKey) != !pick.key.empty()) {
                std::cerr << "ferrow: pick: --key goes with --strategy by-key, and by-key needs a --key" << std::endl;
                return 2;
            }
            return Pick(common, signals, service, pick, json);
        }
        if (*acl) return Acl(common, signals, service, id, json);
        if (*protectRoot) {
            CheckIdentities(creators, "protect-root: --creator");
            RequireOperator(common.digestAuth, "protect-root");
            return ProtectRoot(common, signals, creators);
        }
        if (*protect) {
            CheckIdentities(publishers, "protect: --publisher");
            if (!publishersFile.empty()) {
                for (String& publisher : ReadPublishersFile(publishersFile)) publishers.push_back(std::move(publisher));
            }
            if (publishers.empty()) throw UsageError("protect: give at least one --publisher or --publishers-file");
            RequireOperator(common.digestAuth, "protect");
            return Protect(common, signals, service, publishers, lockInstances);
        }
        if (*get) return Get(common, signals, service, *id, json);
        if (*reg) return Register(common, signals, service, fields, id, compress, waitForZooKeeper);
        if (fields.Empty()) {
            std::cerr << "ferrow: update: nothing to change; give at least one field option (see ferrow update "
                         "--help)"
                      << std::endl;
            return 2;
        }
        return Update(common, signals, service, *id, fields, compress, json);
    } catch (const UsageError& e) {
        std::cerr << "ferrow: " << e.what() << std::endl;
        return 2;
    } catch (const CommandError& e) {
        std::cerr << "ferrow: " << e.what() << std::endl;
    } catch (const jx::ferrow::ZooError& e) {
        std::cerr << "ferrow: ZooKeeper error: " << e.what() << std::endl;
    } catch (const Interrupted& e) {
        std::cerr << "ferrow: interrupted" << std::endl;
        return 128 + e.signal;
    } catch (const std::exception& e) {
        std::cerr << "ferrow: " << e.what() << std::endl;
    }
    return 1;
}
