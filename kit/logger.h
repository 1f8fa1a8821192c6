// Logger: the host's log lines, one per call, "<time stamp> <level> <message>".
//
// The time stamp is the caller's (UTC, ISO 8601 with milliseconds), not the time of writing; an
// error line is "<message>: <error description>". Control characters (but tab) and the backslash
// are written as escapes (\n, \r, \\, \x1b), so one call is one line and every escape reads one
// way. A line carries at most 64 KiB of message, escapes included; longer text is cut and ends
// with a note of how many bytes were left out. Lines go to
// $XDG_STATE_HOME/kerrow/native-messaging-host.log ($HOME/.local/state/... where XDG_STATE_HOME is
// unset), or to <logsDir>/native-messaging-host.log when a directory is given. The directory is
// created 0700 and must be trusted as the socket's is (no symbolic link, the user's or root's,
// not writable by group or others); the file is created 0600 and must be the user's own regular
// file of mode 0600; both are judged on the opened descriptors. Anything else (and a file that
// cannot be opened) sends the lines to standard error, never to standard output. The file
// rotates by size, safely also when several hosts share it, so the log and its two rotated files
// stay bounded.
//
// Logging never waits on the disk: a call formats its line into an in-memory queue and returns.
// A writer thread, started by the first line logged, writes the queue out in batches: a line
// reaches the file within a second; flushAll() writes out everything before the process ends.
// Lines that cannot be kept (the queue is full because writing stalls, the disk is full) are
// counted, and once writing works again the log says "<N> log lines were lost". A rotation whose
// lock another process holds is skipped and tried with a later batch.
//
// Every logger of the process writing to one place shares one thread-safe channel, so loggers may
// be used from any thread at once without torn or lost lines. A Logger is a cheap value: copy it
// freely, use it from any thread.
#pragma once

#include <chrono>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>

namespace kerrow {

using Date = std::chrono::system_clock::time_point;

/// The current date, as the callers of the logger take it just before each call.
[[nodiscard]] inline Date now() {
    return std::chrono::system_clock::now();
}

class LogChannel;

class Logger {
  public:
    /// `date` is the logger's creation time; each line carries its own time stamp instead.
    Logger(Date date, const std::optional<std::filesystem::path>& logsDir);

    void logInformation(std::string_view message, Date timeStamp) const;
    /// "<message>: <detail>", without joining the two first (the detail may be long).
    void logInformation(std::string_view message, std::string_view detail, Date timeStamp) const;
    void logError(const std::exception& error, std::string_view message, Date timeStamp) const;

    /// The directory used when none is given: $XDG_STATE_HOME/kerrow or $HOME/.local/state/kerrow.
    [[nodiscard]] static std::optional<std::filesystem::path> defaultLogsDirectory();
    /// The file name inside the logs directory.
    static constexpr std::string_view logFileName = "native-messaging-host.log";

    /// Writes every pending line of every logger to its file. Call before ending the process.
    static void flushAll();

  private:
    std::shared_ptr<LogChannel> channel_;  // shared by all loggers of one logs directory
};

}  // namespace kerrow
