#include "platform/confinement.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
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

// In the groups of the header, which says why each is there. iopl and ioperm exist on x86 only.
// clang-format off
constexpr std::array deniedSystemCalls = {
    __NR_execve, __NR_execveat,
    __NR_ptrace, __NR_process_vm_readv, __NR_process_vm_writev, __NR_pidfd_getfd,
    __NR_mount, __NR_umount2, __NR_pivot_root, __NR_chroot, __NR_move_mount, __NR_open_tree,
    __NR_fsopen, __NR_fsmount, __NR_fsconfig, __NR_fspick, __NR_mount_setattr, __NR_unshare,
    __NR_setns,
    __NR_name_to_handle_at, __NR_open_by_handle_at,
    __NR_bpf, __NR_perf_event_open, __NR_userfaultfd,
    __NR_io_uring_setup, __NR_io_uring_enter, __NR_io_uring_register,
    __NR_keyctl, __NR_add_key, __NR_request_key,
    __NR_kexec_load, __NR_kexec_file_load, __NR_init_module, __NR_finit_module,
    __NR_delete_module, __NR_reboot, __NR_swapon, __NR_swapoff,
#if defined(__NR_iopl) && defined(__NR_ioperm)
    __NR_iopl, __NR_ioperm,
#endif
    // Denied for every family but AF_UNIX:
    __NR_socket, __NR_socketpair,
};
// clang-format on

#if defined(__x86_64__)
constexpr std::uint32_t filterArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr std::uint32_t filterArchitecture = AUDIT_ARCH_AARCH64;
#elif defined(__riscv) && __riscv_xlen == 64
constexpr std::uint32_t filterArchitecture = AUDIT_ARCH_RISCV64;
#elif defined(__powerpc64__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
constexpr std::uint32_t filterArchitecture = AUDIT_ARCH_PPC64LE;
#elif defined(__s390x__)
constexpr std::uint32_t filterArchitecture = AUDIT_ARCH_S390X;
#else
constexpr std::uint32_t filterArchitecture = 0;  // no filter: the notes say so
#endif

sock_filter statement(std::uint16_t code, std::uint32_t k) {
    return BPF_STMT(code, k);
}

sock_filter jump(std::uint16_t code, std::uint32_t k) {
    return BPF_JUMP(code, k, 0, 0);
}

// The program's ends, which every lookup jumps to; their offsets are set once it is laid out.
enum class End : std::uint8_t { none, checkFamily, allow, refuse };

struct Step {
    sock_filter instruction;
    End jumpTo = End::none;  // a JEQ's branch when equal, or a JA's target
};

// A binary search of the sorted numbers, the system call number being in the accumulator. The
// kernel runs the filter for every system call number once when it is loaded (to find those it
// always allows), and every system call the host makes passes it: a search costs a few
// comparisons where a list costs one per denied number, and a shared end for each outcome keeps
// the program short.
void search(std::span<const int> sorted, std::vector<Step>& steps) {
    if (sorted.size() <= 4) {
        for (const int number : sorted) {
            const bool family = number == __NR_socket || number == __NR_socketpair;
            steps.push_back({jump(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(number)),
                             family ? End::checkFamily : End::refuse});
        }
        steps.push_back({statement(BPF_JMP | BPF_JA, 0), End::allow});
        return;
    }
    const std::size_t middle = sorted.size() / 2;
    const std::size_t node = steps.size();
    steps.push_back({jump(BPF_JMP | BPF_JGE | BPF_K, static_cast<std::uint32_t>(sorted[middle]))});
    search(sorted.first(middle), steps);
    steps[node].instruction.jt = static_cast<std::uint8_t>(steps.size() - node - 1);
    search(sorted.subspan(middle), steps);
}

// The whole program: a system call of another ABI (another architecture, or x32 on x86-64) ends
// the process, as the host never makes one; then the search, then its ends: socket() and
// socketpair() are allowed for AF_UNIX only (their first argument, an int: the low half of the
// 64-bit argument), every other denied number fails with EPERM.
std::vector<sock_filter> filterProgram() {
    const sock_filter kill = statement(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS);
    sock_filter sameArchitecture = jump(BPF_JMP | BPF_JEQ | BPF_K, filterArchitecture);
    sameArchitecture.jt = 1;
    std::vector<Step> steps{{statement(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch))},
                            {sameArchitecture},
                            {kill},
                            {statement(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))}};
#if defined(__x86_64__)
    sock_filter x32 = jump(BPF_JMP | BPF_JGE | BPF_K, __X32_SYSCALL_BIT);
    x32.jf = 1;
    steps.push_back({x32});
    steps.push_back({kill});
#endif
    std::array sorted = deniedSystemCalls;
    std::sort(sorted.begin(), sorted.end());
    search(sorted, steps);

    constexpr std::size_t lowHalf =
        offsetof(seccomp_data, args) + (__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? 0 : 4);
    const std::size_t checkFamily = steps.size();
    sock_filter unixFamily = jump(BPF_JMP | BPF_JEQ | BPF_K, AF_UNIX);
    unixFamily.jf = 1;
    steps.push_back({statement(BPF_LD | BPF_W | BPF_ABS, lowHalf)});
    steps.push_back({unixFamily});
    steps.push_back({statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)});
    steps.push_back({statement(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM)});

    std::vector<sock_filter> program;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        sock_filter instruction = steps[i].instruction;
        if (steps[i].jumpTo != End::none) {
            const std::size_t target = steps[i].jumpTo == End::checkFamily ? checkFamily
                                       : steps[i].jumpTo == End::allow     ? checkFamily + 2
                                                                           : checkFamily + 3;
            const std::size_t offset = target - (i + 1);
            if (BPF_OP(instruction.code) == BPF_JA) {
                instruction.k = static_cast<std::uint32_t>(offset);
            } else {
                instruction.jt = static_cast<std::uint8_t>(offset);  // under 100 steps: it fits
            }
        }
        program.push_back(instruction);
    }
    return program;
}

void filterSystemCalls(std::vector<std::string>& notes) {
    if (filterArchitecture == 0) {
        notes.emplace_back("seccomp: no filter is known for this architecture");
        return;
    }
    std::vector<sock_filter> program = filterProgram();
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    if (::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_TSYNC, &filter) != 0) {
        notes.push_back(errorText("seccomp: could not filter the system calls", errno));
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
