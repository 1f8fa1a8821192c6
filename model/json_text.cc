#include "model/json_text.h"

#include <array>
#include <cstdint>

#include "kit/utf8.h"

namespace kerrow {

namespace {

enum class ByteClass : std::uint8_t { plain, escaped, multiByte };

constexpr std::array<ByteClass, 256> kByteClasses = [] {
    std::array<ByteClass, 256> classes{};
    for (std::size_t byte = 0; byte < classes.size(); ++byte) {
        if (byte < 0x20 || byte == '"' || byte == '\\' || byte == '/') {
            classes[byte] = ByteClass::escaped;
        } else if (byte >= 0x80) {
            classes[byte] = ByteClass::multiByte;
        } else {
            classes[byte] = ByteClass::plain;
        }
    }
    return classes;
}();

void appendEscape(std::string& out, unsigned char byte) {
    switch (byte) {
        case '"':
            out.append("\\\"");
            return;
        case '\\':
            out.append("\\\\");
            return;
        case '/':
            out.append("\\/");
            return;
        case '\b':
            out.append("\\b");
            return;
        case '\f':
            out.append("\\f");
            return;
        case '\n':
            out.append("\\n");
            return;
        case '\r':
            out.append("\\r");
            return;
        case '\t':
            out.append("\\t");
            return;
        default:
            break;
    }
    constexpr std::string_view kHexDigits = "0123456789abcdef";
    const char escape[] = {'\\', 'u', '0', '0', kHexDigits[byte >> 4], kHexDigits[byte & 0x0F]};
    out.append(escape, sizeof escape);
}

}  // namespace

bool appendJSONString(std::string& out, std::string_view text) {
    const std::size_t originalSize = out.size();
    out.reserve(originalSize + text.size() + 2);
    out.push_back('"');
    // Bytes that need no escape are copied in runs, one append per run.
    std::size_t runStart = 0;
    std::size_t index = 0;
    while (index < text.size()) {
        const auto byte = static_cast<unsigned char>(text[index]);
        switch (kByteClasses[byte]) {
            case ByteClass::plain:
                ++index;
                break;
            case ByteClass::multiByte: {
                const utf8::Sequence sequence = utf8::sequenceAt(text.substr(index));
                if (!sequence.wellFormed) {
                    out.resize(originalSize);
                    return false;
                }
                index += sequence.length;
                break;
            }
            case ByteClass::escaped:
                out.append(text.data() + runStart, index - runStart);
                appendEscape(out, byte);
                runStart = ++index;
                break;
        }
    }
    out.append(text.data() + runStart, text.size() - runStart);
    out.push_back('"');
    return true;
}

}  // namespace kerrow
