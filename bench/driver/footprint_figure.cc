// Footprint: memory and threads, CPU while idle, CPU while the core service is away.
// The programs run side by side so that the two long windows are spent once for all of them.
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "bench/driver/figure_support.h"
#include "bench/driver/figures.h"

namespace kerrow::bench {
namespace {

std::vector<ProcessSample> sampleAll(std::vector<std::unique_ptr<BenchSession>>& sessions) {
    std::vector<ProcessSample> samples;
    for (const auto& session : sessions) {
        samples.push_back(sampleProcess(session->child().pid()));
    }
    return samples;
}

// Keeps each program's memory map (/proc/<pid>/smaps) as <directory>/<name>-<moment>.smaps, for
// reading where its resident pages are.
void keepMemoryMaps(std::vector<std::unique_ptr<BenchSession>>& sessions,
                    const std::vector<Program>& programs, const std::filesystem::path& directory,
                    std::string_view moment) {
    if (directory.empty()) {
        return;
    }
    for (std::size_t i = 0; i < sessions.size(); ++i) {
        // /proc files tell no size, so they are copied by reading, not with copy_file().
        std::ifstream map("/proc/" + std::to_string(sessions[i]->child().pid()) + "/smaps");
        std::ofstream(directory / (programs[i].name + "-" + std::string(moment) + ".smaps"))
            << map.rdbuf();
    }
}

// Samples every program through `window` and returns what was last seen of each thread, so that a
// thread that ends inside the window (a reconnecting thread that gives up) still counts.
std::vector<ProcessSample> watch(std::vector<std::unique_ptr<BenchSession>>& sessions,
                                 std::chrono::milliseconds window) {
    constexpr auto interval = std::chrono::milliseconds(100);
    const auto end = Clock::now() + window;
    std::vector<ProcessSample> seen = sampleAll(sessions);
    while (Clock::now() < end) {
        std::this_thread::sleep_for(std::min<Clock::duration>(interval, end - Clock::now()));
        const auto latest = sampleAll(sessions);
        for (std::size_t i = 0; i < seen.size(); ++i) {
            for (const auto& [id, thread] : latest[i].threadsById) {
                seen[i].threadsById[id] = thread;  // ended threads keep their last values
            }
            seen[i].residentKiB = latest[i].residentKiB;
            seen[i].privateKiB = latest[i].privateKiB;
            seen[i].threads = latest[i].threads;
        }
    }
    return seen;
}

}  // namespace

std::vector<JsonLine> measureFootprint(const std::vector<Program>& programs, std::size_t frames,
                                       std::chrono::milliseconds window,
                                       const RunSettings& settings) {
    const Deadline deadline = deadlineIn(settings.timeout + 3 * window);
    std::vector<std::unique_ptr<BenchSession>> sessions;
    for (const auto& program : programs) {
        sessions.push_back(std::make_unique<BenchSession>(program, settings.wrapper));
        sessions.back()->start(deadline);
    }
    const auto started = sampleAll(sessions);
    keepMemoryMaps(sessions, programs, settings.memoryMaps, "start");
    for (const auto& session : sessions) {
        relay(*session, extensionMessage(1024), frames, settings.paced(), deadline);
    }
    const auto relayed = sampleAll(sessions);
    keepMemoryMaps(sessions, programs, settings.memoryMaps, "relayed");

    // Nothing happens for one window: any CPU time now is the program's own doing.
    const auto idle = watch(sessions, window);

    for (const auto& session : sessions) {
        session->stopCore();
    }
    const auto outage = watch(sessions, window);

    std::vector<JsonLine> lines;
    for (std::size_t i = 0; i < programs.size(); ++i) {
        const double seconds = std::chrono::duration<double>(window).count();
        lines.push_back(
            JsonLine()
                .add("figure", "footprint")
                .add("program", programs[i].name)
                .add("rss_start_kib", started[i].residentKiB)
                .add("private_start_kib", started[i].privateKiB)
                .add("threads_start", static_cast<std::int64_t>(started[i].threads))
                .add("frames", static_cast<std::int64_t>(frames))
                .add("rss_relayed_kib", relayed[i].residentKiB)
                .add("private_relayed_kib", relayed[i].privateKiB)
                .add("threads_relayed", static_cast<std::int64_t>(relayed[i].threads))
                .add("window_s", seconds)
                .add("idle_cpu_ms",
                     static_cast<double>(cpuNanosecondsBetween(relayed[i], idle[i])) / 1e6)
                .add("idle_wakeups", contextSwitchesBetween(relayed[i], idle[i]))
                .add("outage_cpu_ms",
                     static_cast<double>(cpuNanosecondsBetween(idle[i], outage[i])) / 1e6)
                .add("outage_wakeups", contextSwitchesBetween(idle[i], outage[i]))
                .add("threads_after_outage", static_cast<std::int64_t>(outage[i].threads)));
    }
    for (const auto& session : sessions) {
        [[maybe_unused]] const int status = finish(*session, deadline);
    }
    // Last set up, first taken down: each private bus restores the bus address it replaced.
    while (!sessions.empty()) {
        sessions.pop_back();
    }
    return lines;
}

}  // namespace kerrow::bench
