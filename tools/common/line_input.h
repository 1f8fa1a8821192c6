// LineInput: the lines that a person types or a file holds, read on the peer's sd-event loop and
// handed over one at a time. The reader can be paused while the peer waits (an `expect`, a
// `sleep`), so no more than one read's worth of lines is ever held. Works for terminals, pipes and
// FIFOs (polled) and for regular files (which epoll cannot watch: read in the loop's idle time).
//
// Owns neither the descriptor nor the loop; both outlive it. Loop thread only. A handler must not
// destroy the LineInput; pause() and resume() may be called from anywhere on the loop thread.
#pragma once

#include <systemd/sd-event.h>

#include <functional>
#include <string>

#include "tools/common/event_loop.h"
#include "tools/common/text.h"

namespace kerrow::tools {

class LineInput {
  public:
    struct Handlers {
        std::function<void(std::string line)> line;
        std::function<void(const std::string& message)> error;  // a read error or too long a line
        std::function<void()> end;                              // once, after the last line
    };

    /// Starts reading `descriptor` at once. Throws std::system_error.
    LineInput(sd_event* loop, int descriptor, std::size_t maximumLineLength, Handlers handlers);
    LineInput(const LineInput&) = delete;
    LineInput& operator=(const LineInput&) = delete;

    /// No line is handed over until resume().
    void pause();
    void resume();
    [[nodiscard]] bool ended() const { return ended_ && endReported_; }

  private:
    void readChunk();
    void pumpLines();
    void armPump();

    sd_event* loop_;
    int descriptor_;
    bool pollable_ = true;
    Handlers handlers_;
    LineSplitter splitter_;
    EventSource io_;    // pollable descriptors: readable
    EventSource pump_;  // hands over held lines; for regular files also reads the next piece
    bool paused_ = false;
    bool ended_ = false;  // end of input (or a read error) reached
    bool endReported_ = false;
};

}  // namespace kerrow::tools
