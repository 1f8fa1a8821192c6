#include "tools/common/line_input.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace kerrow::tools {

LineInput::LineInput(sd_event* loop, int descriptor, std::size_t maximumLineLength,
                     Handlers handlers)
    : loop_(loop),
      descriptor_(descriptor),
      handlers_(std::move(handlers)),
      splitter_(maximumLineLength) {
    const auto onReadable = [](sd_event_source*, int, uint32_t, void* self) {
        auto& input = *static_cast<LineInput*>(self);
        input.readChunk();
        input.pumpLines();
        return 0;
    };
    sd_event_source* io = nullptr;
    const int result = sd_event_add_io(loop_, &io, descriptor_, EPOLLIN, onReadable, this);
    if (result == -EPERM) {
        pollable_ = false;  // a regular file: always readable, epoll refuses it
    } else {
        check(result, "sd_event_add_io");
        io_.reset(io);
    }
    const auto onPump = [](sd_event_source*, void* self) {
        auto& input = *static_cast<LineInput*>(self);
        if (!input.pollable_ && !input.ended_) {
            input.readChunk();
        }
        input.pumpLines();
        return 0;
    };
    sd_event_source* pump = nullptr;
    check(sd_event_add_defer(loop_, &pump, onPump, this), "sd_event_add_defer");
    pump_.reset(pump);
    // Below sockets and timers: a file is read only when nothing else is waiting.
    check(sd_event_source_set_priority(pump, SD_EVENT_PRIORITY_IDLE), "set_priority");
    armPump();
}

void LineInput::pause() {
    paused_ = true;
    if (io_) {
        sd_event_source_set_enabled(io_.get(), SD_EVENT_OFF);
    }
    sd_event_source_set_enabled(pump_.get(), SD_EVENT_OFF);
}

void LineInput::resume() {
    paused_ = false;
    if (io_ && !ended_) {
        sd_event_source_set_enabled(io_.get(), SD_EVENT_ON);
    }
    armPump();
}

void LineInput::armPump() {
    if (paused_ || endReported_) {
        return;
    }
    // Pollable input needs the pump once, for lines already held; a file needs it until its end.
    sd_event_source_set_enabled(pump_.get(), pollable_ && !ended_ ? SD_EVENT_ONESHOT : SD_EVENT_ON);
}

void LineInput::readChunk() {
    std::array<char, 65536> buffer{};
    const ssize_t count = ::read(descriptor_, buffer.data(), buffer.size());
    if (count > 0) {
        splitter_.append({buffer.data(), static_cast<std::size_t>(count)});
        return;
    }
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (count < 0) {
        handlers_.error(std::string("reading input: ") + std::strerror(errno));
    }
    ended_ = true;
    if (io_) {
        sd_event_source_set_enabled(io_.get(), SD_EVENT_OFF);
    }
}

void LineInput::pumpLines() {
    while (!paused_) {
        std::optional<std::string> line;
        try {
            line = splitter_.next();
            if (!line && ended_) {
                line = splitter_.finish();
            }
        } catch (const LineTooLong& error) {
            handlers_.error(error.what());
            continue;
        }
        if (!line) {
            break;
        }
        handlers_.line(std::move(*line));
    }
    if (!paused_ && ended_ && !endReported_) {
        endReported_ = true;
        sd_event_source_set_enabled(pump_.get(), SD_EVENT_OFF);
        handlers_.end();
    }
}

}  // namespace kerrow::tools
