#include "metrics_server.h"

#include <microhttpd.h>
#include <netdb.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "commands.h"
#include "ferrow/metrics.h"
#include "process_metrics.h"
#include "secrets.h"

namespace jx {
namespace ferrow {
namespace cli {

namespace {

constexpr char kContentType[] = "text/plain; version=0.0.4; charset=utf-8";
// Connections served at once: far more than the scrapers and people that
// ever point at one process.
constexpr rlim_t kConnectionLimit = 512;
// An idle connection is closed after this long, so that connections left
// open cannot pile up to the limit.
constexpr unsigned kIdleSeconds = 5;

// kConnectionLimit, or half the descriptors the process may open when that
// is less, so that its ZooKeeper connection never runs short of them.
unsigned ConnectionLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return kConnectionLimit;
    return static_cast<unsigned>(std::clamp<rlim_t>(limit.rlim_cur / 2, 1, kConnectionLimit));
}

MHD_Result Reply(MHD_Connection* connection, unsigned status, const String& body, const char* type) {
    MHD_Response* response =
        MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()), MHD_RESPMEM_MUST_COPY);
    if (response == nullptr) return MHD_NO;
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type);
    if (status == MHD_HTTP_METHOD_NOT_ALLOWED) MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
    const MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

MHD_Result Answer(void*, MHD_Connection* connection, const char* url, const char* method, const char*,
                  const char*, size_t*, void**) {
    const bool get = std::strcmp(method, MHD_HTTP_METHOD_GET) == 0 || std::strcmp(method, MHD_HTTP_METHOD_HEAD) == 0;
    if (!get) return Reply(connection, MHD_HTTP_METHOD_NOT_ALLOWED, "only GET\n", "text/plain");
    if (std::strcmp(url, "/metrics") != 0) return Reply(connection, MHD_HTTP_NOT_FOUND, "see /metrics\n", "text/plain");
    return Reply(connection, MHD_HTTP_OK, PrometheusText() + ProcessMetricsText(), kContentType);
}

// The host and port of "HOST:PORT" or "[HOST]:PORT"; throws UsageError.
std::pair<String, String> Split(const String& address) {
    const auto bad = [&address](const char* why) {
        return UsageError("--metrics '" + address + "': " + why + " (expected HOST:PORT, say 127.0.0.1:9464)");
    };
    const std::size_t colon = address.rfind(':');
    if (colon == String::npos || colon == 0) throw bad("no host and port");
    String host = address.substr(0, colon);
    const String port = address.substr(colon + 1);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    if (host.find(':') != String::npos && address.front() != '[') throw bad("an IPv6 host needs brackets");
    if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != String::npos ||
        std::stoul(port) > 65535) {
        throw bad("the port must be a number up to 65535");
    }
    return {host, port};
}

}  // namespace

MetricsServer::MetricsServer(const String& address) {
    const auto [host, port] = Split(address);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (const int rc = getaddrinfo(host.c_str(), port.c_str(), &hints, &found); rc != 0) {
        throw UsageError("--metrics '" + address + "': " + gai_strerror(rc));
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owned(found, freeaddrinfo);
    // One thread polls every connection with the best mechanism the system
    // has (epoll on Linux): an idle connection costs a descriptor, never a
    // turn, so it cannot delay a scrape while the limit is not reached.
    unsigned flags = MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_AUTO;
    if (found->ai_family == AF_INET6) flags |= MHD_USE_IPv6;
    errno = 0;
    m_daemon = MHD_start_daemon(flags, 0, nullptr, nullptr, &Answer, nullptr, MHD_OPTION_SOCK_ADDR, found->ai_addr,
                                MHD_OPTION_CONNECTION_TIMEOUT, kIdleSeconds, MHD_OPTION_CONNECTION_LIMIT,
                                ConnectionLimit(), MHD_OPTION_END);
    if (m_daemon == nullptr) {
        throw CommandError("cannot serve metrics at " + address + ": " +
                           (errno != 0 ? std::strerror(errno) : "the HTTP server did not start"));
    }
    const MHD_DaemonInfo* bound = MHD_get_daemon_info(m_daemon, MHD_DAEMON_INFO_BIND_PORT);
    const String shown = found->ai_family == AF_INET6 ? "[" + host + "]" : host;
    m_url = "http://" + shown + ":" + std::to_string(bound ? bound->port : std::stoul(port)) + "/metrics";
}

MetricsServer::~MetricsServer() { MHD_stop_daemon(m_daemon); }

}  // namespace cli
}  // namespace ferrow
}  // namespace jx
