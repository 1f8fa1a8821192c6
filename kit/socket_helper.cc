#include "kit/socket_helper.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <system_error>
#include <utility>

#include "kit/frame_codec.h"

namespace kerrow {
namespace {

using namespace std::chrono_literals;

// Back-off while the socket is missing or refuses: 20 ms, doubling up to one second, for at most
// ten seconds in all.
constexpr std::chrono::milliseconds firstRetryDelay = 20ms;
constexpr std::chrono::milliseconds longestRetryDelay = 1s;
constexpr std::chrono::milliseconds connectPatience = 10s;
// A connection that ends sooner than this after it opened counts as a failed attempt.
constexpr std::chrono::milliseconds stableConnection = 1s;
// How often a send blocked on a retired connection looks at its deadline again.
constexpr int deadlineRecheckMilliseconds = 20;

// Bytes asked of the kernel by one read; the inbound buffer grows by at most this much per read.
constexpr std::size_t readChunk = std::size_t{64} * 1024;
// After a large frame the buffer gives its memory back once it holds no more than this.
constexpr std::size_t retainedCapacity = std::size_t{1024} * 1024;

[[noreturn]] void throwErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

struct StopSignal {
    std::mutex lock;
    std::shared_ptr<const Descriptor> descriptor;  // guarded by lock
};

StopSignal& stopSignal() {
    static StopSignal instance;
    return instance;
}

std::shared_ptr<const Descriptor> stopSignalDescriptor() {
    auto& signal = stopSignal();
    const std::lock_guard lock(signal.lock);
    return signal.descriptor;
}

int millisecondsUntil(std::chrono::steady_clock::time_point deadline) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 60'000));
}

[[noreturn]] void throwCancelled(const std::string& what) {
    throw std::system_error(ECANCELED, std::generic_category(), what);
}

}  // namespace

SocketHelper::SocketHelper(SocketType type, std::string path)
    : type_(type),
      path_(std::move(path)),
      wakeDescriptor_(::eventfd(0, EFD_CLOEXEC)),
      stopDescriptor_(::eventfd(0, EFD_CLOEXEC)) {
    if (wakeDescriptor_.get() < 0 || stopDescriptor_.get() < 0) {
        throwErrno("eventfd");
    }
}

SocketHelper::~SocketHelper() = default;

void SocketHelper::setStopSignalDescriptor(std::shared_ptr<const Descriptor> descriptor) {
    auto& signal = stopSignal();
    const std::lock_guard lock(signal.lock);
    signal.descriptor = std::move(descriptor);
}

std::string SocketHelper::browserSocketLocation() {
    const char* runtimeDirectory = std::getenv("XDG_RUNTIME_DIR");  // NOLINT(concurrency-mt-unsafe)
    if (runtimeDirectory != nullptr && runtimeDirectory[0] == '/') {
        return (std::filesystem::path(runtimeDirectory) / "kerrow" / "browser.sock").string();
    }
    return "/tmp/kerrow-" + std::to_string(::getuid()) + "/browser.sock";
}

void SocketHelper::setReaderDelegate(std::weak_ptr<SocketReaderDelegate> delegate) {
    const std::lock_guard lock(delegateLock_);
    readerDelegate_ = std::move(delegate);
}

std::shared_ptr<SocketReaderDelegate> SocketHelper::readerDelegate() const {
    const std::lock_guard lock(delegateLock_);
    return readerDelegate_.lock();
}

void SocketHelper::closeSocket() {
    connected_ = false;
    replaceDescriptor(Descriptor());
}

void SocketHelper::resetSocket(const std::string& path) {
    noteConnectionEnded();
    connected_ = false;
    replaceDescriptor(Descriptor());
    path_ = path;
}

// Called once the connection is over: a short-lived one lengthens the wait before the next
// connect, a stable one clears it.
void SocketHelper::noteConnectionEnded() {
    if (descriptor_.get() < 0) {
        return;
    }
    if (std::chrono::steady_clock::now() - connectedAt_ < stableConnection) {
        pacingDelay_ = std::clamp(pacingDelay_ * 2, firstRetryDelay, longestRetryDelay);
    } else {
        pacingDelay_ = 0ms;
    }
}

void SocketHelper::replaceDescriptor(Descriptor descriptor) {
    // A send blocked on a core service that stopped reading holds sendLock_; shutting the old
    // socket down first makes that send fail at once instead of keeping us waiting for the lock.
    if (descriptor_.get() >= 0) {
        ::shutdown(descriptor_.get(), SHUT_RDWR);
    }
    Descriptor old;
    {
        const std::lock_guard lock(sendLock_);
        old = std::exchange(descriptor_, std::move(descriptor));
    }
    inbound_.clear();
    inbound_.shrink_to_fit();
}

void SocketHelper::readSocket() {
    if (!connected_) {
        return;
    }
    for (;;) {
        if (!waitForInput()) {
            connected_ = false;
            return;
        }
        const std::size_t kept = inbound_.size();
        inbound_.resize(kept + readChunk);
        const ssize_t received = ::recv(descriptor_.get(), inbound_.data() + kept, readChunk, 0);
        const int error = errno;
        inbound_.resize(kept + static_cast<std::size_t>(std::max<ssize_t>(received, 0)));
        if (received > 0) {
            deliverPausingTheGrace();
            return;
        }
        if (received == 0 || error == ECONNRESET) {
            // The core service ended the connection; a restarted one is reached by reconnecting.
            connected_ = false;
            return;
        }
        if (error != EINTR && error != EAGAIN) {
            throw std::system_error(error, std::generic_category(),
                                    "read from core service at " + path_);
        }
    }
}

// Waits until the socket has something to read (data, end of stream or an error). False once
// reading stopped, even when input arrived at the same time, so that a stopped reader consumes
// nothing.
// A retired endpoint reads on until its grace ends, then stops as if reading had been stopped.
bool SocketHelper::waitForInput() {
    std::array<pollfd, 3> entries{pollfd{descriptor_.get(), POLLIN, 0},
                                  pollfd{wakeDescriptor_.get(), POLLIN, 0},
                                  pollfd{stopDescriptor_.get(), POLLIN, 0}};
    while (!readingStopped_) {
        const bool retired = retired_;
        const int timeout = retired ? millisecondsUntil(retiredUntil_.load()) : -1;
        if (retired && timeout == 0) {
            stopReading();
            break;
        }
        // Once retired the wake descriptor stays readable: the grace and stopReading() bound the
        // wait then.
        entries[1].fd = retired ? -1 : wakeDescriptor_.get();
        const int ready = ::poll(entries.data(), entries.size(), timeout);
        if (ready < 0 && errno != EINTR) {
            throwErrno("wait for core service at " + path_);
        }
        if (ready > 0 && entries[0].revents != 0 && !readingStopped_) {
            return true;
        }
    }
    return false;
}

// The grace bounds how long a retired connection is read, not how long the delegate takes to
// deliver what was read (standard output may block): delivering stops the clock.
void SocketHelper::deliverPausingTheGrace() {
    const auto began = std::chrono::steady_clock::now();
    // Taken once for everything one read brought: a delegate set meanwhile gets the next read.
    const auto delegate = readerDelegate();
    deliverCompleteFrames(delegate.get());
    if (delegate) {
        delegate->didDeliverFrames();
    }
    if (retired_) {
        retiredUntil_ = retiredUntil_.load() + (std::chrono::steady_clock::now() - began);
    }
}

void SocketHelper::deliverCompleteFrames(SocketReaderDelegate* delegate) {
    std::size_t consumed = 0;
    while (inbound_.size() - consumed >= frameHeaderLength) {
        const std::uint32_t length = decodeFrameLength(inbound_.data() + consumed);
        if (length > maximumFrameLength) {
            throw SocketFrameError("inbound frame of " + std::to_string(length) +
                                   " bytes exceeds the 64 MiB limit");
        }
        if (inbound_.size() - consumed - frameHeaderLength < length) {
            break;
        }
        const std::span<const std::uint8_t> body(inbound_.data() + consumed + frameHeaderLength,
                                                 length);
        consumed += frameHeaderLength + length;
        if (delegate != nullptr) {
            delegate->didReadFrame(body);
        }
    }
    inbound_.erase(inbound_.begin(), inbound_.begin() + static_cast<std::ptrdiff_t>(consumed));
    // After a large frame the buffer gives its memory back, once that copies at most a read.
    if (inbound_.capacity() > retainedCapacity && inbound_.size() <= readChunk) {
        Data(inbound_.begin(), inbound_.end()).swap(inbound_);
    }
}

void SocketHelper::sendData(const Data& data) {
    const OutgoingFrame frame{data, {}};
    std::size_t whole = 0;
    sendFrames({&frame, 1}, whole);
}

void SocketHelper::sendFrames(std::span<const OutgoingFrame> frames, std::size_t& whole) {
    whole = 0;
    // Three parts a frame (header, body, suffix); sendmsg() takes at most IOV_MAX of them.
    constexpr std::size_t framesPerSend = 64;
    std::array<std::array<std::uint8_t, frameHeaderLength>, framesPerSend> headers{};
    std::array<iovec, 3 * framesPerSend> parts{};

    const std::lock_guard lock(sendLock_);
    while (whole < frames.size()) {
        if (descriptor_.get() < 0) {
            throw std::system_error(ENOTCONN, std::generic_category(), "send to core service");
        }
        const auto batch = frames.subspan(whole, std::min(framesPerSend, frames.size() - whole));
        for (std::size_t index = 0; index < batch.size(); ++index) {
            const auto& frame = batch[index];
            const std::size_t length = frame.body.size() + frame.suffix.size();
            if (length > std::numeric_limits<std::uint32_t>::max()) {
                throw std::system_error(EMSGSIZE, std::generic_category(), "send to core service");
            }
            headers[index] = encodeFrameLength(length);
            // sendmsg() only reads the parts; iovec just has no const member.
            parts[3 * index] = iovec{headers[index].data(), frameHeaderLength};
            parts[3 * index + 1] =
                iovec{const_cast<std::uint8_t*>(frame.body.data()), frame.body.size()};
            parts[3 * index + 2] =
                iovec{const_cast<std::uint8_t*>(frame.suffix.data()), frame.suffix.size()};
        }
        std::size_t first = 0;  // the first part with bytes left to send
        try {
            sendParts(std::span(parts).first(3 * batch.size()), first);
        } catch (const std::system_error&) {
            whole += first / 3;
            if (first % 3 != 0 || parts[first].iov_len < frameHeaderLength) {
                // Part of a frame went out: the connection ends here, so that the core service
                // drops the partial frame instead of reading the next one into it.
                ::shutdown(descriptor_.get(), SHUT_RDWR);
            }
            throw;
        }
        whole += batch.size();
    }
}

// Sends what is left of `parts` from `first` on, advancing both as bytes go out. The send lock
// is held.
void SocketHelper::sendParts(std::span<iovec> parts, std::size_t& first) const {
    while (first < parts.size()) {
        msghdr message{};
        message.msg_iov = parts.data() + first;
        message.msg_iovlen = parts.size() - first;
        // MSG_NOSIGNAL: a core service that has gone makes this fail with EPIPE, never SIGPIPE.
        const ssize_t sent = ::sendmsg(descriptor_.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) {
            if (errno == EAGAIN) {
                waitUntilWritable(descriptor_.get());
            } else if (errno != EINTR) {
                throwErrno("send to core service");
            }
            continue;
        }
        for (auto left = static_cast<std::size_t>(sent); first < parts.size(); ++first) {
            iovec& part = parts[first];
            const std::size_t taken = std::min(left, part.iov_len);
            part.iov_base = static_cast<std::uint8_t*>(part.iov_base) + taken;
            part.iov_len -= taken;
            left -= taken;
            if (part.iov_len > 0) {
                break;
            }
        }
    }
}

// Waits (the send lock held) until `socket` takes more bytes. A retired endpoint waits no longer
// than its grace; the wake descriptor ends a wait that began before the retirement.
void SocketHelper::waitUntilWritable(int socket) const {
    std::array<pollfd, 2> entries{pollfd{socket, POLLOUT, 0},
                                  pollfd{wakeDescriptor_.get(), POLLIN, 0}};
    for (;;) {
        const bool retired = retired_;
        const int timeout = retired ? millisecondsUntil(retiredUntil_.load()) : -1;
        if (retired && timeout == 0) {
            throw std::system_error(ETIMEDOUT, std::generic_category(),
                                    "send to a retired core service connection");
        }
        // Retired, the wait looks at the deadline again every so often: a later retirement may
        // have shortened it.
        const int ready = ::poll(entries.data(), retired ? 1 : 2,
                                 retired ? std::min(timeout, deadlineRecheckMilliseconds) : -1);
        if (ready < 0 && errno != EINTR) {
            throwErrno("wait to send to core service");
        }
        if (ready > 0 && entries[0].revents != 0) {
            return;  // writable, or an error that the next send reports
        }
    }
}

void SocketHelper::setupSocket() {
    const auto deadline = std::chrono::steady_clock::now() + connectPatience;
    // A core service that dropped the last connection at once is not asked again at once.
    if (pacingDelay_ > 0ms && !waitBeforeRetry(pacingDelay_)) {
        throwCancelled("connect to " + path_);
    }
    for (auto delay = std::max(firstRetryDelay, pacingDelay_);;
         delay = std::min(delay * 2, longestRetryDelay)) {
        try {
            replaceDescriptor(connectOnce(deadline));
            connectedAt_ = std::chrono::steady_clock::now();
            connected_ = true;
            return;
        } catch (const std::system_error& error) {
            // A full backlog (EAGAIN) is waited out like a socket that is not there yet.
            const bool absent = error.code() == std::errc::no_such_file_or_directory ||
                                error.code() == std::errc::connection_refused ||
                                error.code() == std::errc::resource_unavailable_try_again;
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (!absent || left <= 0ms) {
                throw;
            }
            if (!waitBeforeRetry(std::min(delay, left))) {
                throwCancelled("connect to " + path_);
            }
        }
    }
}

// Sleeps for `delay`; false when the endpoint stopped, retired or the process was asked to stop
// before or during the wait.
bool SocketHelper::waitBeforeRetry(std::chrono::milliseconds delay) const {
    const auto stop = stopSignalDescriptor();
    std::array<pollfd, 2> entries{pollfd{wakeDescriptor_.get(), POLLIN, 0},
                                  pollfd{stop ? stop->get() : -1, POLLIN, 0}};
    const auto until = std::chrono::steady_clock::now() + delay;
    while (!givingUp()) {
        const int ready = ::poll(entries.data(), entries.size(), millisecondsUntil(until));
        if (ready == 0) {
            return true;
        }
        if (ready > 0) {
            return false;
        }
        if (errno != EINTR) {
            throwErrno("wait for core service at " + path_);
        }
    }
    return false;
}

// Waits for a non-blocking connect in progress to finish, at most until `deadline`.
void SocketHelper::waitUntilConnected(int socket,
                                      std::chrono::steady_clock::time_point deadline) const {
    const auto stop = stopSignalDescriptor();
    std::array<pollfd, 3> entries{pollfd{socket, POLLOUT, 0},
                                  pollfd{wakeDescriptor_.get(), POLLIN, 0},
                                  pollfd{stop ? stop->get() : -1, POLLIN, 0}};
    for (;;) {
        if (givingUp()) {
            throwCancelled("connect to " + path_);
        }
        const int ready = ::poll(entries.data(), entries.size(), millisecondsUntil(deadline));
        if (ready == 0) {
            throw std::system_error(ETIMEDOUT, std::generic_category(), "connect to " + path_);
        }
        if (ready < 0 && errno != EINTR) {
            throwErrno("wait to connect to " + path_);
        }
        if (ready > 0 && (entries[1].revents != 0 || entries[2].revents != 0)) {
            throwCancelled("connect to " + path_);
        }
        if (ready > 0 && entries[0].revents != 0) {
            int error = 0;
            socklen_t length = sizeof error;
            if (::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
                throwErrno("connect to " + path_);
            }
            if (error != 0) {
                throw std::system_error(error, std::generic_category(), "connect to " + path_);
            }
            return;
        }
    }
}

Descriptor SocketHelper::connectOnce(std::chrono::steady_clock::time_point deadline) const {
    const std::filesystem::path path(path_);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof address.sun_path) {
        throw std::system_error(ENAMETOOLONG, std::generic_category(), "socket " + path_);
    }
    checkSocketTrust(path);
    std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);

    // Non-blocking for good: reads wait in poll() and sends in waitUntilWritable().
    Descriptor connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (connection.get() < 0) {
        throwErrno("socket");
    }
    if (::connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
        0) {
        if (errno != EINPROGRESS && errno != EINTR) {
            throwErrno("connect to " + path_);
        }
        waitUntilConnected(connection.get(), deadline);
    }
    checkPeerTrust(connection.get(), path);
    return connection;
}

void SocketHelper::stopReading() {
    if (!readingStopped_.exchange(true)) {
        wake();
        [[maybe_unused]] const int result = ::eventfd_write(stopDescriptor_.get(), 1);
    }
}

void SocketHelper::retire(std::chrono::milliseconds grace) {
    const auto until = std::chrono::steady_clock::now() + grace;
    if (!retired_) {
        retiredUntil_ = until;  // before retired_, which makes it valid
        if (!retired_.exchange(true)) {
            wake();
            return;
        }
    }
    // Retired already: a later retirement can shorten the grace, never extend it.
    auto current = retiredUntil_.load();
    while (until < current && !retiredUntil_.compare_exchange_weak(current, until)) {
    }
}

void SocketHelper::wake() const {
    // Only a counter at its limit makes this fail, and such a descriptor is readable already.
    [[maybe_unused]] const int result = ::eventfd_write(wakeDescriptor_.get(), 1);
}

}  // namespace kerrow
