// Follows the instances of one service and prints every change:
//
//   watch_service CONNECT SERVICE [EVENTS [SECONDS]]
//
// Prints "watching SERVICE" once the watcher runs, then one line per event,
// and stops after EVENTS events (default 10) or SECONDS seconds (default 60).

#include <chrono>
#include <condition_variable>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>

#include <boost/uuid/uuid_io.hpp>

#include "ferrow/service_watcher.h"
#include "ferrow/zookeeper_connection.h"

using namespace jx::ferrow;

// Observers run on the connection's delivery thread, one event at a time and
// with no lock of the watcher held. They must return quickly: the next event
// waits for them.
class Printer : public ServiceWatcherObserver {
public:
    void OnInstanceAdded(ServiceWatcher&, const ServiceId& id, const ServiceInstanceData& record) override {
        Print("added " + boost::uuids::to_string(id) + " " + record.host() + ":" + std::to_string(record.port()));
    }
    void OnInstanceModified(ServiceWatcher&, const ServiceId& id, const ServiceInstanceData& record) override {
        Print("modified " + boost::uuids::to_string(id) + " " + record.host() + ":" +
              std::to_string(record.port()));
    }
    void OnInstanceRemoved(ServiceWatcher&, const ServiceId& id) override {
        Print("removed " + boost::uuids::to_string(id));
    }

    // Waits until `count` events were printed or `timeout` passed.
    void Wait(int count, std::chrono::seconds timeout) {
        std::unique_lock<std::mutex> lock(m_mtx);
        m_cv.wait_for(lock, timeout, [&] { return m_events >= count; });
    }

private:
    void Print(const std::string& line) {
        std::cout << line << std::endl;
        std::lock_guard<std::mutex> lock(m_mtx);
        ++m_events;
        m_cv.notify_all();
    }

    std::mutex m_mtx;
    std::condition_variable m_cv;
    int m_events = 0;
};

int main(int argc, char** argv) {
    if (argc < 3) {
        std::cerr << "usage: watch_service CONNECT SERVICE [EVENTS [SECONDS]]" << std::endl;
        return 2;
    }
    const int events = argc > 3 ? std::stoi(argv[3]) : 10;
    const std::chrono::seconds timeout(argc > 4 ? std::stoi(argv[4]) : 60);
    try {
        ConnectionOptions options;
        options.connect = argv[1];
        const auto conn = ZooKeeperConnection::Open(options);
        if (!conn->WaitConnected(options.sessionTimeout)) {
            std::cerr << "cannot connect to " << argv[1] << std::endl;
            return 1;
        }

        auto printer = std::make_shared<Printer>();
        // The error handler runs with the watcher's lock held: report, never
        // call the watcher back from here.
        ServiceWatcher watcher(conn, argv[2], [](int rc) { std::cerr << "ZooKeeper error: " << zerror(rc) << std::endl; });
        watcher.RegisterShared(printer);
        watcher.Start();
        std::cout << "watching " << argv[2] << std::endl;

        printer->Wait(events, timeout);
        return 0;
    } catch (const std::exception& e) {
        std::cerr << e.what() << std::endl;
        return 1;
    }
}
