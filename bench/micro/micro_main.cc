// kerrow-micro-benchmarks: Google Benchmark's main, with the log sent to a temporary
// XDG_STATE_HOME (as in production: a real file, one line per call), removed at the end.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

int main(int argc, char** argv) {
    std::string directory =
        (std::filesystem::temp_directory_path() / "kerrow-micro-XXXXXX").string();
    if (::mkdtemp(directory.data()) == nullptr) {
        return 1;
    }
    ::setenv("XDG_STATE_HOME", directory.c_str(), 1);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
    return 0;
}
