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

void FakeConnection::Fail(Op op, int rc) {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_forced[op].push_back(rc);
}

int FakeConnection::Forced(Op op) const {
    std::deque<int>& forced = m_forced[op];
    if (forced.empty()) return ZOK;
    const int rc = forced.front();
    forced.pop_front();
    return rc;
}

void FakeConnection::SetNode(const String& path, const String& data) {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_nodes[path] = data;
}

std::vector<FakeConnection::Request> FakeConnection::Requests() const {
    std::lock_guard<std::mutex> lock(m_mtx);
    return m_requests;
}

void FakeConnection::AfterRegisterWeak(std::function<void()> hook) {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_afterRegisterWeak = std::move(hook);
}

void FakeConnection::RegisterWeak(std::weak_ptr<ferrow::ConnectionObserver> observer) {
    ObservableImpl::RegisterWeak(std::move(observer));
    std::unique_lock<std::mutex> lock(m_mtx);
    std::function<void()> hook = m_afterRegisterWeak;
    lock.unlock();
    if (hook) hook();
}

void FakeConnection::FireChildren(std::size_t index, int rc, std::vector<String> children) {
    Enqueue([result = Requests().at(index).childrenResult, rc, children = std::move(children)] { result(rc, children); });
}

void FakeConnection::FireData(std::size_t index, int rc, String data) {
    Enqueue([result = Requests().at(index).dataResult, rc, data = std::move(data)] {
        Stat stat{};
        result(rc, data, &stat);
    });
}

void FakeConnection::FireWatch(std::size_t index, int type) {
    const Request request = Requests().at(index);
    Enqueue([ctx = request.watch, type, path = request.path] { InvokeWatch(*ctx, type, ZOO_CONNECTED_STATE, path); });
}

void FakeConnection::SessionEvent(int state) {
    Enqueue([this, state] { NotifyObservers(&ferrow::ConnectionObserver::OnSessionEvent, ZOO_SESSION_EVENT, state, String()); });
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
    std::lock_guard<std::mutex> lock(m_mtx);
    m_queue.push_back(std::move(delivery));
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
        }
        delivery = nullptr;  // the callback's captures die before Drain can return
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
    const auto node = m_nodes.find(path);
    const int forced = Forced(Op::Get);
    if (forced != ZOK || node == m_nodes.end()) return forced != ZOK ? forced : ZNONODE;
    if (node->second.size() > out.size()) return out.clear(), ZBADARGUMENTS;
    out = node->second;
    return ZOK;
}

std::pair<int, FakeConnection::WatchHandle> FakeConnection::Record(Request request, WatchFunction watch) const {
    std::lock_guard<std::mutex> lock(m_mtx);
    request.watch = std::make_shared<WatchContext>(*this, std::move(watch));
    m_requests.push_back(request);
    return {Forced(Op::Issue), MakeWatchHandle(request.watch)};
}

std::pair<int, FakeConnection::WatchHandle> FakeConnection::AsyncGetChildren(String path, WatchFunction watch,
                                                                         ChildrenResult result) const {
    return Record({Kind::Children, std::move(path), nullptr, std::move(result), DataResult()}, std::move(watch));
}

std::pair<int, FakeConnection::WatchHandle> FakeConnection::AsyncGet(String path, WatchFunction watch,
                                                                 DataResult result) const {
    return Record({Kind::Data, std::move(path), nullptr, ChildrenResult(), std::move(result)}, std::move(watch));
}

int FakeConnection::Create(String path, const String& data, const ACL_vector&, int) const {
    std::lock_guard<std::mutex> lock(m_mtx);
    const int forced = Forced(Op::Create);
    if (forced != ZOK) return forced;
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
    const int forced = Forced(Op::Exists);
    if (forced != ZOK) return forced;
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
