#pragma once

#include <functional>

#include <boost/uuid/uuid.hpp>

#include "messaging/ferrow/service.pb.h"

namespace jx {
namespace ferrow {

// Names one running instance; its canonical lower-case text is the name of
// the instance's node under the service node.
using ServiceId = boost::uuids::uuid;
using ServiceInstanceData = jx::messaging::ferrow::ServiceInstanceData;

// The owner's handler for ZooKeeper errors that a retry cannot cure; called
// with the client's result code, under the watcher's lock.
using ZkErrorHandler = std::function<void(int)>;

class ServiceWatcher;

// Receives a watcher's instance events on the connection's delivery thread,
// with no lock of the watcher held. The default bodies ignore the event.
class ServiceWatcherObserver {
public:
    virtual ~ServiceWatcherObserver() = default;
    // An instance appeared, with its decoded record.
    virtual void OnInstanceAdded(ServiceWatcher&, const ServiceId&, const ServiceInstanceData&) {}
    // An instance disappeared. A ServiceWatcher reports a removal only of an
    // instance it reported added and not removed since.
    virtual void OnInstanceRemoved(ServiceWatcher&, const ServiceId&) {}
    // An instance's record changed.
    virtual void OnInstanceModified(ServiceWatcher&, const ServiceId&, const ServiceInstanceData&) {}
};

}  // namespace ferrow
}  // namespace jx
