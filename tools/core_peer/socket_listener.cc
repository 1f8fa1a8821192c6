#include "tools/core_peer/socket_listener.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace kerrow::tools {
namespace {

std::string errorText(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        throw ListenError("socket path '" + path + "' is " + std::to_string(path.size()) +
                          " bytes long; a Unix socket path takes 1 to " +
                          std::to_string(sizeof address.sun_path - 1));
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

void prepareDirectory(const std::filesystem::path& directory,
                      const std::function<void(const std::string&)>& notes) {
    std::error_code error;
    if (!std::filesystem::exists(directory, error)) {
        std::filesystem::create_directories(directory, error);
        if (error || ::chmod(directory.c_str(), 0700) != 0) {
            throw ListenError("cannot create the socket directory " + directory.string() + ": " +
                              (error ? error.message() : std::strerror(errno)));
        }
        return;
    }
    struct stat status {};
    if (::stat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        throw ListenError(directory.string() + " is not a directory");
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 ||
        (status.st_uid != ::getuid() && status.st_uid != 0)) {
        notes("warning: hosts refuse this socket: its directory " + directory.string() +
              " is writable by group or others or owned by another user");
    }
}

// A socket file already at `path`: refuse it while someone listens, else remove it.
void clearStaleSocket(const std::string& path, const sockaddr_un& address,
                      const std::function<void(const std::string&)>& notes) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        return;
    }
    if (!S_ISSOCK(status.st_mode)) {
        throw ListenError(path + " exists and is not a socket");
    }
    const Descriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        throw ListenError("socket " + path +
                          " is in use: another core service (or core peer) listens there");
    }
    if (::unlink(path.c_str()) != 0) {
        throw ListenError(errorText("removing the stale socket " + path));
    }
    notes("removed a stale socket file at " + path);
}

}  // namespace

SocketListener::SocketListener(sd_event* loop, std::string path, Acceptor acceptor,
                               const std::function<void(const std::string&)>& notes)
    : loop_(loop), path_(std::move(path)), acceptor_(std::move(acceptor)) {
    const sockaddr_un address = addressOf(path_);
    prepareDirectory(std::filesystem::path(path_).parent_path(), notes);
    clearStaleSocket(path_, address, notes);
    socket_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket_) {
        throw ListenError(errorText("socket"));
    }
    if (::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw ListenError(errorText("bind " + path_));
    }
    struct stat status {};
    if (::stat(path_.c_str(), &status) == 0) {
        device_ = status.st_dev;
        inode_ = status.st_ino;
    }
    if (::listen(socket_.get(), 16) != 0) {
        throw ListenError(errorText("listen " + path_));
    }
    io_ = addIo<SocketListener, &SocketListener::acceptAll>(loop, this, socket_.get(), EPOLLIN);
}

SocketListener::~SocketListener() {
    struct stat status {};
    if (inode_ != 0 && ::lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ &&
        status.st_ino == inode_) {
        ::unlink(path_.c_str());
    }
}

void SocketListener::acceptAll() {
    for (;;) {
        const int connection =
            ::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (connection < 0 && (errno == EINTR || errno == ECONNABORTED)) {
            continue;
        }
        if (connection < 0 && errno != EAGAIN) {
            // Out of descriptors, say: the pending connection stays readable, so pause instead
            // of spinning, and try again in a second.
            sd_event_source_set_enabled(io_.get(), SD_EVENT_OFF);
            const auto onRetry = [](sd_event_source*, uint64_t, void* self) {
                auto& listener = *static_cast<SocketListener*>(self);
                sd_event_source_set_enabled(listener.io_.get(), SD_EVENT_ON);
                return 0;
            };
            sd_event_source* timer = nullptr;
            if (sd_event_add_time_relative(loop_, &timer, CLOCK_MONOTONIC, 1'000'000, 0, onRetry,
                                           this) >= 0) {
                retry_.reset(timer);
            }
            return;
        }
        if (connection < 0) {
            return;
        }
        acceptor_(Descriptor(connection));
    }
}

}  // namespace kerrow::tools
