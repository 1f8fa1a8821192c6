// Fuzzes the routing of the core service's commands: HostToCoreSocketService::didReadData with a
// real BrowserExtensionIO whose standard output is a pipe that the harness drains after every
// input. The oracle checks properties, not a second implementation: the command is the first
// keyword the message contains in the routing order (close tab, disable internet, enable
// internet, website list); an argument is what is left of the message once every occurrence of
// the keyword is cut out (the message's bytes in order, shorter by whole keywords); what reaches
// the extension is well-formed frames of JSON; nothing may crash.
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
#include "kit/frame_codec.h"
#include "platform/descriptor.h"

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
        readEnd_.reset(ends[0]);
        ::fcntl(readEnd_.get(), F_SETFL, O_NONBLOCK);
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
        for (ssize_t got; (got = ::read(readEnd_.get(), buffer, sizeof buffer)) > 0;) {
            bytes.append(buffer, static_cast<std::size_t>(got));
        }
        kerrow::FrameDecoder decoder(bytes.size());
        decoder.append(bytes);
        std::vector<std::string> frames;
        while (auto frame = decoder.next()) {
            frames.push_back(std::move(*frame));
        }
        if (decoder.midFrame()) {
            std::abort();  // a frame was cut short or torn
        }
        return frames;
    }

  private:
    kerrow::Descriptor readEnd_;
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

// True when the bytes of `part` appear in `text` in their order (not necessarily together).
bool isSubsequence(std::string_view part, std::string_view text) {
    std::size_t at = 0;
    for (const char byte : part) {
        if ((at = text.find(byte, at)) == std::string_view::npos) {
            return false;
        }
        ++at;
    }
    return true;
}

// True when `argument` can be `message` with one or more whole occurrences of `keyword` cut
// out: the message's bytes in their order, shorter by a multiple of the keyword's length.
bool isCutFrom(std::string_view argument, std::string_view message, std::string_view keyword) {
    return argument.size() < message.size() &&
           (message.size() - argument.size()) % keyword.size() == 0 &&
           isSubsequence(argument, message);
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
            // The id comes from the message: its digits appear there, in order.
            const auto id = envelope(frames[0], "closeTab")["payload"].at("id");
            const std::string digits = std::to_string(id.get<std::int64_t>());
            if (!isSubsequence(digits.substr(digits.front() == '-' ? 1 : 0), message)) {
                std::abort();
            }
        }
    } else if (contains(message, Browser::disableInternet)) {
        if (frames.size() != 1 ||
            !isCutFrom(envelope(frames[0], "disableWeb")["payload"].get<std::string>(), message,
                       Browser::disableInternet)) {
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
