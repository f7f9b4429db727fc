#include "tests/support/subprocess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tests/support/support.h"

extern char** environ;

namespace jx {
namespace testing {

Subprocess::Subprocess(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
    char out[] = "/tmp/ferrow-out-XXXXXX", err[] = "/tmp/ferrow-err-XXXXXX";
    const int outFd = ::mkstemp(out), errFd = ::mkstemp(err);
    m_outPath = out;
    m_errPath = err;
    int in[2];
    if (outFd < 0 || errFd < 0 || ::pipe2(in, O_CLOEXEC) != 0) throw std::runtime_error("cannot make the child's files");
    std::vector<std::string> strings = argv;
    strings.insert(strings.end(), env.begin(), env.end());  // first: the earliest entry of a name wins
    for (char** e = environ; *e != nullptr; ++e) strings.push_back(*e);
    std::vector<char*> args, envp;
    for (size_t i = 0; i < strings.size(); ++i) (i < argv.size() ? args : envp).push_back(strings[i].data());
    args.push_back(nullptr);
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, outFd, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errFd, STDERR_FILENO);
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
    const int rc = posix_spawn(&m_pid, args[0], &actions, &attr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    for (int fd : {in[0], outFd, errFd}) ::close(fd);
    m_stdin = in[1];
    if (rc != 0) throw std::runtime_error("cannot start " + argv.at(0) + ": " + std::strerror(rc));
}

Subprocess::~Subprocess() {
    if (!m_status) Wait(std::chrono::milliseconds(0));
    CloseStdin();
    std::remove(m_outPath.c_str());
    std::remove(m_errPath.c_str());
}

std::string Subprocess::Read(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

std::optional<std::string> Subprocess::ReadLine(std::chrono::milliseconds timeout) {
    std::string out;
    if (!PollUntil([&] { return (out = Stdout()).find('\n') != std::string::npos; }, timeout)) return std::nullopt;
    m_consumed += out.find('\n') + 1;
    return out.substr(0, out.find('\n'));
}

void Subprocess::WriteStdin(const std::string& text) {
    if (::write(m_stdin, text.data(), text.size()) != static_cast<ssize_t>(text.size())) throw std::runtime_error("write to child");
}

void Subprocess::CloseStdin() {
    if (m_stdin >= 0) ::close(m_stdin);
    m_stdin = -1;
}

void Subprocess::Signal(int signal) {
    if (!m_status) ::kill(m_pid, signal);
}

int Subprocess::Wait(std::chrono::milliseconds timeout) {
    int status = 0;
    if (!m_status && !PollUntil([&] { return ::waitpid(m_pid, &status, WNOHANG) == m_pid; }, timeout, std::chrono::milliseconds(5))) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, &status, 0);
        return *(m_status = -1);
    }
    if (!m_status) m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return *m_status;
}

RunResult Run(const std::vector<std::string>& argv, std::chrono::milliseconds timeout, const std::vector<std::string>& env) {
    Subprocess child(argv, env);
    child.CloseStdin();
    const int code = child.Wait(timeout);
    return RunResult{code, child.Stdout(), child.Stderr()};
}

}  // namespace testing
}  // namespace jx
