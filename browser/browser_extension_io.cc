#include "browser/browser_extension_io.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>

#include "browser/standard_stream_framing.h"
#include "kit/const.h"
#include "kit/frame_codec.h"

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
    // A reader before this one may have left frames that it could not forward whole: they are
    // the first in the read-ahead. The handle reads input that is already there before it looks
    // at the retire event, so the flag is looked at again once a frame is whole: a retired loop
    // forwards and consumes none of it.
    while (!retired_.load(std::memory_order_acquire)) {
        std::size_t length = 0;
        const FrameRead read = peekFrame(*inputHandle, length, retireEvent_.get());
        if (read == FrameRead::cancelled || retired_.load(std::memory_order_acquire)) {
            break;
        }
        if (read == FrameRead::endOfInput) {
            stop();
        }
        sendTabData(length);
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

void BrowserExtensionIO::sendTabData(std::size_t length) {
    const std::span<const std::uint8_t> held = *inputHandle->peek(0);
    const std::span<const std::uint8_t> suffix(
        reinterpret_cast<const std::uint8_t*>(Const::Browser::tabList.data()),
        Const::Browser::tabList.size());
    std::array<SocketHelper::OutgoingFrame, batchFrames> frames;
    std::array<std::size_t, batchFrames> ends{};  // where each frame ends in `held`
    std::size_t count = 0;
    for (std::size_t offset = 0;;) {
        frames[count] = {held.subspan(offset + frameHeaderLength, length - frameHeaderLength),
                         suffix};
        offset += length;
        ends[count++] = offset;
        logger.logInformation("Sending Tab Data to Browser Messaging", now());
        // A retirement stops the batch at this frame boundary too.
        const auto next = wholeFrameLength(held.subspan(offset));
        if (count == batchFrames || !next || offset + *next > batchBytes ||
            retired_.load(std::memory_order_acquire)) {
            break;
        }
        length = *next;
    }
    std::size_t whole = count;
    if (browserSocket) {
        try {
            browserSocket->sendFrames({frames.data(), count}, whole);
        } catch (const std::exception&) {
            // Cut off by the retirement (the endpoint closes a connection that got part of a
            // frame): what did not go out whole stays for the next reader, which sends it first.
            // Otherwise the core service is away; the extension's next messages go as usual.
            if (!retired_.load(std::memory_order_acquire)) {
                whole = count;
            }
        }
    }
    inputHandle->consume(whole == 0 ? 0 : ends[whole - 1]);
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
    if (holding_ && held_.size() + frameHeaderLength + message.size() <= heldBytes) {
        const auto header = encodeFrameLength(message.size());
        held_.insert(held_.end(), header.begin(), header.end());
        held_.insert(held_.end(), message.begin(), message.end());
        return;
    }
    writeFrames(message);
}

void BrowserExtensionIO::writeHeldMessages() {
    holding_ = false;
    if (!held_.empty()) {
        writeFrames(std::nullopt);
    }
}

void BrowserExtensionIO::writeFrames(std::optional<std::string_view> message) {
    if (predecessor_) {
        predecessor_->waitForEndOfOutput();
    }
    {
        const std::lock_guard writing(outputHandle->writingLock());
        if (message) {
            writeFrame(*outputHandle, *message, held_);
        } else {
            outputHandle->writeData(held_);
        }
    }
    held_.clear();
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
