// NativeHostMessage::toJSONString: the envelopes the host writes for the core service's commands.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "model/native_host_message.h"

namespace {

void CloseTabToJSON(benchmark::State& state) {
    const kerrow::NativeHostMessage message{kerrow::NativeHostMessageType::closeTab,
                                            kerrow::NativeHostMessagePayload::closeTab(1234567)};
    for (auto _ : state) {
        auto text = message.toJSONString();
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(CloseTabToJSON);

void SetWhitelistToJSON(benchmark::State& state) {
    std::vector<std::string> sites;
    for (std::int64_t i = 0; i < state.range(0); ++i) {
        sites.push_back("site" + std::to_string(i) + ".example");
    }
    const kerrow::NativeHostMessage message{
        kerrow::NativeHostMessageType::setWhitelist,
        kerrow::NativeHostMessagePayload::setWhitelist(std::move(sites))};
    std::size_t bytes = 0;
    for (auto _ : state) {
        auto text = message.toJSONString();
        bytes += text ? text->size() : 0;
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}
BENCHMARK(SetWhitelistToJSON)->Arg(1000);

}  // namespace
