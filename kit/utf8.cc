#include "kit/utf8.h"

#include <cstdint>

namespace kerrow {

bool isValidUTF8(std::string_view text) {
    const auto* byte = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto* const end = byte + text.size();
    while (byte != end) {
        // ASCII runs are the common case: skip them eight bytes at a time.
        while (end - byte >= 8) {
            std::uint64_t block;
            __builtin_memcpy(&block, byte, 8);
            if ((block & 0x8080808080808080ULL) != 0) {
                break;
            }
            byte += 8;
        }
        if (byte == end) {
            break;
        }
        const std::uint8_t lead = *byte;
        if (lead < 0x80) {
            ++byte;
            continue;
        }
        int continuation = 0;
        std::uint8_t low = 0x80;  // allowed range of the first continuation byte
        std::uint8_t high = 0xBF;
        if (lead >= 0xC2 && lead <= 0xDF) {
            continuation = 1;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            continuation = 2;
            low = lead == 0xE0 ? 0xA0 : 0x80;   // no overlong forms
            high = lead == 0xED ? 0x9F : 0xBF;  // no surrogates
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            continuation = 3;
            low = lead == 0xF0 ? 0x90 : 0x80;   // no overlong forms
            high = lead == 0xF4 ? 0x8F : 0xBF;  // nothing above U+10FFFF
        } else {
            return false;
        }
        if (end - byte <= continuation || byte[1] < low || byte[1] > high) {
            return false;
        }
        for (int index = 2; index <= continuation; ++index) {
            if ((byte[index] & 0xC0) != 0x80) {
                return false;
            }
        }
        byte += continuation + 1;
    }
    return true;
}

}  // namespace kerrow
