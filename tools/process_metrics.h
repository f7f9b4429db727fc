#pragma once

// The standard process figures that Prometheus clients export (CPU time,
// memory, file descriptors, start time), read from /proc/self for the
// `--metrics` endpoint, beside the library's own (ferrow/metrics.h).

#include "utility/string.h"

namespace jx {
namespace ferrow {
namespace cli {

// process_cpu_seconds_total, process_resident_memory_bytes,
// process_virtual_memory_bytes, process_open_fds, process_max_fds and
// process_start_time_seconds in the Prometheus text format, read anew at
// each call, on any thread. A figure that cannot be read (no /proc) is
// left out with its family, never reported as 0.
String ProcessMetricsText();

}  // namespace cli
}  // namespace ferrow
}  // namespace jx
