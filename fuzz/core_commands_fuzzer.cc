// Fuzzes the routing of the core service's commands: HostToCoreSocketService::didReadData with a
// real BrowserExtensionIO whose standard output is a pipe that the harness drains after every
// input. What reaches the extension must follow from the routing order (close tab, disable
// internet, enable internet, website list) and be well-formed frames of JSON; nothing may crash.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "browser/browser_extension_io.h"
#include "core/host_to_core_socket_service.h"
#include "kit/const.h"

namespace {

namespace Browser = kerrow::Const::Browser;

// The service and channel under test, built once: each owns a queue thread.
class Harness {
  public:
    Harness() {
        // The loggers write into a private directory, not into the user's state directory.
        const auto state = std::filesystem::temp_directory_path() /
                           ("kerrow-fuzz-state-" + std::to_string(::getpid()));
        std::filesystem::create_directories(state);
        ::setenv("XDG_STATE_HOME", state.c_str(), 1);

        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            std::abort();
        }
        readEnd_ = ends[0];
        ::fcntl(readEnd_, F_SETFL, O_NONBLOCK);
        ::fcntl(ends[1], F_SETPIPE_SZ, 1 << 20);  // holds every frame one input can give
        channel_ = std::make_shared<kerrow::BrowserExtensionIO>(
            std::make_shared<kerrow::FileHandle>(::open("/dev/null", O_RDONLY | O_CLOEXEC)),
            std::make_shared<kerrow::FileHandle>(ends[1]));
        service_ = std::make_shared<kerrow::HostToCoreSocketService>();
        service_->browserConnection = channel_;
    }

    kerrow::HostToCoreSocketService& service() { return *service_; }

    // The frames written since the last call.
    std::vector<std::string> takeFrames() {
        std::string bytes;
        char buffer[65536];
        for (ssize_t got; (got = ::read(readEnd_, buffer, sizeof buffer)) > 0;) {
            bytes.append(buffer, static_cast<std::size_t>(got));
        }
        std::vector<std::string> frames;
        std::size_t at = 0;
        while (bytes.size() - at >= 4) {
            const auto byte = [&](std::size_t i) {
                return static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at + i]));
            };
            const std::uint32_t length = byte(0) | byte(1) << 8 | byte(2) << 16 | byte(3) << 24;
            if (bytes.size() - at - 4 < length) {
                break;
            }
            frames.push_back(bytes.substr(at + 4, length));
            at += 4 + length;
        }
        if (at != bytes.size()) {
            std::abort();  // a frame was cut short or torn
        }
        return frames;
    }

  private:
    int readEnd_ = -1;
    std::shared_ptr<kerrow::BrowserExtensionIO> channel_;
    std::shared_ptr<kerrow::HostToCoreSocketService> service_;
};

bool contains(std::string_view text, std::string_view keyword) {
    return text.find(keyword) != std::string_view::npos;
}

bool isUTF8(std::string_view text) {
    try {
        static_cast<void>(nlohmann::json(std::string(text)).dump());
        return true;
    } catch (const nlohmann::json::exception&) {
        return false;
    }
}

std::string removingAll(std::string_view text, std::string_view keyword) {
    std::string rest;
    for (std::size_t at = 0;;) {
        const std::size_t found = text.find(keyword, at);
        rest.append(text.substr(at, found - at));
        if (found == std::string_view::npos) {
            return rest;
        }
        at = found + keyword.size();
    }
}

// The frame as a JSON envelope with the given action; aborts when it is anything else.
nlohmann::json envelope(const std::string& frame, std::string_view action) {
    const auto value = nlohmann::json::parse(frame, nullptr, false);
    if (!value.is_object() || value.size() != 2 || !value.contains("payload") ||
        value.value("action", "") != action) {
        std::abort();
    }
    return value;
}

void check(std::string_view message, const std::vector<std::string>& frames) {
    if (!isUTF8(message)) {
        if (!frames.empty()) {
            std::abort();  // messages that are not UTF-8 are dropped
        }
    } else if (contains(message, Browser::closeTab)) {
        if (frames.size() > 1) {
            std::abort();
        }
        if (frames.size() == 1) {
            // The id comes from the message without its keywords: its digits appear there.
            const auto id = envelope(frames[0], "closeTab")["payload"].at("id");
            const std::string digits = std::to_string(id.get<std::int64_t>());
            if (!contains(removingAll(message, Browser::closeTab),
                          digits.substr(digits.front() == '-' ? 1 : 0))) {
                std::abort();
            }
        }
    } else if (contains(message, Browser::disableInternet)) {
        if (frames.size() != 1 || envelope(frames[0], "disableWeb")["payload"] !=
                                      removingAll(message, Browser::disableInternet)) {
            std::abort();
        }
    } else if (contains(message, Browser::enableInternet)) {
        if (frames.size() != 1) {
            std::abort();
        }
        static_cast<void>(envelope(frames[0], "enableWeb"));
    } else if (contains(message, Browser::websiteList)) {
        if (frames.size() == 1) {
            const auto value = nlohmann::json::parse(frames[0], nullptr, false);
            const auto action = value.is_object() ? value.value("action", "") : "";
            static_cast<void>(
                envelope(frames[0], action == "setBlacklist" ? action : "setWhitelist"));
        }
        if (frames.size() == 2) {
            static_cast<void>(envelope(frames[0], "setWhitelist"));
            static_cast<void>(envelope(frames[1], "setBlacklist"));
        }
        if (frames.size() > 2) {
            std::abort();
        }
    } else if (!frames.empty()) {
        std::abort();  // no keyword, no command
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Harness harness;
    const kerrow::Data message(data, data + size);
    harness.service().didReadData(message);
    check(kerrow::textView(message), harness.takeFrames());
    return 0;
}
