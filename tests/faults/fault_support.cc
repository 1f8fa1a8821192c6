#include "tests/faults/fault_support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "tests/e2e/host_session.h"

namespace kerrow::test {
namespace {

std::int64_t statusField(pid_t pid, std::string_view field) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(field) && line.size() > field.size() && line[field.size()] == ':') {
            return std::stoll(line.substr(field.size() + 1));
        }
    }
    return 0;
}

}  // namespace

std::int64_t residentKilobytes(pid_t pid) {
    return statusField(pid, "VmRSS");
}

std::int64_t peakResidentKilobytes(pid_t pid) {
    return statusField(pid, "VmHWM");
}

std::chrono::milliseconds processorTime(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    // The command name may hold spaces and parentheses; the fields count from its last ")".
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::vector<std::string> values{std::istream_iterator<std::string>(fields), {}};
    if (values.size() < 13) {
        return std::chrono::milliseconds(0);
    }
    const auto ticks = std::stoll(values[11]) + std::stoll(values[12]);  // utime, stime
    return std::chrono::milliseconds(ticks * 1000 / ::sysconf(_SC_CLK_TCK));
}

std::vector<OpenDescriptor> openDescriptors(pid_t pid) {
    std::vector<OpenDescriptor> descriptors;
    const std::filesystem::path proc = "/proc/" + std::to_string(pid);
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(proc / "fd", error)) {
        OpenDescriptor descriptor{std::stoi(entry.path().filename().string()), 0, ""};
        descriptor.target = std::filesystem::read_symlink(entry.path(), error).string();
        std::ifstream info(proc / "fdinfo" / entry.path().filename());
        for (std::string line; std::getline(info, line);) {
            if (line.starts_with("flags:")) {
                descriptor.flags = static_cast<unsigned>(std::stoul(line.substr(6), nullptr, 8));
            }
        }
        descriptors.push_back(descriptor);
    }
    std::sort(descriptors.begin(), descriptors.end(),
              [](const auto& a, const auto& b) { return a.number < b.number; });
    return descriptors;
}

std::vector<pid_t> childProcesses(pid_t pid) {
    std::vector<pid_t> children;
    std::error_code error;
    const std::filesystem::path tasks = "/proc/" + std::to_string(pid) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
        std::ifstream list(task.path() / "children");
        for (pid_t child = 0; list >> child;) {
            children.push_back(child);
        }
    }
    return children;
}

void markInheritedDescriptorsCloseOnExec() {
    for (const auto& descriptor : openDescriptors(::getpid())) {
        if (descriptor.number > 2) {
            ::fcntl(descriptor.number, F_SETFD, FD_CLOEXEC);
        }
    }
}

bool waitForConnections(const HostSession& session, long count, Duration timeout) {
    return waitUntil(
        [&] {
            const auto lines = session.logMessages();
            return std::count(lines.begin(), lines.end(),
                              "info Established a Connection in host-to-core service") >= count;
        },
        timeout);
}

std::string lengthPrefix(std::uint32_t length) {
    return {static_cast<char>(length & 0xFF), static_cast<char>((length >> 8) & 0xFF),
            static_cast<char>((length >> 16) & 0xFF), static_cast<char>((length >> 24) & 0xFF)};
}

FrameCollector::FrameCollector(int fd, std::size_t expected, Duration idle,
                               std::function<bool(const std::string&)> isLast)
    : reader_([this, fd, expected, idle, isLast = std::move(isLast)] {
          while (frames_.size() < expected) {
              auto next = readFrameFrom(fd, idle);
              if (!next) {
                  break;
              }
              frames_.push_back(std::move(*next));
              if (isLast && isLast(frames_.back())) {
                  break;
              }
          }
          finished_ = true;
      }) {}

FrameCollector::~FrameCollector() {
    reader_.join();
}

bool FrameCollector::wait(Duration timeout) {
    return waitUntil([this] { return finished(); }, timeout);
}

HostileCore::HostileCore(const std::filesystem::path& directory,
                         const std::filesystem::path& socketPath, const Options& options)
    : process_(
          KERROW_HOSTILE_CORE_BINARY,
          {socketPath.string(), options.socketOwner ? std::to_string(*options.socketOwner) : "-",
           options.listenAs ? std::to_string(*options.listenAs) : "-", options.command},
          {}, directory / "hostile-core.stderr") {}

bool HostileCore::waitUntilListening(Duration timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (output_.find("listening\n") == std::string::npos) {
        const auto left =
            std::chrono::duration_cast<Duration>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        const std::string next = readExactly(process_.outputFd(), 1, left);
        if (next.empty()) {
            return false;
        }
        output_ += next;
    }
    return true;
}

int HostileCore::acceptedConnections() {
    output_ += readToEnd(process_.outputFd(), Duration(50));
    int count = 0;
    for (std::size_t at = output_.find("accepted\n"); at != std::string::npos;
         at = output_.find("accepted\n", at + 1)) {
        ++count;
    }
    return count;
}

}  // namespace kerrow::test
