#pragma once

// A program run by a test as a child process, its standard output and error
// read through pipes with deadlines.

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace jx {
namespace testing {

// Not thread-safe. The child is always ended by its id: the destructor
// sends SIGKILL to a child still running and reaps it.
class Subprocess {
public:
    // Starts `argv` (argv[0] is a path) with the environment of this process
    // plus `env` entries "NAME=VALUE" (replacing ones of the same name).
    // Standard input is a pipe kept open until CloseStdin. Throws
    // std::runtime_error when the program cannot be started.
    explicit Subprocess(const std::vector<std::string>& argv, const std::vector<std::string>& env = {});
    ~Subprocess();
    Subprocess(const Subprocess&) = delete;  // owns a process
    Subprocess& operator=(const Subprocess&) = delete;

    pid_t Pid() const { return m_pid; }

    // The next line of standard output without its newline, or nothing when
    // output ended or `timeout` passed first.
    std::optional<std::string> ReadLine(std::chrono::milliseconds timeout);

    // Writes `text` to the child's standard input; CloseStdin ends it.
    void WriteStdin(const std::string& text);
    void CloseStdin();

    void Signal(int signal);

    // Waits until the child has exited and both pipes are drained. Returns
    // the exit code, or 128 + signal number when a signal ended it. When
    // `timeout` passes first the child is killed and -1 is returned.
    int Wait(std::chrono::milliseconds timeout);

    // Standard output not yet returned by ReadLine, and all standard error
    // read so far (complete after Wait).
    const std::string& Stdout() const { return m_out; }
    const std::string& Stderr() const { return m_err; }

private:
    // Reads whatever the pipes hold, waiting at most until `deadline` for
    // something to arrive. Returns false when both pipes have ended.
    bool Pump(std::chrono::steady_clock::time_point deadline);

    pid_t m_pid = -1;
    int m_stdin = -1;
    int m_stdout = -1;
    int m_stderr = -1;
    std::string m_out;
    std::string m_err;
    std::optional<int> m_status;
};

// Runs `argv` to completion (at most `timeout`) with standard input closed.
struct RunResult {
    int code;
    std::string out;
    std::string err;
};
RunResult Run(const std::vector<std::string>& argv, std::chrono::milliseconds timeout,
              const std::vector<std::string>& env = {});

}  // namespace testing
}  // namespace jx
