#include "app/app_delegate.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

#include "kit/const.h"
#include "kit/notification_names.h"

namespace kerrow {
namespace {

// What a start leaves behind, as far as it outlives the start: its channel and service hold it
// through their endpoint (aliasing pointers) until both are destroyed, after their threads'
// last work. Its end is written to `ended`, which wakes the main loop.
struct StartHold {
    StartHold(std::shared_ptr<SocketHelper> endpoint, std::shared_ptr<const Descriptor> ended)
        : endpoint(std::move(endpoint)), ended(std::move(ended)) {}
    ~StartHold() {
        endpoint.reset();  // its descriptors first
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto wrote = ::write(ended->get(), &one, sizeof one);
    }
    StartHold(const StartHold&) = delete;
    StartHold& operator=(const StartHold&) = delete;

    std::shared_ptr<SocketHelper> endpoint;
    const std::shared_ptr<const Descriptor> ended;
};

}  // namespace

AppDelegate::AppDelegate()
    : logger(now(), std::nullopt),
      distributedNotificationCenter(DistributedNotificationCenter::defaultCenter()) {}

void AppDelegate::applicationDidFinishLaunching() {
    logger.logInformation("KerrowNativeMessagingHost started", now());
    // The stop signals end the host also while the start sequence waits in setupSocket().
    SocketHelper::setStopSignalDescriptor(Application::shared().stopSignalDescriptor());
    try {
        if (!notificationsStarted) {
            notificationsStarted = true;
            watchStartEnds();
            distributedNotificationCenter.addObserver(NotificationName::startCoreHostServices,
                                                      [this] {
                                                          ++startsDue;
                                                          serveStarts();
                                                      });
        }
        distributedNotificationCenter.postNotificationName(
            NotificationName::nativeMessagingHostDidFinishLaunching, true);
    } catch (const std::exception& error) {
        logger.logError(error, "Error connecting to the session bus", now());
    }
}

void AppDelegate::applicationWillTerminate() {
    Logger::flushAll();
}

void AppDelegate::watchStartEnds() {
    auto event = std::make_shared<const Descriptor>(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!*event) {
        return;
    }
    const auto ended = [](sd_event_source*, int descriptor, std::uint32_t, void* userdata) {
        std::uint64_t count = 0;
        [[maybe_unused]] const auto got = ::read(descriptor, &count, sizeof count);
        static_cast<AppDelegate*>(userdata)->serveStarts();
        return 0;
    };
    sd_event_source* source = nullptr;
    if (sd_event_add_io(Application::shared().eventLoop(), &source, event->get(), EPOLLIN, ended,
                        this) < 0) {
        return;
    }
    startEndedSource.reset(source);
    startEnded = std::move(event);
}

// Nothing here waits: a start that must wait is served when the end of the retiring start's
// objects wakes the loop, and the stop signals come before that.
void AppDelegate::serveStarts() {
    while (startsDue > 0) {
        // The start ends the reading of the retiring service at once (it still delivers what it
        // read), and goes on once that service and its channel are gone.
        if (const auto retiring = retiringService.lock()) {
            retiring->endReading();
        }
        if (!retiringStart.expired()) {
            return;
        }
        --startsDue;
        startCoreHostServices();
    }
}

void AppDelegate::startCoreHostServices() {
    if (Application::shared().stopRequested()) {
        return;  // the loop ends the host as soon as this returns
    }
    retirePreviousServices();
    socketHelper.reset();
    try {
        // Without a descriptor left for the endpoint's wake-up there is no endpoint: the start
        // sequence goes on without one, as the channel and the service allow.
        socketHelper = std::make_shared<SocketHelper>(SocketType::browser,
                                                      SocketHelper::browserSocketLocation());
        if (startEnded) {
            const auto hold = std::make_shared<StartHold>(std::move(socketHelper), startEnded);
            socketHelper = {hold, hold->endpoint.get()};
        }
        socketHelper->setupSocket();
    } catch (const std::exception& error) {
        logger.logError(error, "Error setting up socket", now());
    }
    startBrowserConnection();
    setUpHostToCoreService();
}

void AppDelegate::retirePreviousServices() {
    if (browserConnection) {
        browserConnection->retire();
    }
    retiringService = hostToCoreSocketService;
    if (startEnded) {
        retiringStart = socketHelper;  // otherwise nothing would wake a start waiting for it
    }
    if (hostToCoreSocketService) {
        hostToCoreSocketService->retire();
    }
}

void AppDelegate::startBrowserConnection() {
    auto channel = std::make_shared<BrowserExtensionIO>(FileHandle::standardInput(),
                                                        FileHandle::standardOutput());
    if (browserConnection) {
        channel->follow(*browserConnection);
    }
    browserConnection = std::move(channel);
    browserConnection->browserSocket = socketHelper;
    browserConnection->start();
}

void AppDelegate::setUpHostToCoreService() {
    logger.logInformation("Setting up Host to Core service", now());
    hostToCoreSocketService = std::make_shared<HostToCoreSocketService>();
    hostToCoreSocketService->browserConnection = browserConnection;
    hostToCoreSocketService->socketHelper = socketHelper;
    if (socketHelper) {
        socketHelper->setReaderDelegate(hostToCoreSocketService);
    }
    requestDeviceTwinUpdate();
    hostToCoreSocketService->setup();
}

// The service's loop sends the request first on its connection: a core service that does not
// read must never hold the main thread, and with it the stop signals.
void AppDelegate::requestDeviceTwinUpdate() {
    logger.logInformation("Requesting Device Twin update", now());
    hostToCoreSocketService->firstMessage = dataFromText(Const::Browser::updateDeviceTwin);
}

}  // namespace kerrow
