#include "platform/confinement.h"

#include <dirent.h>
#include <fcntl.h>
#include <seccomp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "platform/descriptor.h"

#if __has_include(<valgrind/valgrind.h>)
#include <valgrind/valgrind.h>
#endif

namespace kerrow {
namespace {

// The Landlock ABI, spelled out here because the system's <linux/landlock.h> may be older than
// the kernel. These values are the kernel's stable user-space interface.
struct LandlockRulesetAttr {
    std::uint64_t handledAccessFs;
    std::uint64_t handledAccessNet;  // ABI 4
    std::uint64_t scoped;            // ABI 6
};

struct __attribute__((packed)) LandlockPathBeneathAttr {
    std::uint64_t allowedAccess;
    std::int32_t parentFd;
};

constexpr unsigned createRulesetVersion = 1U << 0;
constexpr int rulePathBeneath = 1;

namespace fs {
constexpr std::uint64_t writeFile = 1ULL << 1;
constexpr std::uint64_t readFile = 1ULL << 2;
constexpr std::uint64_t readDir = 1ULL << 3;
constexpr std::uint64_t removeFile = 1ULL << 5;
constexpr std::uint64_t makeReg = 1ULL << 8;
constexpr std::uint64_t abi1 = (1ULL << 13) - 1;  // bits 0 (execute) to 12 (make a symlink)
constexpr std::uint64_t refer = 1ULL << 13;       // ABI 2
constexpr std::uint64_t truncate = 1ULL << 14;    // ABI 3
constexpr std::uint64_t ioctlDev = 1ULL << 15;    // ABI 5
}  // namespace fs

constexpr std::uint64_t netBindTcp = 1ULL << 0;               // ABI 4
constexpr std::uint64_t netConnectTcp = 1ULL << 1;            // ABI 4
constexpr std::uint64_t scopeAbstractUnixSocket = 1ULL << 0;  // ABI 6
constexpr std::uint64_t scopeSignal = 1ULL << 1;              // ABI 6

// Every file-system right of `abi` that this code knows. Rights of later ABIs stay unhandled,
// and so allowed: ABI 9's control of connect() to pathname Unix sockets among them, which the
// host needs for the core service and the session bus.
std::uint64_t handledFileRights(int abi) {
    std::uint64_t rights = fs::abi1;
    if (abi >= 2) {
        rights |= fs::refer;
    }
    if (abi >= 3) {
        rights |= fs::truncate;
    }
    if (abi >= 5) {
        rights |= fs::ioctlDev;
    }
    return rights;
}

// The log and its rotation: open for appending, create, rename within the directory (a removal
// and a creation; no reparenting), remove, and read back for the trust checks.
constexpr std::uint64_t logRights =
    fs::readFile | fs::writeFile | fs::readDir | fs::removeFile | fs::makeReg | fs::truncate;

std::string errorText(const char* what, int error) {
    return std::string(what) + ": " + std::strerror(error);
}

// The session bus reached through an abstract socket must stay reachable: the host reconnects
// to it when it is lost.
bool sessionBusIsAbstract() {
    // Read on the main thread before any other thread exists, so nobody changes it meanwhile.
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");  // NOLINT(concurrency-mt-unsafe)
    return address != nullptr &&
           std::string_view(address).find("abstract=") != std::string_view::npos;
}

struct DirectoryClose {
    void operator()(DIR* directory) const { ::closedir(directory); }
};

int runningThreads() {
    const std::unique_ptr<DIR, DirectoryClose> tasks(::opendir("/proc/self/task"));
    int count = 0;
    while (tasks) {
        const dirent* entry = ::readdir(tasks.get());  // NOLINT(concurrency-mt-unsafe): own stream
        if (entry == nullptr) {
            break;
        }
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    return count;
}

// Adds the log directory's rule; a missing directory allows nothing (the log is on standard
// error then, already open).
void allowLogsDirectory(int ruleset, const ConfinementRules& rules, std::uint64_t handled,
                        std::vector<std::string>& notes) {
    if (!rules.logsDirectory) {
        return;
    }
    const Descriptor directory(
        ::open(rules.logsDirectory->c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory) {
        return;
    }
    LandlockPathBeneathAttr beneath{logRights & handled, directory.get()};
    if (::syscall(SYS_landlock_add_rule, ruleset, rulePathBeneath, &beneath, 0) != 0) {
        notes.push_back(errorText("Landlock: could not allow the logs directory", errno));
    }
}

void restrictWithLandlock(const ConfinementRules& rules, std::vector<std::string>& notes) {
    const int abi = landlockAbiVersion();
    if (abi <= 0) {
        notes.emplace_back("Landlock is not available on this kernel: files and network stay open");
        return;
    }
    LandlockRulesetAttr attributes{handledFileRights(abi), 0, 0};
    std::size_t size = sizeof attributes.handledAccessFs;
    if (abi >= 4) {
        attributes.handledAccessNet = netBindTcp | netConnectTcp;
        size = offsetof(LandlockRulesetAttr, scoped);
    }
    if (abi >= 6) {
        attributes.scoped = scopeSignal | (sessionBusIsAbstract() ? 0 : scopeAbstractUnixSocket);
        size = sizeof attributes;
    }
    const Descriptor ruleset(
        static_cast<int>(::syscall(SYS_landlock_create_ruleset, &attributes, size, 0)));
    if (!ruleset) {
        notes.push_back(errorText("Landlock: could not create the ruleset", errno));
        return;
    }
    allowLogsDirectory(ruleset.get(), rules, attributes.handledAccessFs, notes);
    if (const int threads = runningThreads(); threads > 1) {
        notes.push_back("Landlock: threads started before it are not restricted by it (" +
                        std::to_string(threads - 1) + ")");
    }
    if (::syscall(SYS_landlock_restrict_self, ruleset.get(), 0) != 0) {
        notes.push_back(errorText("Landlock: could not restrict the host", errno));
    }
}

struct FilterRelease {
    void operator()(void* filter) const { seccomp_release(filter); }
};

// In the groups of the header, which says why each is there.
// clang-format off
constexpr std::array deniedSystemCalls = {
    "execve", "execveat",
    "ptrace", "process_vm_readv", "process_vm_writev", "pidfd_getfd",
    "mount", "umount2", "pivot_root", "chroot", "move_mount", "open_tree", "fsopen", "fsmount",
    "fsconfig", "fspick", "mount_setattr", "unshare", "setns",
    "name_to_handle_at", "open_by_handle_at",
    "bpf", "perf_event_open", "userfaultfd",
    "io_uring_setup", "io_uring_enter", "io_uring_register",
    "keyctl", "add_key", "request_key",
    "kexec_load", "kexec_file_load", "init_module", "finit_module", "delete_module", "reboot",
    "swapon", "swapoff", "iopl", "ioperm",
};
// clang-format on

void filterSystemCalls(std::vector<std::string>& notes) {
    const std::unique_ptr<void, FilterRelease> filter(seccomp_init(SCMP_ACT_ALLOW));
    if (!filter) {
        notes.emplace_back("seccomp: could not build the filter");
        return;
    }
    int r = seccomp_attr_set(filter.get(), SCMP_FLTATR_CTL_TSYNC, 1);
    // Every system call of the host passes the filter: a binary tree of the numbers keeps that
    // to a few comparisons instead of one per rule. Best effort: older kernels take a list.
    seccomp_attr_set(filter.get(), SCMP_FLTATR_CTL_OPTIMIZE, 2);
    for (const char* name : deniedSystemCalls) {
        const int number = seccomp_syscall_resolve_name(name);
        if (r == 0 && number != __NR_SCMP_ERROR) {
            r = seccomp_rule_add(filter.get(), SCMP_ACT_ERRNO(EPERM), number, 0);
        }
    }
    for (const int call : {SCMP_SYS(socket), SCMP_SYS(socketpair)}) {
        if (r == 0) {
            r = seccomp_rule_add(filter.get(), SCMP_ACT_ERRNO(EPERM), call, 1,
                                 SCMP_A0(SCMP_CMP_NE, AF_UNIX));
        }
    }
    if (r == 0) {
        r = seccomp_load(filter.get());
    }
    if (r != 0) {
        notes.push_back(errorText("seccomp: could not filter the system calls", -r));
    }
}

// Valgrind runs the program's system calls itself and knows neither Landlock's nor seccomp's.
bool underValgrind() {
#ifdef RUNNING_ON_VALGRIND
    return RUNNING_ON_VALGRIND != 0;
#else
    return false;
#endif
}

}  // namespace

int landlockAbiVersion() {
    const long abi = ::syscall(SYS_landlock_create_ruleset, nullptr, 0, createRulesetVersion);
    return abi > 0 ? static_cast<int>(abi) : 0;
}

std::vector<std::string> confineProcess(const ConfinementRules& rules) {
    std::vector<std::string> notes;
    if (underValgrind()) {
        notes.emplace_back("Valgrind runs the host, which it cannot confine: not confined");
        return notes;
    }
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        notes.push_back(errorText("no_new_privs could not be set", errno));
        return notes;  // neither layer below can be applied without it
    }
    restrictWithLandlock(rules, notes);
    filterSystemCalls(notes);
    return notes;
}

}  // namespace kerrow
