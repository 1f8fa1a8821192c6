#include "tools/common/text.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "kit/utf8.h"

namespace kerrow::tools {
namespace {

constexpr std::string_view hexDigits = "0123456789abcdef";

void appendHex(std::string& out, unsigned char byte) {
    out += "\\x";
    out += hexDigits[byte >> 4];
    out += hexDigits[byte & 0xF];
}

std::optional<int> hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return std::nullopt;
}

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

}  // namespace

LineTooLong::LineTooLong(std::size_t maximum)
    : std::runtime_error("line longer than " + std::to_string(maximum) + " bytes") {}

void LineSplitter::append(std::string_view bytes) {
    if (discarding_) {
        // The rest of a line that was too long: drop it up to its end.
        const auto end = bytes.find('\n');
        if (end == std::string_view::npos) {
            return;
        }
        bytes.remove_prefix(end + 1);
        discarding_ = false;
    }
    buffer_.append(bytes);
}

std::optional<std::string> LineSplitter::next() {
    const auto end = buffer_.find('\n', scanned_);
    if (end == std::string::npos) {
        scanned_ = buffer_.size();
        if (buffer_.size() > maximumLength_) {
            buffer_.clear();
            scanned_ = 0;
            discarding_ = true;
            throw LineTooLong(maximumLength_);
        }
        return std::nullopt;
    }
    if (end > maximumLength_) {
        buffer_.erase(0, end + 1);
        scanned_ = 0;
        throw LineTooLong(maximumLength_);
    }
    std::string line = buffer_.substr(0, end);
    buffer_.erase(0, end + 1);
    scanned_ = 0;
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    return line;
}

std::optional<std::string> LineSplitter::finish() {
    if (buffer_.empty()) {
        return std::nullopt;
    }
    std::string line = std::move(buffer_);
    buffer_.clear();
    scanned_ = 0;
    if (line.size() > maximumLength_) {
        throw LineTooLong(maximumLength_);
    }
    if (line.back() == '\r') {
        line.pop_back();
    }
    return line;
}

std::string printable(std::string_view bytes, std::size_t limit) {
    const std::string_view shown = bytes.substr(0, limit);
    const bool utf8 = isValidUTF8(bytes);
    std::string out;
    out.reserve(shown.size());
    for (const char c : shown) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (byte < 0x20 || byte == 0x7F || (byte >= 0x80 && !utf8)) {
            appendHex(out, byte);
        } else {
            out += c;
        }
    }
    if (utf8 && shown.size() < bytes.size()) {
        // Do not leave half a character at the cut.
        while (!out.empty() && (static_cast<unsigned char>(out.back()) & 0xC0) == 0x80) {
            out.pop_back();
        }
        if (!out.empty() && static_cast<unsigned char>(out.back()) >= 0xC0) {
            out.pop_back();
        }
    }
    if (shown.size() < bytes.size()) {
        out += "... (" + std::to_string(bytes.size()) + " bytes)";
    }
    return out;
}

std::optional<std::string> unescape(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            out += text[i];
            continue;
        }
        if (++i == text.size()) {
            return std::nullopt;
        }
        switch (text[i]) {
            case '\\':
                out += '\\';
                break;
            case 'n':
                out += '\n';
                break;
            case 'r':
                out += '\r';
                break;
            case 't':
                out += '\t';
                break;
            case '0':
                out += '\0';
                break;
            case 'x': {
                if (text.size() - i < 3) {
                    return std::nullopt;
                }
                const auto high = hexValue(text[i + 1]);
                const auto low = hexValue(text[i + 2]);
                if (!high || !low) {
                    return std::nullopt;
                }
                out += static_cast<char>(*high * 16 + *low);
                i += 2;
                break;
            }
            default:
                return std::nullopt;
        }
    }
    return out;
}

std::vector<std::string> splitWords(std::string_view text) {
    std::vector<std::string> words;
    std::size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && isBlank(text[i])) {
            ++i;
        }
        const std::size_t start = i;
        while (i < text.size() && !isBlank(text[i])) {
            ++i;
        }
        if (i > start) {
            words.emplace_back(text.substr(start, i - start));
        }
    }
    return words;
}

std::string_view trim(std::string_view text) {
    while (!text.empty() && isBlank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && isBlank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

std::optional<double> parseSeconds(std::string_view text) {
    if (text.empty() || text.find_first_not_of("0123456789.") != std::string_view::npos) {
        return std::nullopt;
    }
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

std::optional<unsigned long long> parseCount(std::string_view text, unsigned long long maximum) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos) {
        return std::nullopt;
    }
    unsigned long long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value > maximum) {
        return std::nullopt;
    }
    return value;
}

std::pair<std::string_view, std::string_view> firstWord(std::string_view text) {
    text = trim(text);
    const auto end = text.find_first_of(" \t");
    if (end == std::string_view::npos) {
        return {text, {}};
    }
    return {text.substr(0, end), trim(text.substr(end))};
}

std::string formatSeconds(double seconds) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%g", seconds);
    return text.data();
}

}  // namespace kerrow::tools
