#include "tests/support/subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace jx {
namespace testing {

namespace {

void ClosePipe(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

int DecodeStatus(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

}  // namespace

Subprocess::Subprocess(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
    int in[2], out[2], err[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
        throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
    }

    std::vector<std::string> environment;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        const std::string name = entry.substr(0, entry.find('='));
        bool replaced = false;
        for (const auto& extra : env) replaced = replaced || extra.substr(0, extra.find('=')) == name;
        if (!replaced) environment.push_back(entry);
    }
    environment.insert(environment.end(), env.begin(), env.end());
    std::vector<char*> envp;
    for (auto& entry : environment) envp.push_back(entry.data());
    envp.push_back(nullptr);
    std::vector<std::string> args = argv;
    std::vector<char*> argp;
    for (auto& arg : args) argp.push_back(arg.data());
    argp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    // The child starts with no signal blocked or ignored, whatever this
    // process did to its own.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const int rc = posix_spawn(&m_pid, argp[0], &actions, &attr, argp.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);

    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    m_stdin = in[1];
    m_stdout = out[0];
    m_stderr = err[0];
    if (rc != 0) {
        m_pid = -1;
        ClosePipe(m_stdin);
        ClosePipe(m_stdout);
        ClosePipe(m_stderr);
        throw std::runtime_error("cannot start " + argv.at(0) + ": " + std::strerror(rc));
    }
}

Subprocess::~Subprocess() {
    if (m_pid > 0 && !m_status) {
        ::kill(m_pid, SIGKILL);
        int status = 0;
        while (::waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    ClosePipe(m_stdin);
    ClosePipe(m_stdout);
    ClosePipe(m_stderr);
}

bool Subprocess::Pump(std::chrono::steady_clock::time_point deadline) {
    pollfd fds[2] = {{m_stdout, POLLIN, 0}, {m_stderr, POLLIN, 0}};
    if (m_stdout < 0 && m_stderr < 0) return false;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    const int n = ::poll(fds, 2, static_cast<int>(std::max<long long>(0, left.count())));
    if (n <= 0) return true;
    int* pipes[2] = {&m_stdout, &m_stderr};
    std::string* buffers[2] = {&m_out, &m_err};
    for (int i = 0; i < 2; ++i) {
        if (*pipes[i] < 0 || fds[i].revents == 0) continue;
        char chunk[4096];
        const ssize_t got = ::read(*pipes[i], chunk, sizeof chunk);
        if (got > 0) {
            buffers[i]->append(chunk, static_cast<size_t>(got));
        } else if (got == 0 || errno != EINTR) {
            ClosePipe(*pipes[i]);
        }
    }
    return m_stdout >= 0 || m_stderr >= 0;
}

std::optional<std::string> Subprocess::ReadLine(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto eol = m_out.find('\n');
        if (eol != std::string::npos) {
            std::string line = m_out.substr(0, eol);
            m_out.erase(0, eol + 1);
            return line;
        }
        if (m_stdout < 0 || std::chrono::steady_clock::now() >= deadline) return std::nullopt;
        Pump(deadline);
    }
}

void Subprocess::WriteStdin(const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(m_stdin, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw std::runtime_error(std::string("write to child: ") + std::strerror(errno));
        done += static_cast<size_t>(n);
    }
}

void Subprocess::CloseStdin() { ClosePipe(m_stdin); }

void Subprocess::Signal(int signal) {
    if (m_pid > 0 && !m_status) ::kill(m_pid, signal);
}

int Subprocess::Wait(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!m_status) {
        int status = 0;
        const pid_t done = ::waitpid(m_pid, &status, WNOHANG);
        if (done == m_pid) {
            m_status = DecodeStatus(status);
        } else if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(m_pid, SIGKILL);
            while (::waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
            }
            m_status = -1;
        } else if (!Pump(std::min(deadline, std::chrono::steady_clock::now() + std::chrono::milliseconds(20)))) {
            // Both pipes ended: the child is exiting; poll for its status.
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    // Whatever the child wrote last; a pipe still held open by a process
    // the child left behind is given up after a second.
    const auto drained = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (std::chrono::steady_clock::now() < drained && Pump(drained)) {
    }
    return *m_status;
}

RunResult Run(const std::vector<std::string>& argv, std::chrono::milliseconds timeout,
              const std::vector<std::string>& env) {
    Subprocess child(argv, env);
    child.CloseStdin();
    const int code = child.Wait(timeout);
    return RunResult{code, child.Stdout(), child.Stderr()};
}

}  // namespace testing
}  // namespace jx
