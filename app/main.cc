// kerrow-native-messaging-host: the process that a browser starts for the Kerrow extension.
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "app/app_delegate.h"
#include "kit/logger.h"
#include "platform/application.h"
#include "platform/confinement.h"

namespace {

// A browser may start the host with a standard stream closed. The next file opened would then
// take its number, and frames for the extension could land in the log: each closed one of 0, 1
// and 2 is opened on /dev/null before anything else opens a file. False when that fails.
bool openClosedStandardStreams() {
    for (int stream = 0; stream <= 2; ++stream) {
        if (::fcntl(stream, F_GETFD) >= 0 || errno != EBADF) {
            continue;
        }
        const int opened = ::open("/dev/null", stream == 0 ? O_RDONLY : O_WRONLY);
        if (opened != stream) {  // the lowest free number, which is `stream`, or a failure
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    // A write to a pipe whose reader left (the browser's, or standard error's) fails with EPIPE
    // instead of ending the host.
    ::signal(SIGPIPE, SIG_IGN);
    if (!openClosedStandardStreams()) {
        return EXIT_FAILURE;
    }

    // The buffers that live on (the read-ahead of each stream, up to a 1 MiB frame and its
    // read-ahead; the log's two batches) are kept by their owners, so the allocator need not keep
    // freed memory for them: blocks of 64 KiB and more are mapped and go back to the kernel when
    // freed, and a heap gives back what is free at its top beyond 32 KiB. So a burst (a log queue
    // that grew while its writer fell behind, a large message) leaves no resident memory behind,
    // and the host's private memory stays under 1 MiB after any relay.
    mallopt(M_MMAP_THRESHOLD, 64 * 1024);
    mallopt(M_TRIM_THRESHOLD, 32 * 1024);

    // The application does not own its delegate; this one lives as long as the process.
    static kerrow::AppDelegate appDelegate;
    kerrow::Application::shared().setDelegate(&appDelegate);
#if KERROW_CONFINE
    // The log is open and no thread runs yet (the logger starts its writer with the first line,
    // the queues with the first start notification): confined here, every thread of the host is.
    const kerrow::Logger logger(kerrow::now(), std::nullopt);
    for (const auto& note : kerrow::confineProcess({kerrow::Logger::defaultLogsDirectory()})) {
        logger.logInformation(note, kerrow::now());
    }
#endif
    return kerrow::applicationMain(argc, argv);
}
