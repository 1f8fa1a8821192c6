// Fuzzes the reassembly of the core service's frames: the input is everything one connection of
// the core service sends before it closes. A real SocketHelper connects to a listening socket of
// the harness, which writes the input and ends the connection; readSocket() is called until the
// endpoint reports the end. The frames delivered must be exactly the complete frames of the
// input, in order; a frame announced over 64 MiB must end reading with SocketFrameError.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kit/frame_codec.h"
#include "kit/socket_helper.h"
#include "platform/descriptor.h"

namespace {

using kerrow::Data;

struct Expected {
    std::vector<Data> frames;
    bool oversized = false;  // a header over the limit follows the frames
};

// The frames of `bytes` as the codec's own decoder cuts them; a trailing incomplete frame is not
// delivered.
Expected expectedFrames(std::span<const std::uint8_t> bytes) {
    Expected expected;
    kerrow::FrameDecoder decoder(kerrow::SocketHelper::maximumFrameLength);
    decoder.append(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    try {
        while (const auto body = decoder.next()) {
            expected.frames.emplace_back(body->begin(), body->end());
        }
    } catch (const kerrow::FrameTooLarge&) {
        expected.oversized = true;
    }
    return expected;
}

class Collector final : public kerrow::SocketReaderDelegate {
  public:
    void didReadData(const Data& data) override { frames.push_back(data); }
    std::vector<Data> frames;
};

// A listening socket in a private 0700 directory, standing in for the core service.
class Listener {
  public:
    Listener() {
        std::string pattern = (std::filesystem::temp_directory_path() / "kerrow-fuzz-XXXXXX");
        if (::mkdtemp(pattern.data()) == nullptr) {
            std::abort();
        }
        path_ = pattern + "/browser.sock";
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        descriptor_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (!descriptor_ ||
            ::bind(descriptor_.get(), reinterpret_cast<const sockaddr*>(&address),
                   sizeof address) != 0 ||
            ::listen(descriptor_.get(), 16) != 0) {
            std::abort();
        }
    }

    [[nodiscard]] const std::string& path() const { return path_; }

    // The next connection; it sends `bytes`, then ends.
    void serve(std::span<const std::uint8_t> bytes) const {
        const kerrow::Descriptor connection(
            ::accept4(descriptor_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!connection) {
            std::abort();
        }
        for (std::size_t sent = 0; sent < bytes.size();) {
            const ssize_t wrote =
                ::send(connection.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (wrote <= 0) {
                std::abort();
            }
            sent += static_cast<std::size_t>(wrote);
        }
    }

  private:
    std::string path_;
    kerrow::Descriptor descriptor_;
};

// Inputs stay below the socket's send buffer, so serve() never waits for the reader.
constexpr std::size_t maximumInput = 64 * 1024;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Listener listener;
    if (size > maximumInput) {
        return 0;
    }
    const std::span<const std::uint8_t> bytes(data, size);
    const auto collector = std::make_shared<Collector>();
    kerrow::SocketHelper endpoint(kerrow::SocketType::browser, listener.path());
    endpoint.setReaderDelegate(collector);
    endpoint.setupSocket();
    listener.serve(bytes);

    bool oversized = false;
    try {
        while (endpoint.isConnected()) {
            endpoint.readSocket();
        }
    } catch (const kerrow::SocketFrameError&) {
        oversized = true;
    }
    const Expected expected = expectedFrames(bytes);
    if (collector->frames != expected.frames || oversized != expected.oversized) {
        std::abort();
    }
    return 0;
}
