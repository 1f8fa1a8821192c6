#include "platform/application.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <system_error>

namespace kerrow {
namespace {

constexpr std::array stopSignals{SIGTERM, SIGINT, SIGHUP};

[[noreturn]] void throwSystemError(int negativeErrno, const char* what) {
    throw std::system_error(-negativeErrno, std::system_category(), what);
}

void reportError(const char* what, const char* detail) {
    std::fprintf(stderr, "%s: %s: %s\n", program_invocation_short_name, what, detail);
}

// A process-directed signal goes to any thread that does not block it. Threads started by the
// main thread once the loop is set up inherit its mask, but one started earlier (a logger's
// flusher, say) may not block the stop signals; this handler runs there and hands the signal on
// to the main thread, where it is blocked and the loop reads it from its signalfd.
void forwardToMainThread(int signalNumber) {
    const int savedErrno = errno;
    ::tgkill(::getpid(), ::getpid(), signalNumber);
    errno = savedErrno;
}

// Routes the stop signals to `loop`, which exits with status 0 when one arrives. They come before
// every other source: a notification read before the signal is not served after it.
std::array<SdEventSource, stopSignals.size()> routeStopSignals(sd_event* loop) {
    sigset_t mask;
    sigemptyset(&mask);
    for (const int signalNumber : stopSignals) {
        sigaddset(&mask, signalNumber);
    }
    if (const int error = pthread_sigmask(SIG_BLOCK, &mask, nullptr); error != 0) {
        throwSystemError(-error, "block the stop signals");
    }
    // Only now: run on the main thread, the handler would send the signal to itself forever.
    struct sigaction forwarding {};
    forwarding.sa_handler = forwardToMainThread;
    forwarding.sa_flags = SA_RESTART;
    sigemptyset(&forwarding.sa_mask);
    for (const int signalNumber : stopSignals) {
        sigaction(signalNumber, &forwarding, nullptr);
    }
    std::array<SdEventSource, stopSignals.size()> sources;
    for (std::size_t i = 0; i < stopSignals.size(); ++i) {
        sd_event_source* source = nullptr;
        const auto exitLoop = [](sd_event_source* self, const signalfd_siginfo*, void*) {
            return sd_event_exit(sd_event_source_get_event(self), EXIT_SUCCESS);
        };
        if (const int r = sd_event_add_signal(loop, &source, stopSignals[i], exitLoop, nullptr);
            r < 0) {
            throwSystemError(r, "watch the stop signals");
        }
        sources[i].reset(source);
        if (const int r = sd_event_source_set_priority(source, SD_EVENT_PRIORITY_IMPORTANT);
            r < 0) {
            throwSystemError(r, "give the stop signals precedence");
        }
    }
    return sources;
}

// A descriptor that is readable while a stop signal is pending on the main thread, where both are
// blocked; the loop's own signalfd reads them.
std::shared_ptr<const Descriptor> watchStopSignals() {
    sigset_t mask;
    sigemptyset(&mask);
    for (const int signalNumber : stopSignals) {
        sigaddset(&mask, signalNumber);
    }
    auto descriptor =
        std::make_shared<const Descriptor>(::signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK));
    if (descriptor->get() < 0) {
        throw std::system_error(errno, std::generic_category(), "watch the stop signals");
    }
    return descriptor;
}

// An exception must not unwind through the loop's C frames; like a failed launch step, it is
// reported and the loop goes on.
template <typename Call>
void callDelegate(const char* callback, Call call) {
    try {
        call();
    } catch (const std::exception& error) {
        reportError(callback, error.what());
    }
}

SdEventSource scheduleLaunch(sd_event* loop, Application& application) {
    // A defer source is one-shot by default: it runs at the loop's first iteration, then never.
    const auto launch = [](sd_event_source*, void* userdata) {
        if (auto* delegate = static_cast<Application*>(userdata)->delegate()) {
            callDelegate("applicationDidFinishLaunching",
                         [delegate] { delegate->applicationDidFinishLaunching(); });
        }
        return 0;
    };
    sd_event_source* source = nullptr;
    if (const int r = sd_event_add_defer(loop, &source, launch, &application); r < 0) {
        throwSystemError(r, "schedule the launch");
    }
    return SdEventSource(source);
}

}  // namespace

Application& Application::shared() {
    static Application application;
    return application;
}

sd_event* Application::eventLoop() {
    if (!loop_) {
        sd_event* loop = nullptr;
        if (const int r = sd_event_default(&loop); r < 0) {
            throwSystemError(r, "create the event loop");
        }
        loop_.reset(loop);
    }
    return loop_.get();
}

bool Application::stopRequested() const {
    if (!stopSignals_) {
        return false;
    }
    pollfd pending{stopSignals_->get(), POLLIN, 0};
    return ::poll(&pending, 1, 0) > 0;
}

int Application::run() {
    const int status = sd_event_loop(eventLoop());
    if (status < 0) {
        throwSystemError(status, "run the event loop");
    }
    return status;
}

int applicationMain(int /*argc*/, char** /*argv*/) {
    int status = EXIT_FAILURE;
    Application& application = Application::shared();
    try {
        if (::gettid() != ::getpid()) {
            throw std::logic_error("not on the main thread");
        }
        sd_event* const loop = application.eventLoop();
        const auto stopSources = routeStopSignals(loop);
        application.stopSignals_ = watchStopSignals();
        const auto launchSource = scheduleLaunch(loop, application);
        status = application.run();
    } catch (const std::exception& error) {
        reportError("applicationMain", error.what());
        return EXIT_FAILURE;
    }
    if (auto* delegate = application.delegate()) {
        callDelegate("applicationWillTerminate",
                     [delegate] { delegate->applicationWillTerminate(); });
    }
    std::fflush(nullptr);
    ::_exit(status);
}

}  // namespace kerrow
