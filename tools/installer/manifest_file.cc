#include "tools/installer/manifest_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace kerrow::installer {
namespace {

[[noreturn]] void fail(std::string_view call, const std::filesystem::path& path) {
    throw std::system_error(errno, std::generic_category(),
                            std::string(call) + " " + path.string());
}

// The temporary file beside the manifest: closed, and removed unless it was renamed into place.
class TemporaryFile {
  public:
    explicit TemporaryFile(const std::filesystem::path& target)
        : path_(target.parent_path() / ("." + target.filename().string() + ".XXXXXX")) {
        std::string pattern = path_.string();
        fd_ = ::mkstemp(pattern.data());
        if (fd_ < 0) {
            fail("mkstemp", path_);
        }
        path_ = pattern;
    }
    ~TemporaryFile() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        if (!committed_) {
            ::unlink(path_.c_str());
        }
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    void write(std::string_view text) {
        while (!text.empty()) {
            const ssize_t written = ::write(fd_, text.data(), text.size());
            if (written < 0 && errno == EINTR) {
                continue;
            }
            if (written < 0) {
                fail("write", path_);
            }
            text.remove_prefix(static_cast<std::size_t>(written));
        }
    }

    /// Sets the mode, flushes to disk and renames the file to `target`.
    void commit(const std::filesystem::path& target, mode_t mode) {
        if (::fchmod(fd_, mode) != 0) {
            fail("chmod", path_);
        }
        if (::fsync(fd_) != 0) {
            fail("fsync", path_);
        }
        const int fd = std::exchange(fd_, -1);
        if (::close(fd) != 0) {
            fail("close", path_);
        }
        if (::rename(path_.c_str(), target.c_str()) != 0) {
            fail("rename", target);
        }
        committed_ = true;
    }

  private:
    std::filesystem::path path_;
    int fd_ = -1;
    bool committed_ = false;
};

}  // namespace

void createDirectories(const std::filesystem::path& directory, mode_t mode) {
    std::vector<std::filesystem::path> missing;
    for (std::filesystem::path folder = directory; !folder.empty(); folder = folder.parent_path()) {
        struct stat status {};
        if (::stat(folder.c_str(), &status) == 0) {
            if (!S_ISDIR(status.st_mode)) {
                errno = ENOTDIR;
                fail("mkdir", folder);
            }
            break;
        }
        if (errno != ENOENT) {
            fail("stat", folder);
        }
        missing.push_back(folder);
        if (folder == folder.parent_path()) {
            break;
        }
    }
    for (auto folder = missing.rbegin(); folder != missing.rend(); ++folder) {
        if (::mkdir(folder->c_str(), mode) == 0) {
            if (::chmod(folder->c_str(), mode) != 0) {
                fail("chmod", *folder);
            }
        } else if (errno != EEXIST) {
            fail("mkdir", *folder);
        }
    }
}

void writeFileAtomically(const std::filesystem::path& path, std::string_view text, mode_t mode) {
    TemporaryFile file(path);
    file.write(text);
    file.commit(path, mode);
}

std::optional<std::string> readText(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream) {
        return std::nullopt;
    }
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

std::string joined(const std::vector<std::string>& parts, std::string_view separator) {
    std::string text;
    for (const auto& part : parts) {
        text += (text.empty() ? "" : std::string(separator)) + part;
    }
    return text;
}

bool removeFile(const std::filesystem::path& path) {
    if (::unlink(path.c_str()) == 0) {
        return true;
    }
    if (errno == ENOENT) {
        return false;
    }
    fail("unlink", path);
}

}  // namespace kerrow::installer
