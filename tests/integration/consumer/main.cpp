// Uses every installed library: instance encoding (ferrow, messages, zlib),
// the connection (connection, zookeeper_mt) and the log level (logger).
// Prints "ok" when a record survives encoding and decoding.

#include <chrono>
#include <iostream>

#include "ferrow/instance_data.h"
#include "ferrow/zookeeper_connection.h"
#include "logger/log_handler.h"

int main() {
    jx::logging::SetMinimumLoggingLevel(*jx::logging::ParseLogLevel("critical"));

    jx::ferrow::ServiceInstanceData record;
    record.set_host("consumer.test");
    record.set_port(4242);
    const auto decoded = jx::ferrow::DecodeInstanceData(jx::ferrow::EncodeInstanceData(record, true));

    jx::ferrow::ConnectionOptions options;
    options.connect = "127.0.0.1:1";
    const auto conn = jx::ferrow::ZooKeeperConnection::Open(options);
    const bool connected = conn->WaitConnected(std::chrono::milliseconds(0));

    if (decoded.host() != record.host() || decoded.port() != record.port() || connected) return 1;
    std::cout << "ok" << std::endl;
    return 0;
}
