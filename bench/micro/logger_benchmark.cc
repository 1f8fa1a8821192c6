// Logger::logInformation into a real log file: the line the relay writes for every frame, and a
// line quoting a command's JSON text.
#include <benchmark/benchmark.h>

#include <string>

#include "kit/logger.h"

namespace {

void LogRelayLine(benchmark::State& state) {
    const kerrow::Logger logger(kerrow::now(), std::nullopt);
    for (auto _ : state) {
        logger.logInformation("Sending Tab Data to Browser Messaging", kerrow::now());
    }
    kerrow::Logger::flushAll();
}
BENCHMARK(LogRelayLine);

void LogCommandLine(benchmark::State& state) {
    const kerrow::Logger logger(kerrow::now(), std::nullopt);
    const std::string line = R"(Closing Tab: {"action":"closeTab","payload":{"id":1234567}})";
    for (auto _ : state) {
        logger.logInformation(line, kerrow::now());
    }
    kerrow::Logger::flushAll();
}
BENCHMARK(LogCommandLine);

void TakeTimeStamp(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(kerrow::now());
    }
}
BENCHMARK(TakeTimeStamp);

}  // namespace
