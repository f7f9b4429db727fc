#pragma once

// The endpoint of `--metrics HOST:PORT`: serves the process's metrics
// (ferrow/metrics.h, and the process's own: process_metrics.h) in the
// Prometheus text format at /metrics.

#include <cstdint>

#include "utility/string.h"

struct MHD_Daemon;

namespace jx {
namespace ferrow {
namespace cli {

// An HTTP server (GNU libmicrohttpd) answering GET /metrics with
// PrometheusText() followed by ProcessMetricsText(), read anew for each
// request, on a thread of its own; any other path is 404, any other method
// 405. Serves up to 512 connections at once (fewer when the process may
// open fewer than 1,024 descriptors) and closes one idle for 5 s, so that
// connections held open never delay a scrape. Made and destroyed on the
// main thread; each request collects the metrics on the server's thread.
class MetricsServer {
public:
    // Listens on `address` ("HOST:PORT", "[IPv6]:PORT"; port 0 takes a free
    // one). Throws UsageError for a malformed address, CommandError when it
    // cannot listen there.
    explicit MetricsServer(const String& address);
    // Stops listening and waits for a request being answered.
    ~MetricsServer();
    MetricsServer(const MetricsServer&) = delete;
    MetricsServer& operator=(const MetricsServer&) = delete;

    // The address served, with the port bound: "http://127.0.0.1:9464/metrics".
    const String& Url() const { return m_url; }

private:
    MHD_Daemon* m_daemon = nullptr;
    String m_url;
};

}  // namespace cli
}  // namespace ferrow
}  // namespace jx
