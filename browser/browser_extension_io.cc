#include "browser/browser_extension_io.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "browser/standard_stream_framing.h"
#include "kit/const.h"

namespace kerrow {
namespace {

Descriptor makeRetireEvent(int& error) {
    Descriptor event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    error = event ? 0 : errno;
    return event;
}

// How often a channel waiting for standard input's reading lock looks again; its retirement
// wakes it at once.
constexpr int lockRetryMilliseconds = 10;

}  // namespace

BrowserExtensionIO::BrowserExtensionIO(std::shared_ptr<FileHandle> inputHandle,
                                       std::shared_ptr<FileHandle> outputHandle)
    : inputHandle(std::move(inputHandle)),
      outputHandle(std::move(outputHandle)),
      logger(now(), std::nullopt),
      queue("com.kerrowsoftware.native-messaging-host.filehandle"),
      retireEvent_(makeRetireEvent(retireEventError_)) {}

BrowserExtensionIO::~BrowserExtensionIO() = default;

void BrowserExtensionIO::start() {
    queue.async([weakSelf = weak_from_this()] {
        if (const auto self = weakSelf.lock()) {
            self->readLoop();
        }
    });
}

void BrowserExtensionIO::readLoop() {
    logger.logInformation("Starting KerrowNativeMessagingHost:BrowserExtensionIO", now());
    if (!retireEvent_) {
        logger.logInformation(std::string("No wake descriptor for BrowserExtensionIO (eventfd: ") +
                                  std::strerror(retireEventError_) +
                                  "); a retirement waits for the next frame",
                              now());
    }
    // Another channel may hold standard input: the one this replaces, finishing its frame, or,
    // after two quick starts, a later one that took the lock first. A retirement ends the wait,
    // so that a retired channel never stays behind a reader that never lets go, holding its
    // endpoint (and with it the retired connection) open for the rest of the process.
    std::unique_lock reading(inputHandle->readingLock(), std::try_to_lock);
    while (!reading.owns_lock()) {
        if (retired_.load(std::memory_order_acquire)) {
            return;
        }
        pollfd wake{retireEvent_.get(), POLLIN, 0};
        ::poll(&wake, 1, lockRetryMilliseconds);
        (void)reading.try_lock();
    }
    Data body;  // one buffer for every frame: it keeps the capacity of the largest so far
    while (!retired_.load(std::memory_order_acquire)) {
        switch (readFrame(*inputHandle, body, retireEvent_.get())) {
            case FrameRead::body:
                sendTabData(body);
                releaseLargeBody(body);
                break;
            case FrameRead::endOfInput:
                stop();
            case FrameRead::cancelled:
                return;
        }
    }
    // Retired: the channel that replaced this one reads on from this frame boundary, starting
    // with the bytes the handle has read ahead.
}

void BrowserExtensionIO::stop() {
    logger.logInformation("Stopping KerrowNativeMessagingHost:BrowserExtensionIO", now());
    Logger::flushAll();
    inputHandle->closeFile();
    // Other threads may be logging or blocked in reads: running static destructors under them
    // is not safe, and everything that must outlive the process has been written out.
    ::_exit(0);
}

void BrowserExtensionIO::sendTabData(Data& body) {
    logger.logInformation("Sending Tab Data to Browser Messaging", now());
    if (!browserSocket) {
        return;
    }
    body.insert(body.end(), Const::Browser::tabList.begin(), Const::Browser::tabList.end());
    try {
        browserSocket->sendData(body);
    } catch (const std::exception&) {
        // The core service is away; the extension's next message is forwarded as usual.
    }
}

void BrowserExtensionIO::writeMessage(std::string_view message) {
    const std::lock_guard writing(outputHandle->writingLock());
    writeFrame(*outputHandle, message);
}

void BrowserExtensionIO::retire() {
    retired_.store(true, std::memory_order_release);
    if (retireEvent_) {
        // Cannot fail: the counter of a fresh eventfd is far from its limit.
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto wrote = ::write(retireEvent_.get(), &one, sizeof one);
    }
}

}  // namespace kerrow
