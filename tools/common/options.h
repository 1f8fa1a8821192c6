// The peers' command lines, read with getopt_long: "--name VALUE" and "--name=VALUE" are the
// same, a long option may be shortened while that is unambiguous, "-h" is the one short option,
// and the options end at "--" or at the first word that is not one. A mistake throws UsageError,
// whose message names the option and what is wrong with it. getopt_long keeps its place in
// globals: main thread, once per process.
#pragma once

#include <functional>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace kerrow::tools {

class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// One long option ("host" for --host). `take` gets its value, or null for an option that takes
/// none.
struct Option {
    const char* name;
    bool takesValue;
    std::function<void(const char* value)> take;
};

/// Calls each option's `take` for each time it stands in `argv`, in order. "-h" and "--help"
/// print `help`, "--version" prints `version` and a line end; both then exit with status 0. An
/// unknown option, a missing or an unexpected value, and any word left after the options throw
/// UsageError.
void readOptions(int argc, char** argv, std::string_view help, std::string_view version,
                 const std::vector<Option>& options);

/// `text`, the value of `option` ("--timeout"), as a number of seconds above 0 and at most
/// `maximum`. Throws UsageError.
[[nodiscard]] double secondsOption(std::string_view option, const char* text, double maximum);

}  // namespace kerrow::tools
