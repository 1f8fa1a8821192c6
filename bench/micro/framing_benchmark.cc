// readFrame (browser/standard_stream_framing.h) over an in-memory file of back-to-back frames:
// the cost of the relay's read side per frame, system calls included, with the read loop's one
// reused body buffer. The handle reads ahead, so the file's offset runs ahead of the frames read;
// it is rewound once the last frame of the file has been read.
#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "browser/standard_stream_framing.h"
#include "kit/frame_codec.h"

namespace {

void ReadFrame(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const std::size_t frames = std::max<std::size_t>(16, (4 << 20) / (size + 4));
    const int fd = ::memfd_create("frames", MFD_CLOEXEC);
    const std::string one = kerrow::encodeFrame(std::string(size, 'x'));
    for (std::size_t i = 0; i < frames; ++i) {
        if (::write(fd, one.data(), one.size()) != static_cast<ssize_t>(one.size())) {
            state.SkipWithError("cannot fill the frame file");
            return;
        }
    }
    kerrow::FileHandle input(fd);
    ::lseek(fd, 0, SEEK_SET);
    std::size_t left = frames;
    kerrow::Data body;
    for (auto _ : state) {
        if (left-- == 0) {
            ::lseek(fd, 0, SEEK_SET);
            left = frames - 1;
        }
        if (kerrow::readFrame(input, body) != kerrow::FrameRead::body) {
            state.SkipWithError("the frame file ended early");
            return;
        }
        benchmark::DoNotOptimize(body.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
}
BENCHMARK(ReadFrame)->Arg(64)->Arg(1024)->Arg(64 * 1024)->Arg(1024 * 1024);

}  // namespace
