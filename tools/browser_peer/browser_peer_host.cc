// The browser peer's side of the host's pipes, its exit, and the waits on what it writes.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "tools/browser_peer/browser_peer.h"
#include "tools/browser_peer/json_lines.h"
#include "tools/common/text.h"

namespace kerrow::tools {
namespace {

constexpr double outputGraceSeconds = 2;

}  // namespace

void BrowserPeer::sendFrame(const std::string& body) {
    pending_ += encodeFrame(body);
    console_.err("browser-peer: sent a frame of " + std::to_string(body.size()) + " bytes" +
                 (console_.interactive() ? std::string() : ": " + printable(body, 200)));
    writeSome();
}

void BrowserPeer::writeSome() {
    while (!pending_.empty() && host_.input) {
        const ssize_t count = ::write(host_.input.get(), pending_.data(), pending_.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0 && errno == EAGAIN) {
            break;
        }
        if (count < 0) {
            console_.err(std::string("browser-peer: the host does not take its input: ") +
                         std::strerror(errno));
            pending_.clear();
            closeRequested_ = true;
            break;
        }
        pending_.erase(0, static_cast<std::size_t>(count));
    }
    if (!host_.input) {
        return;
    }
    if (pending_.empty() && closeRequested_) {
        inputIO_.reset();
        host_.input.reset();
        console_.err("browser-peer: closed the host's input");
        return;
    }
    sd_event_source_set_enabled(inputIO_.get(), pending_.empty() ? SD_EVENT_OFF : SD_EVENT_ON);
}

void BrowserPeer::closeInput() {
    if (closeRequested_) {
        return;
    }
    closeRequested_ = true;
    writeSome();
}

void BrowserPeer::readOutput() {
    std::array<char, 65536> buffer{};
    const ssize_t count = ::read(host_.output.get(), buffer.data(), buffer.size());
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (count <= 0) {
        if (frames_.midFrame()) {
            console_.err("browser-peer: the host's output ended inside a frame (" +
                         frames_.describeIncomplete() + ")");
            hostFailed_ = true;
        }
        endOutput();
        return;
    }
    frames_.append({buffer.data(), static_cast<std::size_t>(count)});
    try {
        while (auto body = frames_.next()) {
            const auto shown = jsonLine(*body);
            ++framesReceived_;
            if (shown.note) {
                console_.err("browser-peer: frame " + std::to_string(framesReceived_) + ": " +
                             *shown.note);
            }
            console_.out(shown.line);
            script_.received(std::move(*body));
        }
    } catch (const FrameTooLarge& error) {
        console_.err("browser-peer: the host wrote a frame of " +
                     std::to_string(error.announced()) +
                     " bytes, over the browser limit of 1 MiB; a browser drops such a host: "
                     "closing its pipes");
        hostFailed_ = true;
        pending_.clear();
        closeRequested_ = true;
        inputIO_.reset();
        host_.input.reset();
        endOutput();
        return;
    }
}

void BrowserPeer::endOutput() {
    outputIO_.reset();
    host_.output.reset();
    finishIfDone();
}

void BrowserPeer::hostExited(const siginfo_t& info) {
    if (info.si_code == CLD_EXITED) {
        hostStatus_ = info.si_status;
        console_.err("browser-peer: the host exited with status " + std::to_string(info.si_status));
    } else {
        hostStatus_ = 128 + info.si_status;
        console_.err("browser-peer: the host was ended by signal " +
                     std::to_string(info.si_status) + " (" + strsignal(info.si_status) + ")");
    }
    child_.reset();
    // Nothing more can be sent; lines still to come are not run.
    script_.stop();
    script_.endWait();
    pending_.clear();
    inputIO_.reset();
    host_.input.reset();
    finishIfDone();
}

void BrowserPeer::finishIfDone() {
    if (!hostStatus_) {
        return;
    }
    if (!host_.output) {
        sd_event_exit(loop_.get(), 0);
        return;
    }
    // The host has gone but something it started may hold its output open: wait a little for
    // the last frames, then stop reading.
    timer_ = addTimer<BrowserPeer, &BrowserPeer::endOutput>(loop_.get(), this, outputGraceSeconds);
}

void BrowserPeer::waitTimedOut(const Script::Entry& entry) {
    if (entry.command.kind == BrowserCommand::Kind::expect) {
        script_.fail(entry.line, "expect: the host wrote no frame containing '" +
                                     printable(entry.command.text) + "' within " +
                                     formatSeconds(options_.timeout) + " s");
    }
}

}  // namespace kerrow::tools
