#include "tests/faults/fault_support.h"

#include <fcntl.h>

#include <algorithm>
#include <fstream>

namespace kerrow::test {

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

}  // namespace kerrow::test
