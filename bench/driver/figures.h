// The figures the driver measures. Each function runs one program (or, for the footprint, each
// of several programs) in sessions of its own and returns one result line per program, as JSON.
// Driver code only, called from the driver's main thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "bench/driver/bench_session.h"
#include "bench/driver/json_line.h"

namespace kerrow::bench {

/// How the driver feeds a program and reads what it writes.
///  - streamed: many frames per write, as a browser's pipe holds them when the extension sends
///    faster than the program reads, or as the core service writes a burst of commands; each frame
///    the program writes is read and checked on its own;
///  - paced: one frame per write, each frame read and checked on its own;
///  - burst (commands only): written as streamed, while the browser side drains standard output
///    as fast as it can, in reads as large as the pipe gives, comparing each with the bytes
///    expected there, so that the reader costs next to nothing beside the program.
enum class Regime { streamed, paced, burst };

[[nodiscard]] const char* regimeName(Regime regime);
[[nodiscard]] std::optional<Regime> regimeNamed(std::string_view name);

/// What every figure needs besides its own parameters.
struct RunSettings {
    std::vector<std::string> wrapper;  // prefixed to each program's argv (valgrind, for one)
    std::chrono::milliseconds timeout{60'000};
    std::filesystem::path memoryMaps;  // where the footprint keeps memory maps; empty: nowhere
    Regime regime = Regime::streamed;  // of relay and commands
    [[nodiscard]] bool paced() const { return regime == Regime::paced; }
};

/// Relay extension -> core service: `frames` bodies of `bodySize` bytes written to standard input
/// as fast as the program takes them (in the settings' regime); each must reach the core service
/// with the tabList suffix.
JsonLine measureRelay(const Program& program, std::size_t bodySize, std::size_t frames,
                      const RunSettings& settings);

/// Commands core service -> extension as fast as the program takes them (in the settings'
/// regime). `command` is "closeTab" or "websiteList" (an allow list of `sites` sites).
JsonLine measureCommands(const Program& program, std::string_view command, std::size_t count,
                         std::size_t sites, const RunSettings& settings);

/// Close-tab commands at a steady `rate` per second: the time from the core service's write to
/// the frame on standard output, per command (the first `warmUp` are left out).
JsonLine measureLatency(const Program& program, double rate, std::size_t count, std::size_t warmUp,
                        const RunSettings& settings);

/// Start-up: process start to announcement, and start notification to device-twin request.
JsonLine measureStartup(const Program& program, const RunSettings& settings);

/// Footprint of each program, side by side: memory and threads after start-up and after relaying
/// `frames` 1 KiB frames, CPU while idle for `window`, CPU during a core-service outage as long.
std::vector<JsonLine> measureFootprint(const std::vector<Program>& programs, std::size_t frames,
                                       std::chrono::milliseconds window,
                                       const RunSettings& settings);

}  // namespace kerrow::bench
