// Relay extension -> core service, and start-up.
#include "bench/driver/figure_support.h"
#include "bench/driver/figures.h"

namespace kerrow::bench {

JsonLine measureRelay(const Program& program, std::size_t bodySize, std::size_t frames,
                      const RunSettings& settings) {
    const Deadline deadline = deadlineIn(settings.timeout);
    BenchSession session(program, settings.wrapper);
    session.start(deadline);
    const RelayRun run =
        relay(session, extensionMessage(bodySize), frames, settings.paced(), deadline);
    const int status = finish(session, deadline);
    const double framesPerSecond = static_cast<double>(frames) / run.seconds;
    return JsonLine()
        .add("figure", "relay")
        .add("regime", regimeName(settings.regime))
        .add("program", program.name)
        .add("size", static_cast<std::int64_t>(bodySize))
        .add("frames", static_cast<std::int64_t>(frames))
        .add("seconds", run.seconds)
        .add("frames_per_s", framesPerSecond)
        .add("mb_per_s", framesPerSecond * static_cast<double>(bodySize) / 1e6)
        .add("cpu_us_per_frame",
             static_cast<double>(run.cpuNanoseconds) / 1e3 / static_cast<double>(frames))
        .add("log_lines", countLogLines(session.logFile(), "Sending Tab Data to Browser Messaging"))
        .add("exit_status", static_cast<std::int64_t>(status));
}

JsonLine measureStartup(const Program& program, const RunSettings& settings) {
    const Deadline deadline = deadlineIn(settings.timeout);
    BenchSession session(program, settings.wrapper);
    const auto times = session.start(deadline);
    JsonLine line;
    line.add("figure", "startup").add("program", program.name);
    if (times.announced) {
        line.add("start_to_announcement_us", microseconds(times.spawned, *times.announced));
    }
    if (times.posted && times.connected) {
        line.add("notification_to_device_twin_us", microseconds(*times.posted, *times.connected));
    }
    if (times.connected) {
        line.add("start_to_device_twin_us", microseconds(times.spawned, *times.connected));
        line.add("exit_status", static_cast<std::int64_t>(finish(session, deadline)));
    }
    return line;
}

}  // namespace kerrow::bench
