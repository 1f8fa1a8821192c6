// Confinement: the kernel's limits on what the running host may still do, applied once start-up
// has opened what it needs. Three layers, each for good and inherited by every thread started
// afterwards:
//  - no_new_privs: no program the host could start gains privileges (set-user-ID, file
//    capabilities); it is also what lets an unprivileged process use the other two.
//  - Landlock, best effort by the kernel's ABI: every file-system right the ABI knows is handled,
//    and only the logs directory is allowed (read, write, create, remove and rename files: the log
//    and its rotation). Landlock does not govern stat(), and connect() to a pathname Unix socket
//    only from ABI 9, a right this code leaves unhandled: the socket trust checks and the connects
//    to the core service and the session bus need no rule. ABI 4: TCP bind and connect are denied.
//    ABI 6: signals to processes outside the domain are refused, and so are abstract Unix sockets,
//    unless the session bus itself is one (DBUS_SESSION_BUS_ADDRESS names "abstract="). Landlock
//    confines only the calling thread and the threads it starts afterwards: call this before any
//    other thread exists. A thread found running is reported (it still gets the filter).
//  - seccomp: a filter program built here (a binary search over the denied numbers, so every
//    allowed call costs a few comparisons): every system call is allowed except a deny list that
//    fails with EPERM (never a kill, so a library that probes one goes on). The filter is
//    synchronised to every thread of the process (TSYNC). What is denied, and why:
//      execve, execveat               the host never starts a program; code that took it over would
//      ptrace, process_vm_readv/writev, pidfd_getfd
//                                     reading or steering other processes of the user
//      mount, umount2, pivot_root, chroot, move_mount, open_tree, fsopen, fsmount, fsconfig,
//      fspick, mount_setattr, unshare, setns
//                                     changing the view of the file system, or entering namespaces
//                                     where that would be allowed
//      name_to_handle_at, open_by_handle_at
//                                     opening files by handle, around the path checks
//      bpf, perf_event_open, userfaultfd
//                                     the usual kernel attack surface; the host uses none of it
//      io_uring_setup, io_uring_enter, io_uring_register
//                                     ring operations are not seen by this filter (sockets of
//                                     any family, among them)
//      keyctl, add_key, request_key   the user's kernel keyrings
//      kexec_load, kexec_file_load, init_module, finit_module, delete_module, reboot, swapon,
//      swapoff, iopl, ioperm          the system itself, for a host run by root
//      socket, socketpair             for every family but AF_UNIX: no IPv4, IPv6, netlink, ...
//    iopl and ioperm exist on x86 only. clone and clone3 stay allowed (threads need them). A system
//    call of another ABI (i386 or x32 on x86-64) ends the process: the host never makes one. On an
//    architecture the filter does not know (x86-64, AArch64, RISC-V 64, ppc64le, s390x) it is not
//    applied, and a note says so.
// Under Valgrind, which knows neither Landlock's nor seccomp's system calls, nothing is applied
// (and that is the one note). Stateless; call from the main thread, once, before any other thread
// starts.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace kerrow {

/// What the confined process may still reach on the file system.
struct ConfinementRules {
    /// Files beneath it may be read, written, created, removed and renamed; none: no directory.
    std::optional<std::filesystem::path> logsDirectory;
};

/// The Landlock ABI version of the running kernel; 0 when it has none or it is disabled.
[[nodiscard]] int landlockAbiVersion();

/// Applies the three layers to the calling process. Never throws: returns one line for each part
/// that could not be applied (for the log, as information), none when the process is confined
/// in full.
[[nodiscard]] std::vector<std::string> confineProcess(const ConfinementRules& rules);

}  // namespace kerrow
