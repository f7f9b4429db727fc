#include "process_metrics.h"

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <vector>

namespace jx {
namespace ferrow {
namespace cli {

namespace {

// One family of one unlabelled sample.
void Family(String& out, const char* name, const char* type, const char* help, const String& value) {
    out += String("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n" + name + " " + value + "\n";
}

String Fixed(double value) {
    char text[48];
    std::snprintf(text, sizeof text, "%.3f", value);
    return text;
}

// The fields of /proc/self/stat from the third (state) on: the second, the
// command name in parentheses, may itself hold spaces and parentheses, so
// the split starts after the last ')'. Empty when it cannot be read.
std::vector<unsigned long long> StatFields() {
    std::ifstream in("/proc/self/stat");
    String line;
    if (!std::getline(in, line)) return {};
    const auto close = line.rfind(')');
    if (close == String::npos) return {};
    std::istringstream rest(line.substr(close + 1));
    std::vector<unsigned long long> fields;
    for (String field; rest >> field;) fields.push_back(std::strtoull(field.c_str(), nullptr, 10));
    return fields;
}

// When the system booted, in seconds since the epoch: btime of /proc/stat.
std::optional<unsigned long long> BootTime() {
    std::ifstream in("/proc/stat");
    for (String line; std::getline(in, line);) {
        if (line.rfind("btime ", 0) == 0) return std::strtoull(line.c_str() + 6, nullptr, 10);
    }
    return std::nullopt;
}

// Descriptors open in this process, but for the one that reads the list.
std::optional<unsigned long long> OpenFds() {
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return std::nullopt;
    const String own = std::to_string(dirfd(dir));
    unsigned long long count = 0;
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.' && own != entry->d_name) ++count;
    }
    closedir(dir);
    return count;
}

}  // namespace

String ProcessMetricsText() {
    String out;
    // Fields 14, 15 (user and system time), 22 (start), 23 (virtual size)
    // and 24 (resident pages) of proc(5), counted from the third.
    const std::vector<unsigned long long> stat = StatFields();
    const double ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    if (stat.size() > 21 && ticks > 0) {
        Family(out, "process_cpu_seconds_total", "counter", "Total user and system CPU time spent in seconds.",
               Fixed(static_cast<double>(stat[11] + stat[12]) / ticks));
        Family(out, "process_resident_memory_bytes", "gauge", "Resident memory size in bytes.",
               std::to_string(stat[21] * static_cast<unsigned long long>(sysconf(_SC_PAGESIZE))));
        Family(out, "process_virtual_memory_bytes", "gauge", "Virtual memory size in bytes.",
               std::to_string(stat[20]));
        if (const auto boot = BootTime()) {
            Family(out, "process_start_time_seconds", "gauge",
                   "Start time of the process since unix epoch in seconds.",
                   Fixed(static_cast<double>(*boot) + static_cast<double>(stat[19]) / ticks));
        }
    }
    if (const auto open = OpenFds()) {
        Family(out, "process_open_fds", "gauge", "Number of open file descriptors.", std::to_string(*open));
    }
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        Family(out, "process_max_fds", "gauge", "Maximum number of open file descriptors.",
               std::to_string(static_cast<unsigned long long>(limit.rlim_cur)));
    }
    return out;
}

}  // namespace cli
}  // namespace ferrow
}  // namespace jx
