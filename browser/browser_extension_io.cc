#include "browser/browser_extension_io.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

#include "browser/standard_stream_framing.h"
#include "kit/const.h"

namespace kerrow {

BrowserExtensionIO::BrowserExtensionIO(std::shared_ptr<FileHandle> inputHandle,
                                       std::shared_ptr<FileHandle> outputHandle)
    : inputHandle(std::move(inputHandle)),
      outputHandle(std::move(outputHandle)),
      logger(now(), std::nullopt),
      queue("com.kerrowsoftware.native-messaging-host.filehandle"),
      retireEvent_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

BrowserExtensionIO::~BrowserExtensionIO() {
    ::close(retireEvent_);
}

void BrowserExtensionIO::start() {
    queue.async([weakSelf = weak_from_this()] {
        if (const auto self = weakSelf.lock()) {
            self->readLoop();
        }
    });
}

void BrowserExtensionIO::readLoop() {
    logger.logInformation("Starting KerrowNativeMessagingHost:BrowserExtensionIO", now());
    const std::lock_guard reading(inputHandle->readingLock());
    while (inputHandle->waitForInput(retireEvent_)) {
        const auto body = readFrame(*inputHandle);
        if (!body) {
            stop();
        }
        sendTabData(*body);
    }
    // Retired: the channel that replaced this one reads on from this frame boundary.
}

void BrowserExtensionIO::stop() {
    logger.logInformation("Stopping KerrowNativeMessagingHost:BrowserExtensionIO", now());
    Logger::flushAll();
    inputHandle->closeFile();
    // Other threads may be logging or blocked in reads: running static destructors under them
    // is not safe, and everything that must outlive the process has been written out.
    ::_exit(0);
}

void BrowserExtensionIO::sendTabData(const Data& body) {
    logger.logInformation("Sending Tab Data to Browser Messaging", now());
    if (!browserSocket) {
        return;
    }
    Data outgoing;
    outgoing.reserve(body.size() + Const::Browser::tabList.size());
    outgoing.insert(outgoing.end(), body.begin(), body.end());
    outgoing.insert(outgoing.end(), Const::Browser::tabList.begin(), Const::Browser::tabList.end());
    try {
        browserSocket->sendData(outgoing);
    } catch (const std::exception&) {
        // The core service is away; the extension's next message is forwarded as usual.
    }
}

void BrowserExtensionIO::writeMessage(std::string_view message) {
    const std::lock_guard writing(outputHandle->writingLock());
    writeFrame(*outputHandle, message);
}

void BrowserExtensionIO::retire() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto wrote = ::write(retireEvent_, &one, sizeof one);
}

}  // namespace kerrow
