// kerrow-hostile-core: a core service the host must not trust, for the trust tests.
//
//   kerrow-hostile-core <socket path> <socket owner uid or -> <listen-as uid or -> <command>
//
// Binds a Unix stream socket at the path as the invoking user, gives the socket file to the
// owner if one is named, drops to the listen-as user if one is named (the peer credentials the
// host sees are fixed when listen() is called), listens, and prints "listening". Every
// connection it accepts gets <command> as one frame and is kept open; it prints "accepted" for
// each. It ends when its standard input ends. Changing owners or users needs root.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "kerrow-hostile-core: %s: %s\n", what, std::strerror(errno));
    std::_Exit(2);
}

void say(const char* line) {
    if (::write(STDOUT_FILENO, line, std::strlen(line)) < 0) {
        fail("write");
    }
}

std::string framed(const std::string& command) {
    const auto n = static_cast<std::uint32_t>(command.size());
    std::string bytes{static_cast<char>(n & 0xFF), static_cast<char>((n >> 8) & 0xFF),
                      static_cast<char>((n >> 16) & 0xFF), static_cast<char>((n >> 24) & 0xFF)};
    return bytes + command;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: %s <socket> <owner uid|-> <listen-as uid|-> <command>\n",
                     argv[0]);
        return 2;
    }
    const std::string path = argv[1];
    const std::string owner = argv[2];
    const std::string listenAs = argv[3];
    const std::string frame = framed(argv[4]);

    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ::unlink(path.c_str());
    if (listener < 0 ||
        ::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail("bind");
    }
    if (owner != "-" && ::chown(path.c_str(), static_cast<uid_t>(std::stoul(owner)),
                                static_cast<gid_t>(std::stoul(owner))) != 0) {
        fail("chown");
    }
    if (listenAs != "-") {
        const auto id = static_cast<uid_t>(std::stoul(listenAs));
        if (::setresgid(id, id, id) != 0 || ::setresuid(id, id, id) != 0) {
            fail("setresuid");
        }
    }
    if (::listen(listener, 16) != 0) {
        fail("listen");
    }
    say("listening\n");

    std::vector<int> connections;
    for (;;) {
        pollfd entries[2] = {{listener, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        if (::poll(entries, 2, -1) < 0 && errno != EINTR) {
            fail("poll");
        }
        if (entries[1].revents != 0) {
            return 0;  // the test is done with us
        }
        if (entries[0].revents != 0) {
            const int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (connection >= 0) {
                connections.push_back(connection);
                [[maybe_unused]] const auto sent =
                    ::send(connection, frame.data(), frame.size(), MSG_NOSIGNAL);
                say("accepted\n");
            }
        }
    }
}
