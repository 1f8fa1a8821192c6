// UTF-8 sequence checking for the message model: the JSON writer uses it to refuse texts that are
// not UTF-8, and login records use it to repair the raw bytes of the login accounting. Pure
// functions, any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kerrow::utf8 {

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

}  // namespace kerrow::utf8
