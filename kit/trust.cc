#include "kit/trust.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

namespace kerrow {
namespace {

[[noreturn]] void throwErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

bool isTrustedOwner(uid_t owner) {
    return owner == ::geteuid() || owner == 0;
}

void checkDirectoryTrust(const std::filesystem::path& directory, const char* what) {
    const std::string name = std::string(what) + " " + directory.string();
    struct stat status {};
    if (::lstat(directory.c_str(), &status) != 0) {
        throwErrno(name);
    }
    if (S_ISLNK(status.st_mode)) {
        throw SocketTrustError(name + " is a symbolic link");
    }
    if (!S_ISDIR(status.st_mode)) {
        throw SocketTrustError(name + " is not a directory");
    }
    if (!isTrustedOwner(status.st_uid)) {
        throw SocketTrustError(name + " is owned by uid " + std::to_string(status.st_uid));
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        throw SocketTrustError(name + " is writable by group or others");
    }
}

void checkPrivateFileTrust(int file, const std::filesystem::path& path) {
    struct stat status {};
    if (::fstat(file, &status) != 0) {
        throwErrno("file " + path.string());
    }
    if (!S_ISREG(status.st_mode)) {
        throw SocketTrustError("file " + path.string() + " is not a regular file");
    }
    if (status.st_uid != ::geteuid()) {
        throw SocketTrustError("file " + path.string() + " is owned by uid " +
                               std::to_string(status.st_uid));
    }
    if ((status.st_mode & 07777) != 0600) {
        throw SocketTrustError("file " + path.string() + " is not private (mode 0600)");
    }
}

// The core service creates the directory and the socket when it starts: until then both may be
// missing (ENOENT, which the endpoint waits out). What exists must be ours or root's, and no one
// else may be able to put another socket in its place.
void checkSocketTrust(const std::filesystem::path& path) {
    checkDirectoryTrust(path.parent_path(), "socket directory");
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        throwErrno("socket " + path.string());
    }
    if (!isTrustedOwner(status.st_uid)) {
        throw SocketTrustError("socket " + path.string() + " is owned by uid " +
                               std::to_string(status.st_uid));
    }
}

void checkPeerTrust(int socket, const std::filesystem::path& path) {
    ucred peer{};
    socklen_t peerLength = sizeof peer;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &peerLength) != 0) {
        throwErrno("credentials of the core service at " + path.string());
    }
    if (!isTrustedOwner(peer.uid)) {
        throw SocketTrustError("core service at " + path.string() + " runs as uid " +
                               std::to_string(peer.uid));
    }
}

}  // namespace kerrow
