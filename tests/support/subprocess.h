#pragma once

// A program run by a test as a child process: its standard output read
// line by line with deadlines, its standard error kept whole.

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace jx {
namespace testing {

// Not thread-safe. The child is always ended by its id: the destructor
// sends SIGKILL to a child still running and reaps it. Its output goes to
// temporary files, so that a child never blocks on a full pipe.
class Subprocess {
public:
    // Starts `argv` (argv[0] is a path) with this process's environment plus
    // `env` entries "NAME=VALUE". Standard input is a pipe kept open until
    // CloseStdin. Throws std::runtime_error when the program cannot start.
    explicit Subprocess(const std::vector<std::string>& argv, const std::vector<std::string>& env = {});
    ~Subprocess();
    Subprocess(const Subprocess&) = delete;  // owns a process
    Subprocess& operator=(const Subprocess&) = delete;

    // The next line of standard output without its newline, or nothing when
    // none is complete within `timeout`.
    std::optional<std::string> ReadLine(std::chrono::milliseconds timeout);
    void WriteStdin(const std::string& text);
    void CloseStdin();
    void Signal(int signal);
    // Waits until the child has exited. Returns the exit code, or 128 +
    // signal number when a signal ended it; when `timeout` passes first the
    // child is killed and -1 is returned.
    int Wait(std::chrono::milliseconds timeout);
    // Standard output not yet returned by ReadLine; standard error so far.
    std::string Stdout() const { return Read(m_outPath).substr(m_consumed); }
    std::string Stderr() const { return Read(m_errPath); }

private:
    static std::string Read(const std::string& path);

    pid_t m_pid = -1;
    int m_stdin = -1;
    std::string m_outPath, m_errPath;
    size_t m_consumed = 0;  // bytes of standard output returned by ReadLine
    std::optional<int> m_status;
};

struct RunResult {
    int code;
    std::string out;
    std::string err;
};
// Runs `argv` to completion (at most `timeout`) with standard input closed.
RunResult Run(const std::vector<std::string>& argv, std::chrono::milliseconds timeout,
              const std::vector<std::string>& env = {});

}  // namespace testing
}  // namespace jx
