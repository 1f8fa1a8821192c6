#include "app/app_delegate.h"

#include "kit/const.h"
#include "kit/notification_names.h"

namespace kerrow {

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
            distributedNotificationCenter.addObserver(NotificationName::startCoreHostServices,
                                                      [this] { startCoreHostServices(); });
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
    // At most one retiring connection beside the current one: an older one stops reading now
    // and only delivers what it has read.
    if (const auto older = retiringService.lock()) {
        older->endReading();
    }
    retiringService = hostToCoreSocketService;
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
