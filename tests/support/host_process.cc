#include "tests/support/host_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

namespace kerrow::test {
namespace {

int statusOf(int waitStatus) {
    if (WIFEXITED(waitStatus)) {
        return WEXITSTATUS(waitStatus);
    }
    return 128 + WTERMSIG(waitStatus);
}

}  // namespace

HostProcess::HostProcess(const std::filesystem::path& binary,
                         const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& environment,
                         const std::filesystem::path& standardErrorFile) {
    Pipe input;
    Pipe output;
    std::vector<std::string> argumentTexts{binary.string()};
    argumentTexts.insert(argumentTexts.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& text : argumentTexts) {
        argv.push_back(text.data());
    }
    argv.push_back(nullptr);
    std::vector<std::string> environmentTexts;
    for (const auto& [name, value] : environment) {
        environmentTexts.push_back(name + "=" + value);
    }
    std::vector<char*> envp;
    for (auto& text : environmentTexts) {
        envp.push_back(text.data());
    }
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input.readEnd(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output.writeEnd(), STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, standardErrorFile.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0600);
    // The child starts with the default signal dispositions and an empty mask, as from a browser.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const int error =
        ::posix_spawn(&pid_, binary.c_str(), &actions, &attributes, argv.data(), envp.data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        pid_ = -1;
        ADD_FAILURE() << "posix_spawn " << binary << ": " << std::strerror(error);
        return;
    }
    input_ = input.releaseWriteEnd();
    output_ = output.releaseReadEnd();
}

HostProcess::~HostProcess() {
    if (input_ >= 0) {
        ::close(input_);
    }
    if (output_ >= 0) {
        ::close(output_);
    }
    if (pid_ > 0 && !status_) {
        ::kill(pid_, SIGKILL);
        int waitStatus = 0;
        while (::waitpid(pid_, &waitStatus, 0) < 0 && errno == EINTR) {
        }
    }
}

void HostProcess::send(std::string_view body) {
    sendRaw(frame(body));
}

void HostProcess::sendRaw(std::string_view bytes) {
    ASSERT_GE(input_, 0) << "standard input already closed";
    writeAll(input_, bytes);
}

std::optional<std::string> HostProcess::receive(Duration timeout) {
    if (output_ < 0) {
        return std::nullopt;
    }
    return readFrameFrom(output_, timeout);
}

std::string HostProcess::receiveRest(Duration timeout) {
    return output_ < 0 ? std::string() : readToEnd(output_, timeout);
}

void HostProcess::closeInput() {
    if (input_ >= 0) {
        ::close(input_);
        input_ = -1;
    }
}

void HostProcess::closeOutput() {
    if (output_ >= 0) {
        ::close(output_);
        output_ = -1;
    }
}

std::optional<int> HostProcess::waitForExit(Duration timeout) {
    if (status_ || pid_ <= 0) {
        return status_;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        int waitStatus = 0;
        const pid_t done = ::waitpid(pid_, &waitStatus, WNOHANG);
        if (done == pid_) {
            status_ = statusOf(waitStatus);
            return status_;
        }
        if (done < 0 && errno != EINTR) {
            ADD_FAILURE() << "waitpid: " << std::strerror(errno);
            return std::nullopt;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return std::nullopt;
        }
        std::this_thread::sleep_for(2ms);
    }
}

bool HostProcess::running() const {
    if (status_ || pid_ <= 0) {
        return false;
    }
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
}

}  // namespace kerrow::test
