// Commands core service -> extension: sustained rate, and latency at a steady rate.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <thread>

#include "bench/driver/figure_support.h"
#include "bench/driver/figures.h"
#include "kit/const.h"
#include "tests/support/test_support.h"

namespace kerrow::bench {
namespace {

using test::frame;
using test::writeAll;

std::string closeTabCommand(std::size_t id) {
    return std::string(Const::Browser::closeTab) + "-" + std::to_string(id);
}

// Built by hand, not with nlohmann::json: it is checked against every command read while the
// figure runs, and an integer needs no escaping.
std::string closeTabMessage(std::size_t id) {
    return R"({"action":"closeTab","payload":{"id":)" + std::to_string(id) + "}}";
}

// The sites of an allow list.
nlohmann::ordered_json siteArray(std::size_t sites) {
    auto array = nlohmann::ordered_json::array();
    for (std::size_t i = 0; i < sites; ++i) {
        array.push_back("site" + std::to_string(i) + ".example");
    }
    return array;
}

std::string websiteListCommand(std::size_t sites) {
    const nlohmann::ordered_json list{
        {"name", "School hours"}, {"websites", siteArray(sites)}, {"listType", 0}};
    return std::string(Const::Browser::websiteList) + list.dump();
}

std::string setWhitelistMessage(std::size_t sites) {
    const nlohmann::ordered_json message{{"action", "setWhitelist"},
                                         {"payload", {{"whitelist", siteArray(sites)}}}};
    return message.dump();
}

// The browser side of a burst: reads standard output in reads as large as the pipe gives until
// `expected` has come, comparing each read with the bytes expected there.
void drainExpected(int output, std::string_view expected, Deadline deadline) {
    ::fcntl(output, F_SETFL, ::fcntl(output, F_GETFL) | O_NONBLOCK);
    std::vector<char> buffer(std::size_t{256} * 1024);
    for (std::size_t done = 0; done < expected.size();) {
        const ssize_t got =
            ::read(output, buffer.data(), std::min(buffer.size(), expected.size() - done));
        if (got > 0) {
            if (std::string_view(buffer.data(), static_cast<std::size_t>(got)) !=
                expected.substr(done, static_cast<std::size_t>(got))) {
                throw BenchError("standard output differs from the frames expected, within bytes " +
                                 std::to_string(done) + " to " +
                                 std::to_string(done + static_cast<std::size_t>(got)));
            }
            done += static_cast<std::size_t>(got);
            continue;
        }
        if (got == 0) {
            throw BenchError("standard output ended after " + std::to_string(done) + " bytes");
        }
        if (errno != EAGAIN && errno != EINTR) {
            throw BenchError(std::string("read standard output: ") + std::strerror(errno));
        }
        pollfd waiting{output, POLLIN, 0};
        ::poll(&waiting, 1, static_cast<int>(timeLeft(deadline).count()));
        if (Clock::now() > deadline) {
            throw BenchError("timed out after " + std::to_string(done) + " bytes");
        }
    }
}

double percentile(std::vector<double> values, double fraction) {
    if (values.empty()) {
        return 0;
    }
    const auto rank = static_cast<std::size_t>(fraction * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(rank),
                     values.end());
    return values[rank];
}

}  // namespace

JsonLine measureCommands(const Program& program, std::string_view command, std::size_t count,
                         std::size_t sites, const RunSettings& settings) {
    const bool closeTab = command == "closeTab";
    if (!closeTab && command != "websiteList") {
        throw BenchError("unknown command: " + std::string(command));
    }
    const Deadline deadline = deadlineIn(settings.timeout);
    BenchSession session(program, settings.wrapper);
    session.start(deadline);
    HostProcess& child = session.child();

    // Every command, framed; streamed and burst, written in large pieces so that the driver stays
    // out of the way; paced, one command per write.
    std::string stream;
    std::vector<std::size_t> ends;
    const std::string list = closeTab ? std::string() : frame(websiteListCommand(sites));
    for (std::size_t i = 0; i < count; ++i) {
        stream.append(closeTab ? frame(closeTabCommand(i)) : list);
        ends.push_back(stream.size());
    }
    const std::string expectedList = closeTab ? std::string() : setWhitelistMessage(sites);
    std::string expectedOutput;  // burst only: every frame the program must write, in order
    if (settings.regime == Regime::burst) {
        const std::string listFrame = closeTab ? std::string() : frame(expectedList);
        for (std::size_t i = 0; i < count; ++i) {
            expectedOutput.append(closeTab ? frame(closeTabMessage(i)) : listFrame);
        }
    }

    const ProcessSample before = sampleProcess(child.pid());
    const auto started = Clock::now();
    WriterThread writer(child, [&] {
        if (!settings.paced()) {
            writeAll(session.coreConnection(), stream);
            return;
        }
        std::size_t begin = 0;
        for (const std::size_t end : ends) {
            writeAll(session.coreConnection(), std::string_view(stream).substr(begin, end - begin));
            begin = end;
        }
    });
    if (settings.regime == Regime::burst) {
        drainExpected(child.outputFd(), expectedOutput, deadline);
    } else {
        FrameReader output(child.outputFd());
        for (std::size_t i = 0; i < count; ++i) {
            const std::string_view message = output.next(deadline);
            const bool right = closeTab ? message == closeTabMessage(i)
                                        : (i == 0 ? message == expectedList
                                                  : message.size() == expectedList.size());
            if (!right) {
                throw BenchError("command " + std::to_string(i) + " gave " +
                                 std::string(message.substr(0, 200)));
            }
        }
    }
    const auto ended = Clock::now();
    const ProcessSample after = sampleProcess(child.pid());
    writer.join();
    const int status = finish(session, deadline);
    const double seconds = std::chrono::duration<double>(ended - started).count();
    return JsonLine()
        .add("figure", "commands")
        .add("regime", regimeName(settings.regime))
        .add("program", program.name)
        .add("command", command)
        .add("count", static_cast<std::int64_t>(count))
        .add("seconds", seconds)
        .add("commands_per_s", static_cast<double>(count) / seconds)
        .add("cpu_us_per_command", static_cast<double>(cpuNanosecondsBetween(before, after)) / 1e3 /
                                       static_cast<double>(count))
        .add("exit_status", static_cast<std::int64_t>(status));
}

JsonLine measureLatency(const Program& program, double rate, std::size_t count, std::size_t warmUp,
                        const RunSettings& settings) {
    const Deadline deadline = deadlineIn(settings.timeout);
    BenchSession session(program, settings.wrapper);
    session.start(deadline);
    HostProcess& child = session.child();
    FrameReader output(child.outputFd());

    const auto period =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / rate));
    std::vector<std::atomic<std::int64_t>> written(count);  // ns after `started`, per command
    const auto started = Clock::now();
    WriterThread writer(child, [&] {
        for (std::size_t i = 0; i < count; ++i) {
            std::this_thread::sleep_until(started + period * static_cast<std::int64_t>(i));
            const auto now = Clock::now();
            written[i].store((now - started).count(), std::memory_order_release);
            writeAll(session.coreConnection(), frame(closeTabCommand(i)));
        }
    });
    std::vector<double> latencies;
    latencies.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        const std::string_view message = output.next(deadline);
        const auto arrived = (Clock::now() - started).count();
        if (message != closeTabMessage(i)) {
            throw BenchError("command " + std::to_string(i) + " gave " + std::string(message));
        }
        const auto sent = written[i].load(std::memory_order_acquire);
        if (i >= warmUp) {
            latencies.push_back(static_cast<double>(arrived - sent) / 1e3);
        }
    }
    writer.join();
    const int status = finish(session, deadline);
    return JsonLine()
        .add("figure", "latency")
        .add("program", program.name)
        .add("rate", rate)
        .add("count", static_cast<std::int64_t>(latencies.size()))
        .add("p50_us", percentile(latencies, 0.50))
        .add("p90_us", percentile(latencies, 0.90))
        .add("p99_us", percentile(latencies, 0.99))
        .add("max_us", percentile(latencies, 1.0))
        .add("exit_status", static_cast<std::int64_t>(status))
        .add("latencies_us", latencies);
}

}  // namespace kerrow::bench
