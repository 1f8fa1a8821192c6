#include "tools/browser_peer/filters.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <string>

#include "kit/frame_codec.h"
#include "tools/browser_peer/json_lines.h"
#include "tools/common/text.h"

namespace kerrow::tools {
namespace {

constexpr std::size_t maximumLength = 64 * 1024 * 1024;

// Reads a piece of standard input; an empty piece at end of input. Throws on a read error.
std::string readPiece() {
    std::array<char, 65536> buffer{};
    for (;;) {
        const ssize_t count = ::read(STDIN_FILENO, buffer.data(), buffer.size());
        if (count >= 0) {
            return {buffer.data(), static_cast<std::size_t>(count)};
        }
        if (errno != EINTR) {
            throw std::runtime_error(std::string("reading standard input: ") +
                                     std::strerror(errno));
        }
    }
}

bool writeOut(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            std::cerr << "kerrow-browser-peer: writing standard output: " << std::strerror(errno)
                      << "\n";
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

// One input line: written as a frame, or reported. False when the output failed.
bool encodeLine(const std::string& line, std::size_t number, int& status) {
    if (trim(line).empty() || trim(line).front() == '#') {
        return true;
    }
    if (const auto error = jsonError(line)) {
        std::cerr << "kerrow-browser-peer: line " << number << " skipped, " << *error << "\n";
        status = 1;
        return true;
    }
    return writeOut(encodeFrame(line));
}

}  // namespace

int encodeFilter() {
    LineSplitter lines(maximumLength);
    std::size_t number = 0;
    int status = 0;
    try {
        for (std::string piece = readPiece();; piece = readPiece()) {
            lines.append(piece);
            for (;;) {
                std::optional<std::string> line;
                try {
                    line = piece.empty() ? lines.finish() : lines.next();
                } catch (const LineTooLong& error) {
                    std::cerr << "kerrow-browser-peer: line " << ++number << " skipped, "
                              << error.what() << "\n";
                    status = 1;
                    continue;
                }
                if (!line) {
                    break;
                }
                if (!encodeLine(*line, ++number, status)) {
                    return 1;
                }
            }
            if (piece.empty()) {
                return status;
            }
        }
    } catch (const std::exception& error) {
        std::cerr << "kerrow-browser-peer: " << error.what() << "\n";
        return 1;
    }
}

int decodeFilter() {
    FrameDecoder frames(maximumLength);
    std::size_t number = 0;
    try {
        for (std::string piece = readPiece(); !piece.empty(); piece = readPiece()) {
            frames.append(piece);
            while (auto body = frames.next()) {
                const auto shown = jsonLine(*body);
                ++number;
                if (shown.note) {
                    std::cerr << "kerrow-browser-peer: frame " << number << ": " << *shown.note
                              << "\n";
                }
                if (!writeOut(shown.line + "\n")) {
                    return 1;
                }
            }
        }
        if (frames.midFrame()) {
            std::cerr << "kerrow-browser-peer: input ended inside frame " << number + 1 << " ("
                      << frames.describeIncomplete() << ")\n";
            return 1;
        }
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "kerrow-browser-peer: frame " << number + 1 << ": " << error.what() << "\n";
        return 1;
    }
}

}  // namespace kerrow::tools
