#include "tests/support/host_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <fstream>
#include <system_error>

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
    posix_spawn_file_actions_adddup2(&actions, input.readEnd.get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output.writeEnd.get(), STDOUT_FILENO);
    if (!standardError.empty()) {
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, standardError.c_str(),
                                         O_WRONLY | O_CREAT | O_APPEND, 0600);
    }
    // Like a browser, we pass the three standard streams only, whatever else we have open.
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
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
    process.input.reset(input.writeEnd.release());
    process.output.reset(output.readEnd.release());
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

std::optional<int> waitForExit(pid_t pid, Duration timeout) {
    std::optional<int> status;
    waitUntil(
        [&] {
            int waitStatus = 0;
            if (::waitpid(pid, &waitStatus, WNOHANG) == pid) {
                status =
                    WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : 128 + WTERMSIG(waitStatus);
            }
            return status.has_value();
        },
        timeout);
    return status;
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

std::map<int, unsigned> openDescriptors(pid_t pid) {
    std::map<int, unsigned> descriptors;
    const std::filesystem::path proc = "/proc/" + std::to_string(pid);
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(proc / "fd", error)) {
        std::ifstream info(proc / "fdinfo" / entry.path().filename());
        for (std::string line; std::getline(info, line);) {
            if (line.starts_with("flags:")) {
                descriptors[std::stoi(entry.path().filename().string())] =
                    static_cast<unsigned>(std::stoul(line.substr(6), nullptr, 8));
            }
        }
    }
    return descriptors;
}

ProcessSample sampleProcess(pid_t pid) {
    ProcessSample sample;
    sample.residentKiB = procFigure(pid, "status", "VmRSS");
    sample.threads = static_cast<int>(procFigure(pid, "status", "Threads"));
    sample.privateKiB = procFigure(pid, "smaps_rollup", "Private_Clean") +
                        procFigure(pid, "smaps_rollup", "Private_Dirty");
    std::error_code error;
    const std::filesystem::path tasks = "/proc/" + std::to_string(pid) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
        const std::string id = task.path().filename().string();
        const std::string status = "task/" + id + "/status";
        ProcessSample::Thread thread;
        std::ifstream(task.path() / "schedstat") >> thread.cpuNanoseconds;
        thread.contextSwitches = procFigure(pid, status, "voluntary_ctxt_switches") +
                                 procFigure(pid, status, "nonvoluntary_ctxt_switches");
        sample.threadsById[std::stoi(id)] = thread;
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

}  // namespace kerrow::test
