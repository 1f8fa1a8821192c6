// BrowserExtensionIO: the host's end of the channel to the browser extension.
//
// It owns the standard streams. On its own serial queue it reads every frame that the extension
// sends and forwards the body, unparsed and followed by Const::Browser::tabList, to the core
// service through the shared socket endpoint; at end of input it ends the process with status 0.
// Its command operations write JSON messages for the extension as frames on standard output.
//
// Ownership: held by the application delegate and by the host-to-core service (std::shared_ptr);
// the read loop holds it while it runs. browserSocket is set once, before start().
// Threads: the read loop and sendTabData() run on `queue`. The command operations and
// writeMessage() run on their caller's thread; every writer of the output handle takes its
// writingLock() around the two writes of a frame, so frames never interleave, even with two
// channels alive.
//
// Succession: the channel of a repeated start follows the one it replaces (follow()). It writes
// to standard output only once the one before has ended its output (endOutput(), called by the
// host-to-core service that writes through it when that has delivered everything it read), so
// the commands of a retired connection all come before those of its successor, however long the
// browser takes to read. An extension message whose forward a retirement cut off is left to the
// next reader of standard input, which sends it first, before any frame it reads itself.
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

    /// An extension message that a retired reader of standard input could not forward: the next
    /// reader sends it first. Shared by every channel of the process.
    struct Handover {
        std::mutex lock;
        std::optional<Data> message;  // guarded by lock
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
    void follow(const BrowserExtensionIO& previous) {
        predecessor_ = previous.succession_;
        handover_ = previous.handover_;
    }

    /// Queues the read loop on `queue`, holding this channel weakly until it runs.
    void start();

    /// Forwards one body to the core service with the tabList suffix; silent on failure. The
    /// suffix is appended to `body` in place: the read loop's buffer, reused for the next frame.
    void sendTabData(Data& body);

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

    /// Declares that no more commands come through this channel: its successor may write. Any
    /// thread; the destructor does it too.
    void endOutput() { succession_->endOutput(); }

    /// Stops the read loop at the next frame boundary without ending the process. Any thread.
    void retire();

    std::shared_ptr<SocketHelper> browserSocket;  // set before start(), then never changed

  private:
    void readLoop();
    /// Sends `message` on browserSocket; one cut off by the retirement is left to the next reader.
    void forward(Data& message);
    [[noreturn]] void stop();
    /// Logs `line` followed by the JSON text, then writes the text; nothing without a text.
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
    std::shared_ptr<Handover> handover_ = std::make_shared<Handover>();  // likewise
};

}  // namespace kerrow
