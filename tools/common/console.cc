#include "tools/common/console.h"

#include <unistd.h>

#include <cerrno>

namespace kerrow::tools {
namespace {

void writeAll(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return;  // a reader that went away; the peer goes on
        }
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

}  // namespace

Console::Console(std::string prompt)
    : prompt_(std::move(prompt)),
      interactive_(::isatty(STDIN_FILENO) == 1 && ::isatty(STDERR_FILENO) == 1) {}

void Console::out(std::string_view line) {
    write(STDOUT_FILENO, line);
}

void Console::err(std::string_view line) {
    write(STDERR_FILENO, line);
}

void Console::write(int descriptor, std::string_view line) {
    if (promptShown_) {
        writeAll(STDERR_FILENO, "\r\x1b[K");  // carriage return, erase the prompt's line
    }
    std::string text(line);
    text += '\n';
    writeAll(descriptor, text);
    if (promptShown_) {
        writeAll(STDERR_FILENO, prompt_);
    }
}

void Console::endPrompt() {
    if (promptShown_) {
        writeAll(STDERR_FILENO, "\r\x1b[K");
        promptShown_ = false;
    }
}

void Console::prompt() {
    if (interactive_ && !promptShown_) {
        writeAll(STDERR_FILENO, prompt_);
        promptShown_ = true;
    }
}

}  // namespace kerrow::tools
