#include "browser/browser_extension_io.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

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

// The "action" value of a message the host made: every one starts {"action":"<action>".
std::string actionOf(std::string_view message) {
    constexpr std::string_view start = R"({"action":")";
    if (!message.starts_with(start)) {
        return "a message";
    }
    message.remove_prefix(start.size());
    return std::string(message.substr(0, message.find('"')));
}

}  // namespace

BrowserExtensionIO::BrowserExtensionIO(std::shared_ptr<FileHandle> inputHandle,
                                       std::shared_ptr<FileHandle> outputHandle)
    : inputHandle(std::move(inputHandle)),
      outputHandle(std::move(outputHandle)),
      logger(now(), std::nullopt),
      queue("com.kerrowsoftware.native-messaging-host.filehandle"),
      retireEvent_(makeRetireEvent(retireEventError_)) {}

BrowserExtensionIO::~BrowserExtensionIO() {
    endOutput();
}

void BrowserExtensionIO::Succession::endOutput() {
    {
        const std::lock_guard guard(lock_);
        outputEnded_ = true;
    }
    ended_.notify_all();
}

void BrowserExtensionIO::Succession::waitForEndOfOutput() {
    std::unique_lock guard(lock_);
    ended_.wait(guard, [this] { return outputEnded_; });
}

void BrowserExtensionIO::start() {
    queue.async([weakSelf = weak_from_this()] {
        if (const auto self = weakSelf.lock()) {
            self->readLoop();
            self->queue.finish();  // the loop was the queue's only work: its thread ends now
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
    std::optional<Data> left;
    {
        const std::lock_guard guard(handover_->lock);
        left = std::exchange(handover_->message, std::nullopt);
    }
    if (left) {
        forward(*left);  // the message the reader before could not finish comes first
    }
    Data body;  // one buffer for every frame: it keeps the capacity of the largest so far
    while (!retired_.load(std::memory_order_acquire)) {
        switch (readFrame(*inputHandle, body, retireEvent_.get())) {
            case FrameRead::body:
                sendTabData(body);
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
    forward(body);
}

void BrowserExtensionIO::forward(Data& message) {
    if (!browserSocket) {
        return;
    }
    try {
        browserSocket->sendData(message);
    } catch (const std::exception&) {
        if (retired_.load(std::memory_order_acquire)) {
            // The retirement cut the send off (the endpoint closes a connection that got part
            // of it): the next reader of standard input sends it whole, first.
            const std::lock_guard guard(handover_->lock);
            handover_->message = std::move(message);
            message.clear();
        }
        // Otherwise the core service is away; the extension's next message goes as usual.
    }
}

void BrowserExtensionIO::writeMessage(std::string_view message) {
    if (message.size() > maximumMessageLength) {
        // The browser would drop the host, and every later command with it.
        logger.logError(std::length_error(actionOf(message) + " of " +
                                          std::to_string(message.size()) + " bytes exceeds the " +
                                          std::to_string(maximumMessageLength) + "-byte limit"),
                        "Dropped a message for the extension", now());
        return;
    }
    if (predecessor_) {
        predecessor_->waitForEndOfOutput();
    }
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
