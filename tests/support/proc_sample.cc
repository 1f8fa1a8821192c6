#include "tests/support/proc_sample.h"

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/host_process.h"

namespace kerrow::test {

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
