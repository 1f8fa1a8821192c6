// BrowserExtensionIO: the host's end of the channel to the browser extension.
//
// It owns the standard streams. On its own serial queue it reads every frame that the extension
// sends and forwards the body, unparsed and followed by Const::Browser::tabList, to the core
// service through the shared socket endpoint; at end of input it ends the process with status 0.
// The frames that standard input's read-ahead already holds whole go together in one send (up to
// batchFrames or batchBytes), straight from the read-ahead; a lone frame goes at once.
// Its command operations write JSON messages for the extension as frames on standard output;
// while the host-to-core service holds them (holdMessages()), they go in one write at the end.
//
// Ownership: held by the application delegate and by the host-to-core service (std::shared_ptr);
// the read loop holds it while it runs. browserSocket is set once, before start().
// Threads: the read loop and sendTabData() run on `queue`. The command operations and
// writeMessage() run on their caller's thread; every writer of the output handle takes its
// writingLock() around its write, so frames never interleave, even with two channels alive.
//
// Succession: the channel of a repeated start follows the one it replaces (follow()). It writes
// to standard output only once the one before has ended its output (endOutput(), called by the
// host-to-core service that writes through it when that has delivered everything it read), so
// the commands of a retired connection all come before those of its successor, however long the
// browser takes to read. A frame is consumed from standard input only once it went out whole (or
// the core service was away): the extension messages whose forward a retirement cut off stay in
// the read-ahead, and the next reader of standard input sends them first, in order.
//
// Handover: standard input has exactly one reader. A read loop holds the input handle's
// readingLock() while it reads; retire() makes it stop at the next frame boundary, without having
// consumed a byte of the next frame, and release the lock to the channel that replaces it. The
// bytes read ahead belong to the handle, so the next reader starts with them. retire() wakes a
// loop blocked in a read through an eventfd; a channel that could not make one (logged when its
// loop starts) stops once the read it is blocked in returns, still at a frame boundary.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "kit/logger.h"
#include "kit/socket_helper.h"
#include "platform/data.h"
#include "platform/descriptor.h"
#include "platform/dispatch_queue.h"
#include "platform/file_handle.h"

namespace kerrow {

class BrowserExtensionIO : public std::enable_shared_from_this<BrowserExtensionIO> {
  public:
    /// The end of a channel's output, which the channel that replaces it waits for. Any thread.
    class Succession {
      public:
        void endOutput();
        void waitForEndOfOutput();

      private:
        std::mutex lock_;
        std::condition_variable ended_;
        bool outputEnded_ = false;  // guarded by lock_
    };

    /// The disable-internet message: the envelope's two keys with a text payload.
    struct DisableInternet {
        std::string action;
        std::string payload;
        /// {"action":"…","payload":"…"}, compact, "/" written as "\/"; no value when a text is
        /// not valid UTF-8.
        [[nodiscard]] std::optional<std::string> toJSONString() const;
    };

    BrowserExtensionIO(std::shared_ptr<FileHandle> inputHandle,
                       std::shared_ptr<FileHandle> outputHandle);
    ~BrowserExtensionIO();
    BrowserExtensionIO(const BrowserExtensionIO&) = delete;
    BrowserExtensionIO& operator=(const BrowserExtensionIO&) = delete;

    /// Makes this channel the successor of `previous`. Before start() and any command.
    void follow(const BrowserExtensionIO& previous) { predecessor_ = previous.succession_; }

    /// Queues the read loop on `queue`, holding this channel weakly until it runs.
    void start();

    /// The most frames, and bytes of frames (a longer first frame goes alone), of one send.
    static constexpr std::size_t batchFrames = 64;
    static constexpr std::size_t batchBytes = std::size_t{256} * 1024;

    /// Forwards the next frame of standard input, `length` bytes whole in the read-ahead, and
    /// those after it held whole there, to the core service with the tabList suffix, in one
    /// send; logs a line for each before. Consumes what went out whole; silent on failure.
    void sendTabData(std::size_t length);

    /// The commands to the extension: each logs its line, then writes its frame.
    void closeTab(const std::string& id);
    void disableInternet(const std::string& payload);
    void enableInternet();
    void setWebsiteList(const Data& websiteListJSON);
    /// Decodes the list as it writes the message, so no second copy of the list is made; a list
    /// whose message would pass the browser's limit is dropped with an error line.
    void setWebsiteList(std::span<const std::uint8_t> websiteListJSON);
    void clearWebsiteLists();

    /// Writes one frame on the output handle, once the channel this one follows has ended its
    /// output. A message over maximumMessageLength is not written: one error line names it.
    void writeMessage(std::string_view message);

    /// Keeps the frames of the commands that follow (up to heldBytes) until writeHeldMessages(),
    /// which writes them in order in one write. Commands in between come from the calling thread
    /// only.
    void holdMessages() { holding_ = true; }
    void writeHeldMessages();
    static constexpr std::size_t heldBytes = std::size_t{64} * 1024;

    /// Declares that no more commands come through this channel: its successor may write. Any
    /// thread; the destructor does it too.
    void endOutput() { succession_->endOutput(); }

    /// Stops the read loop at the next frame boundary without ending the process. Any thread.
    void retire();

    std::shared_ptr<SocketHelper> browserSocket;  // set before start(), then never changed

  private:
    void readLoop();
    /// Writes the held frames, then `message` as one frame (none without a value), in one write.
    void writeFrames(std::optional<std::string_view> message);
    [[noreturn]] void stop();
    /// Logs "<line>: <JSON text>", then writes the text; nothing without a text.
    void writeAnnounced(std::string_view line, const std::optional<std::string>& json);

    const std::shared_ptr<FileHandle> inputHandle;
    const std::shared_ptr<FileHandle> outputHandle;
    const Logger logger;
    DispatchQueue queue;
    std::atomic<bool> retired_ = false;  // checked at every frame boundary, without a system call
    int retireEventError_ = 0;           // errno of the eventfd that could not be made, else 0
    const Descriptor retireEvent_;       // eventfd, readable once retire() was called; may be none
    const std::shared_ptr<Succession> succession_ = std::make_shared<Succession>();
    std::shared_ptr<Succession> predecessor_;  // set by follow() before start(), then constant
    bool holding_ = false;                     // on the thread of the commands, like held_
    Data held_;  // frames kept while holding: header and body each, back to back
};

}  // namespace kerrow
