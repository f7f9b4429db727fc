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
    // An instance disappeared. Also called for an id never reported added:
    // one listed and gone before its record could be read (its node deleted
    // meanwhile, or named in upper case, which names no node the watcher
    // reads), or still being read when the session expired. Ignore ids you
    // do not know.
    virtual void OnInstanceRemoved(ServiceWatcher&, const ServiceId&) {}
    // An instance's record changed.
    virtual void OnInstanceModified(ServiceWatcher&, const ServiceId&, const ServiceInstanceData&) {}
};

}  // namespace ferrow
}  // namespace jx
