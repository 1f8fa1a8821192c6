// WebsiteList::decode: the allow list that arrives with the core service's website-list command.
#include <benchmark/benchmark.h>

#include <string>

#include "kit/website_list.h"

namespace {

void DecodeWebsiteList(benchmark::State& state) {
    std::string json = R"({"name":"School hours","websites":[)";
    for (std::int64_t i = 0; i < state.range(0); ++i) {
        json.append(i == 0 ? "\"" : ",\"").append("site" + std::to_string(i) + ".example\"");
    }
    json.append(R"(],"listType":0})");
    const std::span<const std::uint8_t> bytes(reinterpret_cast<const std::uint8_t*>(json.data()),
                                              json.size());
    for (auto _ : state) {
        auto list = kerrow::WebsiteList::decode(bytes);
        benchmark::DoNotOptimize(list);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * json.size()));
}
BENCHMARK(DecodeWebsiteList)->Arg(1000);

}  // namespace
