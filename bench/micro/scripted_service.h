#pragma once

// A watcher (and, if asked, a cache attached to it) fed by the tests'
// scripted connection, which answers on the calling thread: the benchmarks
// of the cache and the provider time only the client's own work.

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "bench_support.h"
#include "ferrow/service_cache.h"
#include "tests/support/fake_connection.h"

namespace jx {
namespace bench {

using ferrow::ServiceCache;
using ferrow::ServiceWatcher;

// A watcher (and, if asked, a cache attached to it) synced with `count`
// instances whose weights run from 1 to 100.
class ScriptedService {
public:
    ScriptedService(std::size_t count, bool withCache)
        : m_conn(std::make_shared<testing::FakeConnection>()), m_watcher(m_conn, "bench", [](int) {}) {
        if (withCache) m_cache = std::make_shared<ServiceCache>(m_watcher);
        m_watcher.Start();
        std::vector<std::string> children;
        for (const ServiceId& id : RandomIds(count)) children.push_back(boost::uuids::to_string(id));
        // The children read, among the reads of the sync tracker a cache asks.
        std::size_t listing = 0;
        while (!m_conn->At(listing).childrenResult) ++listing;
        const std::size_t first = m_conn->RequestCount();
        m_conn->FireChildren(listing, ZOK, children);
        for (std::size_t request = first; request < m_conn->RequestCount(); ++request) {
            const std::string path = m_conn->At(request).path;
            if (!m_conn->At(request).watch) continue;  // a read of the sync tracker
            const ServiceId id = boost::uuids::string_generator()(path.substr(path.rfind('/') + 1));
            m_ids.push_back(id);
            m_dataRequest[id] = request;
            m_conn->FireData(request, ZOK, Bytes(m_ids.size() - 1, 0));
        }
    }

    // The record of instance `index`, version `seq`, as node bytes.
    static std::string Bytes(std::size_t index, std::uint64_t seq) {
        ServiceInstanceData record = MakeRecord(index, seq);
        record.set_weight(static_cast<std::uint32_t>(1 + index % 100));
        return EncodeEnvelope(record);
    }

    // Instance `index`'s record changes to `bytes`: its data watch fires and
    // the watcher's read of it is answered.
    void Modify(std::size_t index, const std::string& bytes) {
        std::size_t& request = m_dataRequest[m_ids[index]];
        m_conn->FireWatch(request, ZOO_CHANGED_EVENT);
        request = m_conn->RequestCount() - 1;
        m_conn->FireData(request, ZOK, bytes);
    }

    std::size_t Size() const { return m_ids.size(); }
    const std::vector<ServiceId>& Ids() const { return m_ids; }
    const std::shared_ptr<ServiceCache>& Cache() const { return m_cache; }

private:
    std::shared_ptr<testing::FakeConnection> m_conn;
    ServiceWatcher m_watcher;
    std::shared_ptr<ServiceCache> m_cache;
    std::vector<ServiceId> m_ids;
    std::unordered_map<ServiceId, std::size_t> m_dataRequest;
};

}  // namespace bench
}  // namespace jx
