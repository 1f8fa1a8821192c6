#include "kit/file_handle_write.h"

namespace kerrow {

void write(FileHandle& handle, std::string_view text) {
    handle.writeData({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

}  // namespace kerrow
