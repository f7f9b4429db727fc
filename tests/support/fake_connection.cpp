#include "tests/support/fake_connection.h"

#include <exception>
#include <utility>

namespace jx {
namespace testing {

FakeConnection::FakeConnection() : m_thread([this] { Deliver(); }) {}

FakeConnection::~FakeConnection() {
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        m_stop = true;
    }
    m_cv.notify_all();
    m_thread.join();
}

void FakeConnection::SetState(int state) {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_state = state;
}

void FakeConnection::ScriptIssue(Kind kind, int rc) {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_script[kind].push_back(rc);
}

void FakeConnection::FailExists(std::optional<int> rc) {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_existsRc = rc;
}

void FakeConnection::FailCreate(std::optional<int> rc) {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_createRc = rc;
}

void FakeConnection::FailGet(std::optional<int> rc) {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_getRc = rc;
}

void FakeConnection::SetNode(const String& path, const String& data) {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_nodes[path] = data;
}

std::vector<FakeConnection::Request> FakeConnection::Requests() const {
    std::lock_guard<std::mutex> lock(m_mtx);
    return m_requests;
}

std::size_t FakeConnection::LastGetCapacity() const {
    std::lock_guard<std::mutex> lock(m_mtx);
    return m_lastGetCapacity;
}

std::size_t FakeConnection::ObserverSlots() const { return GetObserversStrong().size(); }

void FakeConnection::AfterRegisterWeak(std::function<void()> hook) {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_afterRegisterWeak = std::move(hook);
}

void FakeConnection::RegisterWeak(std::weak_ptr<ferrow::ConnectionObserver> observer) {
    ObservableImpl::RegisterWeak(std::move(observer));
    std::function<void()> hook;
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        hook = m_afterRegisterWeak;
    }
    if (hook) hook();
}

FakeConnection::Request FakeConnection::At(std::size_t index) const {
    std::lock_guard<std::mutex> lock(m_mtx);
    return m_requests.at(index);
}

void FakeConnection::FireChildren(std::size_t index, int rc, std::vector<String> children) {
    Request request = At(index);
    Enqueue([result = std::move(request.childrenResult), rc, children = std::move(children)] { result(rc, children); });
}

void FakeConnection::FireData(std::size_t index, int rc, String data) {
    Request request = At(index);
    Enqueue([result = std::move(request.dataResult), rc, data = std::move(data)] {
        Stat stat{};
        result(rc, data, &stat);
    });
}

void FakeConnection::FireWatch(std::size_t index, int type, int state) {
    Request request = At(index);
    Enqueue([ctx = std::move(request.watch), type, state, path = request.path] { InvokeWatch(*ctx, type, state, path); });
}

void FakeConnection::SessionEvent(int type, int state) {
    Enqueue([this, type, state] {
        const String path;
        NotifyObservers(&ferrow::ConnectionObserver::OnSessionEvent, type, state, path);
    });
}

bool FakeConnection::Drain(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_mtx);
    return m_cv.wait_for(lock, timeout, [this] { return m_queue.empty() && !m_delivering; });
}

std::vector<std::string> FakeConnection::Errors() const {
    std::lock_guard<std::mutex> lock(m_mtx);
    return m_errors;
}

void FakeConnection::Enqueue(std::function<void()> delivery) {
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        m_queue.push_back(std::move(delivery));
    }
    m_cv.notify_all();
}

void FakeConnection::Deliver() {
    std::unique_lock<std::mutex> lock(m_mtx);
    for (;;) {
        m_cv.wait(lock, [this] { return m_stop || !m_queue.empty(); });
        if (m_queue.empty()) return;
        std::function<void()> delivery = std::move(m_queue.front());
        m_queue.pop_front();
        m_delivering = true;
        lock.unlock();
        std::string error;
        try {
            delivery();
        } catch (const std::exception& e) {
            error = e.what();
        } catch (...) {
            error = "unknown exception";
        }
        // The callback's captures die here, before Drain can return.
        delivery = nullptr;
        lock.lock();
        if (!error.empty()) m_errors.push_back(error);
        m_delivering = false;
        m_cv.notify_all();
    }
}

int FakeConnection::State() const {
    std::lock_guard<std::mutex> lock(m_mtx);
    return m_state;
}

int FakeConnection::Get(String path, String& out, Stat*) const {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_lastGetCapacity = out.size();
    if (m_getRc) return *m_getRc;
    const auto node = m_nodes.find(path);
    if (node == m_nodes.end()) return ZNONODE;
    if (node->second.size() > out.size()) {
        out.clear();
        return ZBADARGUMENTS;
    }
    out = node->second;
    return ZOK;
}

std::pair<int, FakeConnection::WatchHandle> FakeConnection::Record(Kind kind, String path, WatchFunction watch,
                                                               ChildrenResult children, DataResult data) const {
    std::lock_guard<std::mutex> lock(m_mtx);
    std::deque<int>& script = m_script[kind];
    const int rc = script.empty() ? ZOK : script.front();
    if (!script.empty()) script.pop_front();
    auto ctx = std::make_shared<WatchContext>(*this, std::move(watch));
    m_requests.push_back({kind, std::move(path), rc, ctx, std::move(children), std::move(data)});
    return {rc, MakeWatchHandle(std::move(ctx))};
}

std::pair<int, FakeConnection::WatchHandle> FakeConnection::AsyncGetChildren(String path, WatchFunction watch,
                                                                         ChildrenResult result) const {
    return Record(Kind::Children, std::move(path), std::move(watch), std::move(result), DataResult());
}

std::pair<int, FakeConnection::WatchHandle> FakeConnection::AsyncGet(String path, WatchFunction watch,
                                                                 DataResult result) const {
    return Record(Kind::Data, std::move(path), std::move(watch), ChildrenResult(), std::move(result));
}

int FakeConnection::Create(String path, const String& data, const ACL_vector&, int) const {
    std::lock_guard<std::mutex> lock(m_mtx);
    if (m_createRc) return *m_createRc;
    return m_nodes.emplace(std::move(path), data).second ? ZOK : ZNODEEXISTS;
}

int FakeConnection::Set(String path, const String& data, int, Stat*) const {
    std::lock_guard<std::mutex> lock(m_mtx);
    const auto node = m_nodes.find(path);
    if (node == m_nodes.end()) return ZNONODE;
    node->second = data;
    return ZOK;
}

int FakeConnection::Delete(String path, int) const {
    std::lock_guard<std::mutex> lock(m_mtx);
    return m_nodes.erase(path) != 0 ? ZOK : ZNONODE;
}

int FakeConnection::Exists(String path, Stat*) const {
    std::lock_guard<std::mutex> lock(m_mtx);
    if (m_existsRc) return *m_existsRc;
    return m_nodes.count(path) != 0 ? ZOK : ZNONODE;
}

int FakeConnection::GetChildren(String path, std::vector<String>& children) const {
    std::lock_guard<std::mutex> lock(m_mtx);
    children.clear();
    const String prefix = path + "/";
    for (const auto& node : m_nodes) {
        if (node.first.compare(0, prefix.size(), prefix) == 0 && node.first.find('/', prefix.size()) == String::npos) {
            children.push_back(node.first.substr(prefix.size()));
        }
    }
    return ZOK;
}

}  // namespace testing
}  // namespace jx
