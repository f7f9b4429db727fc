// Calls a service as a client would: keeps its instances in a cache, waits
// until the view is complete, and chooses an instance for every call.
//
//   call_service CONNECT SERVICE [CALLS [ZONE]]
//
// Prints one line per call (default 3): "call N host:port", with " failed"
// when it failed, or "call N: no instance available". An instance whose
// record has the metadata entry fail=yes stands for one whose calls fail:
// each failure is reported, and after three in a row, while the service's
// other instances do not fail alike, the provider skips the instance for
// thirty seconds. The settings are the defaults, fit for a program in
// production: at most half of the instances are skipped at once, and a
// service's only instance never is.

#include <chrono>
#include <iostream>
#include <memory>
#include <string>

#include "ferrow/instance_provider.h"
#include "ferrow/service_cache.h"
#include "ferrow/zookeeper_connection.h"

using namespace jx::ferrow;

// The application's own call; here it only consults the record. Record()
// decodes the whole record; host, port, zone and weight are at hand.
bool Serve(const CachedInstance& instance) {
    const ServiceInstanceData record = instance.Record();
    const auto& metadata = record.metadata();
    const auto fail = metadata.find("fail");
    return fail == metadata.end() || fail->second != "yes";
}

int main(int argc, char** argv) {
    if (argc < 3) {
        std::cerr << "usage: call_service CONNECT SERVICE [CALLS [ZONE]]" << std::endl;
        return 2;
    }
    const int calls = argc > 3 ? std::stoi(argv[3]) : 3;
    try {
        ConnectionOptions options;
        options.connect = argv[1];
        const auto conn = ZooKeeperConnection::Open(options);
        if (!conn->WaitConnected(options.sessionTimeout)) {
            std::cerr << "cannot connect to " << argv[1] << std::endl;
            return 1;
        }

        // The cache owns its watcher; the provider shares the cache. Both may
        // be used from any thread.
        auto cache = std::make_shared<ServiceCache>(
            conn, argv[2], [](int rc) { std::cerr << "ZooKeeper error: " << zerror(rc) << std::endl; });
        cache->Start();
        if (!cache->WaitSynced(std::chrono::seconds(10))) {
            std::cerr << "the view of " << argv[2] << " is not complete" << std::endl;
            return 1;
        }

        ProviderOptions choice;
        choice.strategy = ChoiceStrategy::kRoundRobin;
        if (argc > 4) choice.zone = argv[4];  // this zone first, others when it has none
        InstanceProvider provider(cache, choice);

        for (int n = 1; n <= calls; ++n) {
            // Ends the call when it goes, reported or not: an exception
            // thrown by the call leaves nothing in flight.
            Call call = provider.StartCall();
            if (!call) {
                std::cout << "call " << n << ": no instance available" << std::endl;
                continue;
            }
            const bool served = Serve(*call.Instance());
            std::cout << "call " << n << " " << call->Host() << ":" << call->Port() << (served ? "" : " failed")
                      << std::endl;
            // Every outcome counts: a success ends a row of failures.
            served ? call.Succeeded() : call.Failed();
        }
        return 0;
    } catch (const std::exception& e) {
        std::cerr << e.what() << std::endl;
        return 1;
    }
}
