// Writing and removing one manifest file. Plain functions; any thread, one file at a time.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string_view>

namespace kerrow::installer {

/// Creates the missing folders of `directory` with exactly `mode` (whatever the umask).
/// Throws std::system_error naming the folder that could not be made.
void createDirectories(const std::filesystem::path& directory, mode_t mode);

/// Replaces `path` with `text` atomically: a reader sees the old file or the new one, never a
/// part. The new file has exactly `mode`. A temporary file in the same folder is removed on
/// failure. Throws std::system_error naming the failed call and file.
void writeFileAtomically(const std::filesystem::path& path, std::string_view text, mode_t mode);

/// Removes `path`; false when it did not exist. Throws std::system_error on any other failure.
bool removeFile(const std::filesystem::path& path);

}  // namespace kerrow::installer
