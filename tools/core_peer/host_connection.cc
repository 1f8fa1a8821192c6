#include "tools/core_peer/host_connection.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace kerrow::tools {

HostConnection::HostConnection(sd_event* loop, Descriptor socket, unsigned number, Client& client)
    : number_(number), client_(client), socket_(std::move(socket)) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (::getsockopt(socket_.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0) {
        pid_ = credentials.pid;
        uid_ = credentials.uid;
    }
    const auto onIO = [](sd_event_source*, int, uint32_t events, void* self) {
        static_cast<HostConnection*>(self)->onEvents(events);
        return 0;
    };
    sd_event_source* io = nullptr;
    check(sd_event_add_io(loop, &io, socket_.get(), EPOLLIN, onIO, this), "sd_event_add_io");
    io_.reset(io);
}

void HostConnection::send(std::string_view message) {
    if (!connected()) {
        return;
    }
    outbound_ += encodeFrame(message);
    writeSome();
}

void HostConnection::disconnect(const std::string& reason) {
    if (connected()) {
        end(reason);
    }
}

void HostConnection::onEvents(uint32_t events) {
    // Nothing of `this` may be touched after end(): the Client may retire the connection.
    if ((events & EPOLLOUT) != 0) {
        writeSome();
        if (!connected()) {
            return;
        }
    }
    if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
        readSome();
    }
}

void HostConnection::readSome() {
    std::array<char, 65536> buffer{};
    const ssize_t count = ::recv(socket_.get(), buffer.data(), buffer.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (count < 0) {
        end(errno == ECONNRESET ? "connection reset"
                                : std::string("recv: ") + std::strerror(errno));
        return;
    }
    if (count == 0) {
        end(inbound_.midFrame()
                ? "end of stream inside a frame (" + inbound_.describeIncomplete() + ")"
                : "end of stream");
        return;
    }
    inbound_.append({buffer.data(), static_cast<std::size_t>(count)});
    try {
        while (auto message = inbound_.next()) {
            client_.messageReceived(*this, std::move(*message));
        }
    } catch (const FrameTooLarge& error) {
        end(std::string("protocol error: ") + error.what());
    }
}

void HostConnection::writeSome() {
    while (!outbound_.empty()) {
        const ssize_t count =
            ::send(socket_.get(), outbound_.data(), outbound_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0 && errno == EAGAIN) {
            break;
        }
        if (count < 0) {
            end(std::string("send: ") + std::strerror(errno));
            return;
        }
        outbound_.erase(0, static_cast<std::size_t>(count));
    }
    updateInterest();
}

void HostConnection::updateInterest() {
    sd_event_source_set_io_events(io_.get(), outbound_.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT);
}

void HostConnection::end(const std::string& reason) {
    io_.reset();
    socket_.reset();
    outbound_.clear();
    client_.hostDisconnected(*this, reason);
}

}  // namespace kerrow::tools
