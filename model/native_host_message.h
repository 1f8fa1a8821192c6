// NativeHostMessage: the envelope of every message the host writes to the browser extension, a
// type tag and a payload. A plain value with no shared state: build, copy and code it on any
// thread; each text operation works on its own buffers.
//
// JSON: {"action":<raw value of type>,"payload":<payload object>}, compact, members in field
// order, "/" written as "\/". The type and the payload's case are independent fields: encoding
// writes the payload by its own case, decoding chooses the case by the type.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "model/native_host_message_payload.h"
#include "model/native_host_message_type.h"

namespace kerrow {

struct NativeHostMessage {
    NativeHostMessageType type;
    NativeHostMessagePayload payload;

    /// The envelope as compact JSON text, or nullopt when a text in it is not UTF-8 or a login
    /// date lies outside the years 0000 to 9999.
    [[nodiscard]] std::optional<std::string> toJSONString() const;

    /// The message in `text`, or nullopt when the text is not JSON, nests arrays and objects
    /// deeper than kMaxNestingDepth, or is not a complete envelope. Never throws.
    [[nodiscard]] static std::optional<NativeHostMessage> fromJSONString(std::string_view text);

    /// Reads an envelope object: "action" a string naming one of the types, then the payload
    /// that type calls for. Members the model does not know are ignored. Never throws.
    [[nodiscard]] static std::optional<NativeHostMessage> decode(const nlohmann::json& value);

    /// Far deeper than any envelope (four levels), and shallow enough that no recursive walk of
    /// a parsed value can run out of stack.
    static constexpr int kMaxNestingDepth = 512;

    bool operator==(const NativeHostMessage&) const = default;
};

}  // namespace kerrow
