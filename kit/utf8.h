// UTF-8 checking and repair for texts that cross the host's boundaries: texts that arrive from
// outside are validated, JSON writers refuse texts that are not UTF-8, and raw bytes from the
// login accounting are repaired. Pure functions, any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kerrow {

/// True when `text` is well-formed UTF-8: no overlong forms, no surrogates, nothing above
/// U+10FFFF, no truncated sequence.
[[nodiscard]] bool isValidUTF8(std::string_view text);

namespace utf8 {

/// What starts a byte text: either one well-formed sequence of `length` bytes, or an ill-formed
/// one whose maximal subpart is `length` bytes (at least 1). Well-formed excludes overlong forms,
/// surrogates (U+D800..U+DFFF), anything above U+10FFFF and truncated sequences.
struct Sequence {
    std::size_t length;
    bool wellFormed;
};

/// REQUIRES: `bytes` is not empty.
[[nodiscard]] Sequence sequenceAt(std::string_view bytes);

/// `bytes` with every maximal ill-formed subpart replaced by one U+FFFD; well-formed sequences
/// are kept byte for byte.
[[nodiscard]] std::string repaired(std::string_view bytes);

}  // namespace utf8

}  // namespace kerrow
