// SocketHelper: the host's endpoint of its connection to the core service, and the two protocols
// through which the core service's messages reach the host.
//
// The core service listens on a Unix stream socket at browserSocketLocation(); setupSocket()
// connects to it. Every message travels as one frame, in both directions: a 4-byte little-endian
// unsigned byte count, then that many bytes. Inbound frames over 64 MiB are a protocol error.
//
// Pacing: a connection that ends within a second of opening counts as a failed attempt, so the
// next setupSocket() first waits with the same capped back-off as for a missing socket; a
// connection that lived longer resets it. Every connect is non-blocking and bounded by the 10 s
// patience; every wait also watches the endpoint's wake descriptor and, where one is set, the
// process's stop signals.
//
// Retirement: retire() keeps the endpoint reading for a short grace (what the connection already
// holds is still delivered; time spent delivering does not count) and bounds every send, one in
// flight included, by the same grace.
//
// Trust: setupSocket() refuses a socket whose directory is not owned by us or root or is writable
// by group or others, a socket file owned by anyone but us or root, and a peer whose SO_PEERCRED
// uid is neither ours nor root.
//
// Ownership: shared by the application delegate, the browser extension channel and the
// host-to-core service (std::shared_ptr). The reader delegate is held weakly.
// Threads: readSocket(), resetSocket(), setupSocket() and closeSocket() are called by one thread at
// a time (the host-to-core service's queue, or the main thread before that service starts).
// sendData() and sendFrames() may be called from any thread at any time, also while a read
// blocks in another thread; sends are serialised by sendLock_ and never wait for a read.
// stopReading() and retire() may be called from any thread. isConnected is atomic.
#pragma once

#include <sys/uio.h>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <span>
#include <stdexcept>
#include <string>

#include "kit/trust.h"
#include "platform/data.h"
#include "platform/descriptor.h"

namespace kerrow {

/// Receives every complete message that the endpoint reads, as one block, on the reading thread:
/// the endpoint calls didReadFrame(), which a delegate overrides to read the message in place.
class SocketReaderDelegate {
  public:
    virtual ~SocketReaderDelegate() = default;
    /// Called once the frames of one read are all delivered (not after a frame error), so that a
    /// delegate may act on them together; its time does not count against a retired endpoint's
    /// grace either.
    virtual void didDeliverFrames() {}

    virtual void didReadData(const Data& data) = 0;
    /// The same, as a view of the endpoint's buffer (valid during the call), so a delegate that
    /// needs no copy of a large message makes none. By default a copy goes to the above.
    virtual void didReadFrame(std::span<const std::uint8_t> data) {
        didReadData(Data(data.begin(), data.end()));
    }
};

/// The four commands of the core service, as the host-to-core service handles them.
class HostToCoreSocketProtocol {
  public:
    virtual ~HostToCoreSocketProtocol() = default;
    virtual void receivedCloseTab(const std::string& tabId) = 0;
    virtual void receivedDisableInternet(const std::string& payload) = 0;
    virtual void receivedEnableInternet() = 0;
    virtual void receivedWebsiteList(const Data& websiteList) = 0;
};

/// The kinds of socket the kit connects. The host uses the browser socket only.
enum class SocketType { browser };

/// Thrown by readSocket() for an inbound frame that announces more than maximumFrameLength bytes.
class SocketFrameError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class SocketHelper {
  public:
    static constexpr std::size_t maximumFrameLength = std::size_t{64} * 1024 * 1024;

    /// One outgoing frame whose body is two pieces sent back to back (a message and its suffix);
    /// the header counts both. The bytes must stay valid during the send.
    struct OutgoingFrame {
        std::span<const std::uint8_t> body;
        std::span<const std::uint8_t> suffix;
    };

    /// Throws std::system_error only when the process has no descriptor left for its eventfds.
    SocketHelper(SocketType type, std::string path);
    ~SocketHelper();
    SocketHelper(const SocketHelper&) = delete;
    SocketHelper& operator=(const SocketHelper&) = delete;

    /// $XDG_RUNTIME_DIR/kerrow/browser.sock, or /tmp/kerrow-<uid>/browser.sock where
    /// XDG_RUNTIME_DIR is unset or not absolute. Read afresh on every call.
    [[nodiscard]] static std::string browserSocketLocation();

    void setReaderDelegate(std::weak_ptr<SocketReaderDelegate> delegate);
    [[nodiscard]] std::shared_ptr<SocketReaderDelegate> readerDelegate() const;

    /// True while the connection is up; false before setupSocket(), after end of stream (or a
    /// reset by the peer), after closeSocket(), and once reading stopped (sends still go out).
    [[nodiscard]] bool isConnected() const { return connected_.load(); }

    /// Releases the connection after a failure. Later sends throw.
    void closeSocket();

    /// Drops the ended connection and its unread bytes, and makes `path` the location that the next
    /// setupSocket() connects to.
    void resetSocket(const std::string& path);

    /// Waits for data, hands every complete frame to the reader delegate in order, and returns.
    /// At end of stream or ECONNRESET isConnected turns false. Returns at once when not connected.
    /// Throws std::system_error on a socket error and SocketFrameError on an oversized frame.
    void readSocket();

    /// Sends `data` as one frame. Throws std::system_error when not connected or the send fails
    /// (never raises SIGPIPE); a send that fails with part of the frame sent ends the connection,
    /// so the core service never takes a partial frame for a whole one.
    void sendData(const Data& data);
    /// Sends `frames` in order, many in one sendmsg(). `whole` counts the frames that went out
    /// whole, also when it throws: a frame cut off and every later one never reach the core
    /// service (a frame cut off part-way ends the connection, as in sendData()).
    void sendFrames(std::span<const OutgoingFrame> frames, std::size_t& whole);

    /// Connects to the socket at the current path, checking trust first. While the socket is
    /// missing, refuses or its backlog is full, retries with capped exponential back-off for at
    /// most 10 seconds (a connect that hangs counts against the same 10 s), then throws the last
    /// std::system_error; it gives up with ECANCELED as soon as reading stops, the endpoint
    /// retires or the process is asked to stop. Throws
    /// SocketTrustError at once for an untrusted directory, socket or peer. Needs no reader
    /// delegate.
    void setupSocket();

    /// Ends reading for good without touching sends or the peer: a read blocked in another thread
    /// returns with isConnected false, every later read returns at once, and a setupSocket()
    /// waiting for the socket gives up. Any thread.
    void stopReading();

    /// Retires the endpoint: reads go on for `grace` (not counting the reader delegate's time) and
    /// then stop as stopReading() does; a setupSocket() under way gives up at once; a send that
    /// cannot finish within `grace` of now, one blocked at this moment included, fails with
    /// ETIMEDOUT. A later call can shorten the grace, never extend it. Any thread.
    void retire(std::chrono::milliseconds grace);

    /// A descriptor that turns readable when the process is asked to stop (the main thread's
    /// signalfd of the stop signals): setupSocket() then gives up with ECANCELED. Process-wide;
    /// set once on the main thread before any endpoint connects. Borrowed, never closed.
    static void setStopSignalDescriptor(std::shared_ptr<const Descriptor> descriptor);

  private:
    // A trusted, connected socket, or throws.
    [[nodiscard]] Descriptor connectOnce(std::chrono::steady_clock::time_point deadline) const;
    void wake() const;
    [[nodiscard]] bool waitBeforeRetry(std::chrono::milliseconds delay) const;
    void waitUntilConnected(int socket, std::chrono::steady_clock::time_point deadline) const;
    void waitUntilWritable(int socket) const;
    void sendParts(std::span<iovec> parts, std::size_t& first) const;
    [[nodiscard]] bool waitForInput();
    void noteConnectionEnded();
    [[nodiscard]] bool givingUp() const { return readingStopped_ || retired_; }
    void replaceDescriptor(Descriptor descriptor);
    void deliverPausingTheGrace();
    /// Hands every complete frame of the inbound buffer to `delegate` (none: drops them).
    void deliverCompleteFrames(SocketReaderDelegate* delegate);

    const SocketType type_;
    std::string path_;  // reading side only
    std::atomic<bool> connected_{false};
    std::atomic<bool> readingStopped_{false};
    std::atomic<bool> retired_{false};
    std::atomic<std::chrono::steady_clock::time_point> retiredUntil_{};  // valid once retired_
    // Reading side only: when the current connection opened, and the wait before the next connect.
    std::chrono::steady_clock::time_point connectedAt_{};
    std::chrono::milliseconds pacingDelay_{0};
    // An eventfd that turns readable, for good, when reading stops or the endpoint retires. Waits
    // poll it beside the socket, so that stopping wakes them without shutting the socket down:
    // shutdown(SHUT_RD) on a Unix stream socket makes the core service's later sends to us fail
    // with EPIPE.
    const Descriptor wakeDescriptor_;
    // Readable once reading stopped: wakes a retired endpoint's read, which no longer watches
    // wakeDescriptor_.
    const Descriptor stopDescriptor_;

    // The socket is replaced only under sendLock_, and only by the reading side (readSocket(),
    // resetSocket(), setupSocket(), closeSocket()), which therefore uses it without the lock.
    mutable std::mutex sendLock_;
    Descriptor descriptor_;  // -1 before setupSocket() and after closeSocket() or resetSocket()

    mutable std::mutex delegateLock_;
    std::weak_ptr<SocketReaderDelegate> readerDelegate_;  // guarded by delegateLock_

    Data inbound_;  // reading side only: bytes of frames not yet complete
};

}  // namespace kerrow
