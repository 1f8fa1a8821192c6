#include "kit/utf8.h"

namespace kerrow {

namespace utf8 {

namespace {

constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";

}  // namespace

Sequence sequenceAt(std::string_view bytes) {
    const auto byteAt = [bytes](std::size_t index) {
        return static_cast<unsigned char>(bytes[index]);
    };
    const unsigned char lead = byteAt(0);
    if (lead < 0x80) {
        return {1, true};
    }
    // The lead byte fixes how many continuation bytes follow and narrows the range of the first
    // one; that narrowing is what rules out overlong forms, surrogates and values past U+10FFFF.
    std::size_t continuations = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        continuations = 1;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        continuations = 2;
        low = lead == 0xE0 ? 0xA0 : 0x80;
        high = lead == 0xED ? 0x9F : 0xBF;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        continuations = 3;
        low = lead == 0xF0 ? 0x90 : 0x80;
        high = lead == 0xF4 ? 0x8F : 0xBF;
    } else {
        return {1, false};
    }
    std::size_t length = 1;
    for (; length <= continuations; ++length) {
        if (length == bytes.size() || byteAt(length) < low || byteAt(length) > high) {
            return {length, false};
        }
        low = 0x80;
        high = 0xBF;
    }
    return {length, true};
}

std::string repaired(std::string_view bytes) {
    std::string text;
    text.reserve(bytes.size());
    std::size_t runStart = 0;
    std::size_t index = 0;
    while (index < bytes.size()) {
        if (static_cast<unsigned char>(bytes[index]) < 0x80) {
            ++index;
            continue;
        }
        const Sequence sequence = sequenceAt(bytes.substr(index));
        if (!sequence.wellFormed) {
            text.append(bytes.substr(runStart, index - runStart));
            text.append(kReplacementCharacter);
            runStart = index + sequence.length;
        }
        index += sequence.length;
    }
    text.append(bytes.substr(runStart));
    return text;
}

}  // namespace utf8

bool isValidUTF8(std::string_view text) {
    std::size_t index = 0;
    while (index < text.size()) {
        if (static_cast<unsigned char>(text[index]) < 0x80) {
            ++index;
            continue;
        }
        const utf8::Sequence sequence = utf8::sequenceAt(text.substr(index));
        if (!sequence.wellFormed) {
            return false;
        }
        index += sequence.length;
    }
    return true;
}

}  // namespace kerrow
