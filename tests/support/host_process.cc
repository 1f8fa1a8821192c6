#include "tests/support/host_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <fstream>
#include <system_error>
#include <thread>

extern char** environ;  // NOLINT(readability-redundant-declaration): POSIX declares it nowhere

namespace kerrow::test {

LaunchedProcess launchProcess(const std::filesystem::path& binary,
                              const std::vector<std::string>& arguments,
                              const std::optional<Environment>& environment,
                              const std::filesystem::path& standardError) {
    Pipe input;
    Pipe output;
    std::vector<std::string> argv{binary.string()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::vector<std::string> envp;
    for (const auto& [name, value] : environment.value_or(Environment{})) {
        envp.push_back(name + "=" + value);
    }
    const auto pointers = [](std::vector<std::string>& texts) {
        std::vector<char*> result;
        for (auto& text : texts) {
            result.push_back(text.data());
        }
        result.push_back(nullptr);
        return result;
    };
    const auto argvPointers = pointers(argv);
    const auto envpPointers = pointers(envp);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input.readEnd(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output.writeEnd(), STDOUT_FILENO);
    if (!standardError.empty()) {
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, standardError.c_str(),
                                         O_WRONLY | O_CREAT | O_APPEND, 0600);
    }
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    LaunchedProcess process;
    const int error =
        ::posix_spawnp(&process.pid, binary.c_str(), &actions, &attributes, argvPointers.data(),
                       environment ? envpPointers.data() : environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(),
                                "cannot start the host " + binary.string());
    }
    process.input.reset(input.releaseWriteEnd());
    process.output.reset(output.releaseReadEnd());
    return process;
}

HostProcess::HostProcess(const std::filesystem::path& binary,
                         const std::vector<std::string>& arguments,
                         const std::optional<Environment>& environment,
                         const std::filesystem::path& standardErrorFile)
    : process_(launchProcess(binary, arguments, environment, standardErrorFile)),
      standardError_(standardErrorFile) {}

HostProcess::~HostProcess() {
    if (!status_) {
        ::kill(process_.pid, SIGKILL);
        while (::waitpid(process_.pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
}

std::optional<std::string> HostProcess::receive(Duration timeout) {
    return process_.output ? readFrameFrom(process_.output.get(), timeout) : std::nullopt;
}

std::string HostProcess::receiveRest(Duration timeout) {
    return process_.output ? readToEnd(process_.output.get(), timeout) : std::string();
}

void HostProcess::signal(int number) const {
    if (!status_) {
        ::kill(process_.pid, number);
    }
}

std::optional<int> HostProcess::waitForExit(Duration timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!status_) {
        int waitStatus = 0;
        const pid_t done = ::waitpid(process_.pid, &waitStatus, WNOHANG);
        if (done == process_.pid) {
            status_ = WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : 128 + WTERMSIG(waitStatus);
        } else if (done < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "waitpid");
        } else if (std::chrono::steady_clock::now() >= deadline) {
            return std::nullopt;
        } else {
            std::this_thread::sleep_for(2ms);
        }
    }
    return status_;
}

bool HostProcess::running() const {
    siginfo_t info{};
    return !status_ &&
           ::waitid(P_PID, static_cast<id_t>(process_.pid), &info, WEXITED | WNOHANG | WNOWAIT) ==
               0 &&
           info.si_pid == 0;
}

std::int64_t procFigure(pid_t pid, std::string_view file, std::string_view name) {
    std::ifstream figures("/proc/" + std::to_string(pid) + "/" + std::string(file));
    for (std::string line; std::getline(figures, line);) {
        if (line.starts_with(name) && line.size() > name.size() && line[name.size()] == ':') {
            return std::stoll(line.substr(name.size() + 1));
        }
    }
    return 0;
}

}  // namespace kerrow::test
