// Fuzzes the reader of the browser's standard-input frames: the input is a whole standard input
// (a memfd, read to its end through a FileHandle). Every frame must come out exactly as the
// framing rules say, the reader must stop where they say, and no length prefix may cost memory
// beyond the bytes that actually arrive (scripts/fuzz runs this target with a small malloc limit).
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <span>
#include <vector>

#include "browser/standard_stream_framing.h"
#include "kit/frame_codec.h"
#include "platform/file_handle.h"

namespace {

using kerrow::Data;

// The bodies the framing rules give for `bytes`, written from the rules, not from the reader:
// frames back to back; a short prefix or a prefix with the top bit set ends the input; a body
// cut short by the end is returned as it is and ends the input after it.
std::vector<Data> expectedFrames(std::span<const std::uint8_t> bytes) {
    std::vector<Data> frames;
    std::size_t at = 0;
    while (bytes.size() - at >= kerrow::frameHeaderLength) {
        const std::uint32_t length = kerrow::decodeFrameLength(bytes.data() + at);
        if (length >= 0x8000'0000U) {
            break;
        }
        at += 4;
        const std::size_t taken = std::min<std::size_t>(length, bytes.size() - at);
        frames.emplace_back(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                            bytes.begin() + static_cast<std::ptrdiff_t>(at + taken));
        at += taken;
        if (taken < length) {
            break;
        }
    }
    return frames;
}

// A handle whose reads give `bytes`, then end of file.
kerrow::FileHandle inputOf(std::span<const std::uint8_t> bytes) {
    const int descriptor = ::memfd_create("stdin", MFD_CLOEXEC);
    if (descriptor < 0 ||
        ::write(descriptor, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) ||
        ::lseek(descriptor, 0, SEEK_SET) != 0) {
        std::abort();
    }
    return kerrow::FileHandle(descriptor);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> bytes(data, size);
    kerrow::FileHandle input = inputOf(bytes);
    std::vector<Data> frames;
    while (const std::optional<Data> body = kerrow::readFrame(input)) {
        frames.push_back(*body);
        if (frames.size() > size + 1) {
            std::abort();  // more frames than the input can hold: the reader does not advance
        }
    }
    if (frames != expectedFrames(bytes)) {
        std::abort();
    }
    return 0;
}
