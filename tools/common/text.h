// Text helpers of the peers: cutting input into lines, showing received bytes readably, and the
// escapes that let a person type any byte. Pure functions and plain values; one thread at a time.
#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kerrow::tools {

/// Cuts bytes that arrive in pieces into lines ending in "\n" ("\r\n" is taken as "\n"). A line
/// longer than `maximumLength` bytes is an error: next() throws LineTooLong once and the rest of
/// that line is dropped, so memory stays bounded by the limit plus one piece.
class LineSplitter {
  public:
    explicit LineSplitter(std::size_t maximumLength) : maximumLength_(maximumLength) {}
    void append(std::string_view bytes);
    /// The next complete line, without its end; no value until one is complete. Call it until it
    /// gives no value after each append().
    [[nodiscard]] std::optional<std::string> next();
    /// At end of input: the last line if it had no line end, else no value.
    [[nodiscard]] std::optional<std::string> finish();

  private:
    std::size_t maximumLength_;
    std::string buffer_;
    std::size_t scanned_ = 0;  // bytes of buffer_ known to hold no "\n"
    bool discarding_ = false;  // dropping the rest of a line that was too long
};

class LineTooLong : public std::runtime_error {
  public:
    explicit LineTooLong(std::size_t maximum);
};

/// `bytes` for a terminal: valid UTF-8 stays as it is apart from control characters, which show
/// as \n, \r, \t or \xHH; bytes that are not UTF-8 show as \xHH. Longer than `limit` bytes, the
/// text is cut and "... (N bytes)" is added.
[[nodiscard]] std::string printable(std::string_view bytes, std::size_t limit = 4096);

/// Undoes the escapes \\ \n \r \t \0 and \xHH; no value for any other backslash sequence.
[[nodiscard]] std::optional<std::string> unescape(std::string_view text);

/// The blank-separated words of `text`.
[[nodiscard]] std::vector<std::string> splitWords(std::string_view text);

/// The first blank-separated word of `text` (trimmed), and the rest without blanks at either end
/// (its inner blanks kept: it can be a payload text).
[[nodiscard]] std::pair<std::string_view, std::string_view> firstWord(std::string_view text);

/// `text` without blanks at either end.
[[nodiscard]] std::string_view trim(std::string_view text);

/// A number of seconds written as a non-negative decimal ("2", "0.5"); no value otherwise.
[[nodiscard]] std::optional<double> parseSeconds(std::string_view text);

/// `seconds` as printf's %g writes it ("0.2", "10").
[[nodiscard]] std::string formatSeconds(double seconds);

/// A non-negative integer up to `maximum`, digits only; no value otherwise.
[[nodiscard]] std::optional<unsigned long long> parseCount(std::string_view text,
                                                           unsigned long long maximum);

}  // namespace kerrow::tools
