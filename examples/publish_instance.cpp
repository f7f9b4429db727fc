// Publishes one instance of a service for as long as it runs:
//
//   publish_instance CONNECT SERVICE HOST PORT
//
// Prints the instance's id. Every line read from standard input, KEY=VALUE,
// sets a metadata entry and republishes the record; end of input withdraws
// the instance and exits.

#include <iostream>
#include <string>

#include <boost/uuid/uuid_io.hpp>

#include "ferrow/service_registration.h"
#include "ferrow/zookeeper_connection.h"

using namespace jx::ferrow;

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "usage: publish_instance CONNECT SERVICE HOST PORT" << std::endl;
        return 2;
    }
    try {
        ConnectionOptions options;
        options.connect = argv[1];
        const auto conn = ZooKeeperConnection::Open(options);
        if (!conn->WaitConnected(options.sessionTimeout)) {
            std::cerr << "cannot connect to " << argv[1] << std::endl;
            return 1;
        }

        ServiceInstanceData record;
        record.set_host(argv[3]);
        record.set_port(static_cast<unsigned>(std::stoul(argv[4])));
        // Creates /srv2/SERVICE/<random id>; published again by itself if
        // the session expires, deleted when `registration` is destroyed.
        ServiceRegistration registration(conn, argv[2], record);
        std::cout << boost::uuids::to_string(registration.Id()) << std::endl;

        for (std::string line; std::getline(std::cin, line);) {
            const auto eq = line.find('=');
            if (eq == std::string::npos) continue;
            (*record.mutable_metadata())[line.substr(0, eq)] = line.substr(eq + 1);
            registration.Update(record);
        }
        return 0;
    } catch (const std::exception& e) {
        std::cerr << e.what() << std::endl;
        return 1;
    }
}
