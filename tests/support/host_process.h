// HostProcess: a real host (or peer) binary started the way a browser starts the host: its
// standard input and output are pipes held by the test, its standard error goes to a file, and
// its environment is exactly the one given (nothing inherited). Test code only; use one instance
// from one thread.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/test_support.h"

namespace kerrow::test {

class HostProcess {
  public:
    /// Starts `binary` with `arguments` (argv[1]...) and `environment`; standard error goes to
    /// `standardErrorFile`. Fails the test when the process cannot be started.
    HostProcess(const std::filesystem::path& binary, const std::vector<std::string>& arguments,
                const std::map<std::string, std::string>& environment,
                const std::filesystem::path& standardErrorFile);
    /// Kills the process if it still runs, and reaps it.
    ~HostProcess();
    HostProcess(const HostProcess&) = delete;
    HostProcess& operator=(const HostProcess&) = delete;

    /// Writes one frame with `body` to the process's standard input.
    void send(std::string_view body);
    /// Writes raw bytes to its standard input.
    void sendRaw(std::string_view bytes);
    /// The next frame the process wrote to standard output, or no value at end or time-out.
    [[nodiscard]] std::optional<std::string> receive(Duration timeout = 5000ms);
    /// Everything else on standard output until end of file or `timeout`.
    [[nodiscard]] std::string receiveRest(Duration timeout = 5000ms);
    /// Ends the process's standard input (the browser closing the connection).
    void closeInput();
    /// Closes our read end of its standard output.
    void closeOutput();
    /// The exit status (128 + signal number when a signal ended it), or no value when the
    /// process still runs after `timeout`.
    [[nodiscard]] std::optional<int> waitForExit(Duration timeout = 5000ms);
    /// True while the process has not ended (it is not reaped by this call).
    [[nodiscard]] bool running() const;

    [[nodiscard]] pid_t pid() const { return pid_; }
    [[nodiscard]] int inputFd() const { return input_; }
    [[nodiscard]] int outputFd() const { return output_; }

  private:
    pid_t pid_ = -1;
    int input_ = -1;   // our write end of its standard input
    int output_ = -1;  // our read end of its standard output
    std::optional<int> status_;
};

}  // namespace kerrow::test
