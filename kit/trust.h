// The trust rules of the host's files: what the host accepts as the directory and socket of the
// core service (and, with the same rules, its own log), and as the process at the other end.
//
// A directory is trusted when it is a real directory (not a symbolic link), owned by the user or
// root, and not writable by group or others: no one else can put a socket or a file in it. A
// socket is trusted in a trusted directory when it is owned by the user or root; a peer when its
// SO_PEERCRED uid is the user's or root's. The host's endpoint and the installer's doctor both
// judge with these functions. The log's directory follows the directory rule, and the log file
// must be the user's own regular file of mode 0600. Stateless; any thread.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <stdexcept>

namespace kerrow {

/// Thrown for a socket, directory or peer that fails the trust rules; the message says why.
class SocketTrustError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// The user (effective uid) or root.
[[nodiscard]] bool isTrustedOwner(uid_t owner);

/// Throws SocketTrustError for an untrusted directory, std::system_error when it cannot be
/// examined (ENOENT when it does not exist). `what` names it in messages ("socket directory").
void checkDirectoryTrust(const std::filesystem::path& directory, const char* what);

/// The open file `file` (named `path` in messages) as a private file of the user: a regular
/// file owned by the effective uid with mode 0600. Throws SocketTrustError otherwise.
void checkPrivateFileTrust(int file, const std::filesystem::path& path);

/// The socket at `path` and its directory; throws as checkDirectoryTrust() does.
void checkSocketTrust(const std::filesystem::path& path);

/// The process at the other end of the connected Unix socket `socket`; throws SocketTrustError
/// (naming `path`) for another user's, std::system_error when its credentials cannot be read.
void checkPeerTrust(int socket, const std::filesystem::path& path);

}  // namespace kerrow
