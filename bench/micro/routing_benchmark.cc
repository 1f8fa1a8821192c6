// HostToCoreSocketService::handleMessage with no browser connection: recognising the command,
// cutting the keyword out and logging the "Received ..." line (into a real log file).
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "core/host_to_core_socket_service.h"

namespace {

void RouteCloseTab(benchmark::State& state) {
    const auto service = std::make_shared<kerrow::HostToCoreSocketService>();
    const std::string message = "kerrow.closeTab-1234567";
    for (auto _ : state) {
        service->handleMessage(message);
    }
}
BENCHMARK(RouteCloseTab);

void RouteWebsiteList(benchmark::State& state) {
    const auto service = std::make_shared<kerrow::HostToCoreSocketService>();
    std::string message = R"(kerrow.websiteList{"name":"School hours","websites":[)";
    for (std::int64_t i = 0; i < state.range(0); ++i) {
        message.append(i == 0 ? "\"" : ",\"").append("site" + std::to_string(i) + ".example\"");
    }
    message.append(R"(],"listType":0})");
    for (auto _ : state) {
        service->handleMessage(message);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * message.size()));
}
BENCHMARK(RouteWebsiteList)->Arg(1000);

}  // namespace
