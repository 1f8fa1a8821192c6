// Fuzzes NativeHostMessage::fromJSONString, the decoder of the envelope of the extension's
// messages. Whatever it accepts must write back out as JSON text that decodes to the same
// message; nothing may crash, throw or recurse without bound.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "model/native_host_message.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto message = kerrow::NativeHostMessage::fromJSONString(text);
    if (!message) {
        return 0;
    }
    const auto written = message->toJSONString();
    if (!written) {
        return 0;  // a text that is not UTF-8 inside the message: refused on the way out
    }
    const auto reread = kerrow::NativeHostMessage::fromJSONString(*written);
    if (!reread || *reread != *message || reread->toJSONString() != written) {
        std::abort();
    }
    return 0;
}
