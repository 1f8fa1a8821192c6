// Console: the peers' terminal output. Lines to standard output or standard error are written
// whole and at once (a pipe reader sees every line as soon as it happens), and an interactive
// prompt on standard error is cleared before and shown again after lines that arrive while a
// person is typing. One per process; loop thread only.
#pragma once

#include <string>
#include <string_view>

namespace kerrow::tools {

class Console {
  public:
    /// `prompt` is shown only when standard input and standard error are terminals.
    explicit Console(std::string prompt);
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    [[nodiscard]] bool interactive() const { return interactive_; }

    /// One line (without its end) to standard output / standard error.
    void out(std::string_view line);
    void err(std::string_view line);
    /// Shows the prompt, if interactive and not shown yet.
    void prompt();
    /// The person ended a line: the prompt on screen has been used up.
    void promptUsed() { promptShown_ = false; }
    /// The input has ended: the prompt on screen goes away for good.
    void endPrompt();

  private:
    void write(int descriptor, std::string_view line);

    std::string prompt_;
    bool interactive_;
    bool promptShown_ = false;
};

}  // namespace kerrow::tools
