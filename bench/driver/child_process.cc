#include "bench/driver/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <sstream>

namespace kerrow::bench {
namespace {

std::vector<char*> pointers(const std::vector<std::string>& texts) {
    std::vector<char*> result;
    result.reserve(texts.size() + 1);
    for (const auto& text : texts) {
        result.push_back(const_cast<char*>(text.c_str()));
    }
    result.push_back(nullptr);
    return result;
}

// The value of the /proc status line that starts with `key` (e.g. "\nVmRSS:"), or 0.
std::int64_t statusValue(const std::string& status, std::string_view key) {
    const std::size_t at = status.find(key);
    if (at == std::string::npos) {
        return 0;
    }
    return std::strtoll(status.c_str() + at + key.size(), nullptr, 10);
}

std::string readWhole(const std::filesystem::path& file) {
    std::ifstream in(file);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv,
                           const std::vector<std::string>& environment,
                           const std::filesystem::path& standardErrorFile) {
    int in[2];
    int out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
        throw BenchError("pipe2 failed");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, standardErrorFile.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    // The driver ignores SIGPIPE; the program gets the default disposition, as from a browser.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    const auto arguments = pointers(argv);
    const auto variables = pointers(environment);
    const int error = ::posix_spawnp(&pid_, argv.at(0).c_str(), &actions, &attributes,
                                     arguments.data(), variables.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    ::close(in[0]);
    ::close(out[1]);
    input_ = in[1];
    output_ = out[0];
    if (error != 0) {
        pid_ = -1;
        throw BenchError("cannot start " + argv.at(0) + ": " + std::strerror(error));
    }
    pidfd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0 && !status_) {
        kill();
    }
    closeInput();
    if (output_ >= 0) {
        ::close(output_);
    }
    if (pidfd_ >= 0) {
        ::close(pidfd_);
    }
}

void ChildProcess::closeInput() {
    if (input_ >= 0) {
        ::close(input_);
        input_ = -1;
    }
}

std::optional<int> ChildProcess::wait(Deadline deadline) {
    while (!status_) {
        int status = 0;
        const pid_t reaped = ::wait4(pid_, &status, WNOHANG, &usage_);
        if (reaped == pid_) {
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            break;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            return std::nullopt;
        }
        pollfd ended{pidfd_, POLLIN, 0};
        ::poll(&ended, 1, static_cast<int>(left.count()) + 1);
    }
    return status_;
}

void ChildProcess::kill() {
    if (pid_ > 0 && !status_) {
        ::kill(pid_, SIGKILL);
        [[maybe_unused]] const auto status = wait(deadlineIn(std::chrono::seconds(10)));
    }
}

ProcessSample sampleProcess(pid_t pid) {
    ProcessSample sample;
    const std::filesystem::path process = "/proc/" + std::to_string(pid);
    const std::string status = readWhole(process / "status");
    sample.residentKiB = statusValue(status, "\nVmRSS:");
    sample.threads = static_cast<int>(statusValue(status, "\nThreads:"));
    const std::string rollup = readWhole(process / "smaps_rollup");
    sample.privateKiB =
        statusValue(rollup, "\nPrivate_Clean:") + statusValue(rollup, "\nPrivate_Dirty:");
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator(process / "task", error)) {
        ProcessSample::Thread thread;
        std::ifstream(task.path() / "schedstat") >> thread.cpuNanoseconds;
        const std::string taskStatus = readWhole(task.path() / "status");
        thread.contextSwitches = statusValue(taskStatus, "\nvoluntary_ctxt_switches:") +
                                 statusValue(taskStatus, "\nnonvoluntary_ctxt_switches:");
        sample.threadsById[std::stoi(task.path().filename().string())] = thread;
    }
    return sample;
}

namespace {

template <typename Field>
std::int64_t growthBetween(const ProcessSample& before, const ProcessSample& after, Field field) {
    std::int64_t total = 0;
    for (const auto& [id, thread] : after.threadsById) {
        const auto earlier = before.threadsById.find(id);
        total += thread.*field - (earlier == before.threadsById.end() ? 0 : earlier->second.*field);
    }
    return total;
}

}  // namespace

std::int64_t cpuNanosecondsBetween(const ProcessSample& before, const ProcessSample& after) {
    return growthBetween(before, after, &ProcessSample::Thread::cpuNanoseconds);
}

std::int64_t contextSwitchesBetween(const ProcessSample& before, const ProcessSample& after) {
    return growthBetween(before, after, &ProcessSample::Thread::contextSwitches);
}

}  // namespace kerrow::bench
