// SocketListener: the core peer's listening Unix stream socket at the browser socket location.
// Creates the socket's directory (mode 0700) when missing, refuses a path that another process
// is listening on, replaces a stale socket file, and removes its socket file when destroyed.
//
// Owned by the CorePeer. Loop thread only.
#pragma once

#include <sys/types.h>
#include <systemd/sd-event.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "platform/descriptor.h"
#include "tools/common/event_loop.h"

namespace kerrow::tools {

/// Thrown when the socket cannot be set up; the message says what is wrong with the path.
class ListenError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class SocketListener {
  public:
    using Acceptor = std::function<void(Descriptor connection)>;

    /// Listens at `path` and hands every accepted connection (non-blocking) to `acceptor`.
    /// Throws ListenError; `notes` receives remarks worth showing (a stale file replaced, a
    /// directory that hosts will not trust).
    SocketListener(sd_event* loop, std::string path, Acceptor acceptor,
                   const std::function<void(const std::string&)>& notes);
    ~SocketListener();
    SocketListener(const SocketListener&) = delete;
    SocketListener& operator=(const SocketListener&) = delete;

    [[nodiscard]] const std::string& path() const { return path_; }

  private:
    void acceptAll();

    sd_event* loop_;
    std::string path_;
    Acceptor acceptor_;
    Descriptor socket_;
    EventSource io_;
    EventSource retry_;  // re-enables accepting after a failed accept
    dev_t device_ = 0;   // identity of our socket file, so that we never remove someone else's
    ino_t inode_ = 0;
};

}  // namespace kerrow::tools
