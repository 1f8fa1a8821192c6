// Arguments: the peers' command-line options, read one at a time. "--name VALUE" and
// "--name=VALUE" are the same; "--" ends the options. A mistake throws UsageError, whose message
// names the option and what is wrong with it. A plain value; one thread.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kerrow::tools {

class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class Arguments {
  public:
    Arguments(int argc, char** argv) : words_(argv + (argc > 0 ? 1 : 0), argv + argc) {}

    /// The next option's name ("--socket"), or no value when only operands are left.
    [[nodiscard]] std::optional<std::string> nextOption();
    /// The value of the option just read. Throws UsageError when it has none.
    [[nodiscard]] std::string value();
    /// The value as a number of seconds greater than 0 and at most `maximum`.
    [[nodiscard]] double seconds(double maximum);
    /// Throws UsageError when the option just read was given a value ("--help=x").
    void noValue();
    /// What is left after the options.
    [[nodiscard]] std::vector<std::string> operands() const;

  private:
    std::vector<std::string> words_;
    std::size_t next_ = 0;
    std::string option_;
    std::optional<std::string> inlineValue_;  // the VALUE of "--name=VALUE"
};

}  // namespace kerrow::tools
