#include "tools/browser_peer/host_launcher.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <system_error>

extern char** environ;

namespace kerrow::tools {
namespace {

struct PipeEnds {
    Descriptor read;
    Descriptor write;
};

PipeEnds makePipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

void setNonBlocking(const Descriptor& descriptor) {
    const int flags = ::fcntl(descriptor.get(), F_GETFL);
    ::fcntl(descriptor.get(), F_SETFL, flags | O_NONBLOCK);
}

}  // namespace

std::string chromeOrigin(const std::string& extensionId) {
    return "chrome-extension://" + extensionId + "/";
}

LaunchedHost launchHost(const std::string& binary, const std::vector<std::string>& arguments) {
    PipeEnds input = makePipe();
    PipeEnds output = makePipe();
    std::vector<std::string> texts{binary};
    texts.insert(texts.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& text : texts) {
        argv.push_back(text.data());
    }
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input.read.get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output.write.get(), STDOUT_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    LaunchedHost host;
    const int error =
        ::posix_spawn(&host.pid, binary.c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), "cannot start the host " + binary);
    }
    host.input = std::move(input.write);
    host.output = std::move(output.read);
    setNonBlocking(host.input);
    setNonBlocking(host.output);
    return host;
}

}  // namespace kerrow::tools
