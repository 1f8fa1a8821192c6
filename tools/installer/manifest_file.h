// Writing, reading and removing one manifest file. Plain functions; any thread, one file at a time.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kerrow::installer {

/// Creates the missing folders of `directory` with exactly `mode` (whatever the umask).
/// Throws std::system_error naming the folder that could not be made.
void createDirectories(const std::filesystem::path& directory, mode_t mode);

/// Replaces `path` with `text` atomically: a reader sees the old file or the new one, never a
/// part. The new file has exactly `mode`. A temporary file in the same folder is removed on
/// failure. Throws std::system_error naming the failed call and file.
void writeFileAtomically(const std::filesystem::path& path, std::string_view text, mode_t mode);

/// The whole file, or no value when it cannot be read.
[[nodiscard]] std::optional<std::string> readText(const std::filesystem::path& path);

/// `parts` with `separator` between them, for messages.
[[nodiscard]] std::string joined(const std::vector<std::string>& parts, std::string_view separator);

/// Removes `path`; false when it did not exist. Throws std::system_error on any other failure.
bool removeFile(const std::filesystem::path& path);

}  // namespace kerrow::installer
