// HostConnection: the core peer's end of one host's connection on the browser socket. It reads
// the host's frames and hands each message to its Client, and sends frames without ever blocking
// the loop (what the socket does not take at once waits in a buffer until it is writable).
//
// Owned by the CorePeer; refers to its Client, which outlives it. Loop thread only. The Client's
// callbacks run inside the connection's own event callback: they must not destroy the connection
// (the CorePeer retires ended connections and destroys them from its next loop iteration).
#pragma once

#include <sys/types.h>
#include <systemd/sd-event.h>

#include <string>
#include <string_view>

#include "kit/frame_codec.h"
#include "platform/descriptor.h"
#include "tools/common/event_loop.h"

namespace kerrow::tools {

class HostConnection {
  public:
    class Client {
      public:
        virtual ~Client() = default;
        virtual void messageReceived(HostConnection& host, std::string message) = 0;
        /// The connection ended; `reason` says how. Called once; nothing is read or sent after.
        virtual void hostDisconnected(HostConnection& host, const std::string& reason) = 0;
    };

    /// Largest message accepted from a host, as the host accepts from the core service.
    static constexpr std::size_t maximumMessageLength = 64 * 1024 * 1024;

    /// Takes over the accepted, non-blocking `socket`. Throws std::system_error.
    HostConnection(sd_event* loop, Descriptor socket, unsigned number, Client& client);
    HostConnection(const HostConnection&) = delete;
    HostConnection& operator=(const HostConnection&) = delete;

    [[nodiscard]] unsigned number() const { return number_; }
    [[nodiscard]] pid_t pid() const { return pid_; }
    [[nodiscard]] uid_t uid() const { return uid_; }
    [[nodiscard]] bool connected() const { return socket_.valid(); }
    /// True while frames wait for the socket to take them.
    [[nodiscard]] bool sending() const { return !outbound_.empty(); }

    /// Sends `message` as one frame. Does nothing once disconnected.
    void send(std::string_view message);
    /// Ends the connection from our side (the Client is told, with `reason`).
    void disconnect(const std::string& reason);

  private:
    void onEvents(uint32_t events);
    void readSome();
    void writeSome();
    void updateInterest();
    void end(const std::string& reason);

    unsigned number_;
    Client& client_;
    Descriptor socket_;  // invalid once disconnected
    EventSource io_;
    FrameDecoder inbound_{maximumMessageLength};
    std::string outbound_;  // framed bytes the socket has not taken yet
    pid_t pid_ = 0;
    uid_t uid_ = 0;
};

}  // namespace kerrow::tools
