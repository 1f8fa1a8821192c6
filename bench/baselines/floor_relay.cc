// kerrow-bench-floor: the smallest correct relay between the browser extension and the core
// service, the baseline the host's relay figures are compared with. It does what the host does on
// the wire and nothing else: no log, no JSON library, no bus.
//
//  - extension -> core: each standard-input frame (4-byte little-endian length, body) goes to the
//    core service's socket as one frame (4-byte little-endian length) of the body followed by
//    Const::Browser::tabList, in one writev(); standard input is read through a 1 MiB buffer;
//  - core -> extension: the socket is read through a read-ahead buffer of its own, so that one
//    read serves every command it holds; each frame is routed by the first command keyword it
//    holds and written to standard output as the same JSON text the host writes, built by hand,
//    in one writev() per frame;
//  - the socket is $XDG_RUNTIME_DIR/kerrow/browser.sock; connecting retries with capped
//    exponential back-off (10 ms to 1 s) for 10 s, at start and whenever the core service goes
//    away; the device-twin request goes out once, on the first connection;
//  - end of standard input ends the process with status 0.
// It trusts the core service's JSON to be well formed (no UTF-8 or schema checks).
// Threads: main relays standard input; one thread reads the socket and writes standard output.
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "kit/const.h"
#include "kit/frame_codec.h"

namespace {

using namespace std::chrono_literals;
namespace Browser = kerrow::Const::Browser;

// A descriptor read through a 1 MiB read-ahead buffer: one read serves every frame it holds, and
// a body is used where it was read, without a copy.
class ReadAhead {
  public:
    explicit ReadAhead(int fd) : fd_(fd) {}
    /// Reads `fd` from now on, dropping what the previous descriptor left unread.
    void reset(int fd) {
        fd_ = fd;
        begin_ = end_ = 0;
    }
    /// At least `count` bytes held (the buffer grows for a larger frame); false at end of input.
    bool fill(std::size_t count) {
        while (end_ - begin_ < count) {
            if (begin_ + count > buffer_.size()) {
                std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
                end_ -= begin_;
                begin_ = 0;
                buffer_.resize(std::max(buffer_.size(), count));
            }
            const ssize_t got = ::read(fd_, buffer_.data() + end_, buffer_.size() - end_);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                return false;
            }
            end_ += static_cast<std::size_t>(got);
        }
        return true;
    }
    [[nodiscard]] const char* data() const { return buffer_.data() + begin_; }
    void consume(std::size_t count) { begin_ += count; }

  private:
    int fd_;  // borrowed
    std::vector<char> buffer_ = std::vector<char>(1 << 20);
    std::size_t begin_ = 0;  // bytes [begin_, end_) are read and not yet consumed
    std::size_t end_ = 0;
};

bool writeAll(int fd, iovec* parts, int count) {
    while (count > 0) {
        ssize_t wrote = ::writev(fd, parts, count);
        if (wrote < 0 && errno == EINTR) {
            continue;
        }
        if (wrote < 0) {
            return false;
        }
        while (count > 0 && static_cast<std::size_t>(wrote) >= parts->iov_len) {
            wrote -= static_cast<ssize_t>(parts->iov_len);
            ++parts;
            --count;
        }
        if (count > 0) {
            parts->iov_base = static_cast<char*>(parts->iov_base) + wrote;
            parts->iov_len -= static_cast<std::size_t>(wrote);
        }
    }
    return true;
}

void putLength(char* out, std::size_t length) {
    const auto header = kerrow::encodeFrameLength(length);
    std::memcpy(out, header.data(), header.size());
}

std::string socketPath() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");  // NOLINT(concurrency-mt-unsafe)
    if (runtime != nullptr && runtime[0] == '/') {
        return std::string(runtime) + "/kerrow/browser.sock";
    }
    return "/tmp/kerrow-" + std::to_string(::getuid()) + "/browser.sock";
}

// The socket to the core service, shared by the relay (sends) and the command reader (reads and
// reconnects). The descriptor is replaced only under `lock`.
class CoreLink {
  public:
    // Connects, retrying with back-off for at most 10 s; false when the core service stays away.
    bool connect() {
        auto delay = 10ms;
        const auto giveUp = std::chrono::steady_clock::now() + 10s;
        for (;;) {
            const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
            if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
                const std::lock_guard guard(lock_);
                if (fd_ >= 0) {
                    ::close(fd_);
                }
                fd_ = fd;
                return true;
            }
            ::close(fd);
            if (std::chrono::steady_clock::now() + delay > giveUp) {
                return false;
            }
            std::this_thread::sleep_for(delay);
            delay = std::min(delay * 2, std::chrono::milliseconds(1s));
        }
    }

    // Sends one frame of `parts`; silent when the core service is away.
    void send(std::initializer_list<std::string_view> parts) {
        char prefix[4];
        std::size_t length = 0;
        std::vector<iovec> pieces{{prefix, 4}};
        for (const auto part : parts) {
            length += part.size();
            pieces.push_back({const_cast<char*>(part.data()), part.size()});
        }
        putLength(prefix, length);
        const std::lock_guard guard(lock_);
        if (fd_ >= 0) {
            writeAll(fd_, pieces.data(), static_cast<int>(pieces.size()));
        }
    }

    [[nodiscard]] int descriptor() {
        const std::lock_guard guard(lock_);
        return fd_;
    }

  private:
    const std::string path_ = socketPath();
    std::mutex lock_;
    int fd_ = -1;  // guarded by lock_
};

void writeMessage(std::string_view message) {
    char prefix[4];
    putLength(prefix, message.size());
    iovec parts[2] = {{prefix, 4}, {const_cast<char*>(message.data()), message.size()}};
    writeAll(STDOUT_FILENO, parts, 2);
}

void appendJSONString(std::string& out, std::string_view text) {
    static constexpr char hex[] = "0123456789abcdef";
    out.push_back('"');
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\' || c == '/') {
            out.push_back('\\');
            out.push_back(c);
        } else if (byte < 0x20) {
            out.append("\\u00").push_back(hex[byte >> 4]);
            out.push_back(hex[byte & 0xF]);
        } else {
            out.push_back(c);
        }
    }
    out.push_back('"');
}

std::string removingAll(std::string_view text, std::string_view keyword) {
    std::string rest;
    for (std::size_t start = 0;;) {
        const std::size_t found = text.find(keyword, start);
        rest.append(text.substr(start, found - start));
        if (found == std::string_view::npos) {
            return rest;
        }
        start = found + keyword.size();
    }
}

void closeTab(std::string_view rest) {
    const std::size_t end = rest.find_last_not_of('-');
    if (end == std::string_view::npos) {
        return;
    }
    const std::size_t begin = rest.rfind('-', end);
    const std::string_view id =
        rest.substr(begin == std::string_view::npos ? 0 : begin + 1,
                    begin == std::string_view::npos ? end + 1 : end - begin);
    std::int64_t value = 0;
    const auto [stop, error] = std::from_chars(id.data(), id.data() + id.size(), value);
    if (error == std::errc() && stop == id.data() + id.size()) {
        writeMessage(R"({"action":"closeTab","payload":{"id":)" + std::to_string(value) + "}}");
    }
}

// The "websites" array of a well-formed WebsiteList, re-written with "/" as "\/", and its
// "listType"; nothing when either is missing.
std::optional<std::pair<std::string, long>> websiteList(std::string_view json) {
    const std::size_t key = json.find("\"websites\"");
    const std::size_t open = json.find('[', key);
    const std::size_t typeKey = json.find("\"listType\"");
    if (key == std::string_view::npos || open == std::string_view::npos ||
        typeKey == std::string_view::npos) {
        return std::nullopt;
    }
    std::string array = "[";
    bool inString = false;
    std::size_t i = open + 1;
    for (; i < json.size() && (inString || json[i] != ']'); ++i) {
        const char c = json[i];
        if (inString && c == '\\' && i + 1 < json.size()) {
            array.push_back(c);
            array.push_back(json[++i]);
            continue;
        }
        if (c == '"') {
            inString = !inString;
        } else if (!inString && (c == ' ' || c == '\n' || c == '\t' || c == '\r')) {
            continue;
        } else if (inString && c == '/') {
            array.push_back('\\');
        }
        array.push_back(c);
    }
    array.push_back(']');
    const std::size_t colon = json.find(':', typeKey);
    return std::make_pair(array, std::strtol(json.data() + colon + 1, nullptr, 10));
}

void setWebsiteList(std::string_view json) {
    const auto list = websiteList(json);
    if (!list) {
        return;
    }
    if (list->second == 0) {
        writeMessage(R"({"action":"setWhitelist","payload":{"whitelist":)" + list->first + "}}");
    } else if (list->second == 1) {
        writeMessage(R"({"action":"setBlacklist","payload":{"blacklist":)" + list->first + "}}");
    } else {
        writeMessage(R"({"action":"setWhitelist","payload":{"whitelist":[]}})");
        writeMessage(R"({"action":"setBlacklist","payload":{"blacklist":[]}})");
    }
}

void route(std::string_view command) {
    if (command.find(Browser::closeTab) != std::string_view::npos) {
        closeTab(removingAll(command, Browser::closeTab));
    } else if (command.find(Browser::disableInternet) != std::string_view::npos) {
        std::string message = R"({"action":"disableWeb","payload":)";
        appendJSONString(message, removingAll(command, Browser::disableInternet));
        writeMessage(message + "}");
    } else if (command.find(Browser::enableInternet) != std::string_view::npos) {
        writeMessage(R"({"action":"enableWeb","payload":{}})");
    } else if (command.find(Browser::websiteList) != std::string_view::npos) {
        setWebsiteList(removingAll(command, Browser::websiteList));
    }
}

// Reads the core service's commands until it stays away for good.
void readCommands(CoreLink& link) {
    ReadAhead socket(link.descriptor());
    for (;;) {
        const bool whole =
            socket.fill(4) &&
            socket.fill(4 + kerrow::decodeFrameLength(std::string_view(socket.data(), 4)));
        if (!whole) {
            if (!link.connect()) {
                return;
            }
            socket.reset(link.descriptor());
            continue;
        }
        const std::size_t length = kerrow::decodeFrameLength(std::string_view(socket.data(), 4));
        route(std::string_view(socket.data() + 4, length));
        socket.consume(4 + length);
    }
}

}  // namespace

int main() {
    std::signal(SIGPIPE, SIG_IGN);
    CoreLink link;
    if (link.connect()) {
        link.send({Browser::updateDeviceTwin});
    }
    std::thread(readCommands, std::ref(link)).detach();

    ReadAhead input(STDIN_FILENO);
    for (;;) {
        if (!input.fill(4)) {
            _exit(0);
        }
        const auto length =
            static_cast<std::int32_t>(kerrow::decodeFrameLength(std::string_view(input.data(), 4)));
        if (length < 0 || !input.fill(4 + static_cast<std::size_t>(length))) {
            _exit(0);
        }
        link.send({std::string_view(input.data() + 4, static_cast<std::size_t>(length)),
                   Browser::tabList});
        input.consume(4 + static_cast<std::size_t>(length));
    }
}
