#include "tests/support/expire_session.h"

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <stdexcept>

namespace jx {
namespace testing {

namespace {

// The session timeout the attaching client asks for; it never matters, for
// the client closes the session as soon as it is attached.
constexpr int kAttachTimeoutMs = 10000;

// The last session state of the attaching client, set on the client's thread.
struct AttachState {
    std::mutex mtx;
    std::condition_variable cv;
    int state = 0;
};

void OnSessionEvent(zhandle_t*, int type, int state, const char*, void* context) {
    if (type != ZOO_SESSION_EVENT) return;
    auto* attach = static_cast<AttachState*>(context);
    {
        std::lock_guard<std::mutex> lock(attach->mtx);
        attach->state = state;
    }
    attach->cv.notify_all();
}

}  // namespace

void ExpireSession(const std::string& connect, const ferrow::ZooKeeperConnection& conn,
                   std::chrono::milliseconds deadline) {
    clientid_t id{};
    id.client_id = conn.SessionId();
    const String password = conn.SessionPassword();
    if (id.client_id == 0 || password.size() != sizeof(id.passwd)) {
        throw std::runtime_error("the connection has no session to expire");
    }
    std::memcpy(id.passwd, password.data(), sizeof(id.passwd));

    // Attaching takes the session away from `conn`, which reconnects at once
    // and may take it back before the close arrives; the server then refuses
    // the close. Only an attach refused as expired proves the session gone.
    const auto until = std::chrono::steady_clock::now() + deadline;
    for (;;) {
        AttachState attach;
        zhandle_t* zh = zookeeper_init(connect.c_str(), &OnSessionEvent, kAttachTimeoutMs, &id, &attach, 0);
        if (zh == nullptr) throw std::runtime_error("cannot start a client for " + connect);
        int state;
        {
            std::unique_lock<std::mutex> lock(attach.mtx);
            attach.cv.wait_until(lock, until, [&] {
                return attach.state == ZOO_CONNECTED_STATE || attach.state == ZOO_EXPIRED_SESSION_STATE;
            });
            state = attach.state;
        }
        // Closing an attached client closes the session; the watcher callback
        // can no longer run once zookeeper_close has returned.
        zookeeper_close(zh);
        if (state == ZOO_EXPIRED_SESSION_STATE) return;
        if (state != ZOO_CONNECTED_STATE) {
            throw std::runtime_error("could not attach to the session through " + connect);
        }
    }
}

}  // namespace testing
}  // namespace jx
