// What the stage program and the handset agree on.

#pragma once

#include <sys/syscall.h>

namespace handset {

// Messages of the stage: one byte of kind, then text; kFuse and kTraps carry a descriptor. The last
// one is kTraps, kUntrapped or kFailed (the text says why).
enum class StageMessage : char { kFuse = 'F', kTraps = 'T', kUntrapped = 'U', kFailed = 'E' };

// What the phone's processes are kept from doing alone: nothing, the trapped calls, these and the
// calls that Handset::fail makes fail, or all that can fail.
enum class StageTraps { kNone, kCalls, kCallsAndFaults, kEveryCall };

constexpr int kStageSocket = 3;  // the stage's descriptor of the handset

constexpr char kNodesFolder[] = "/.nodes";  // where the FUSE file system is mounted in the root
constexpr char kRealProc[] = "/.proc";      // the host's procfs in the root

// System calls that the handset sees, each of every process in the phone; reads only in this size.
constexpr int kTrappedCalls[] = {SYS_statfs,          SYS_openat,       SYS_ioctl,
                                 SYS_clock_nanosleep, SYS_sync,         SYS_write,
                                 SYS_init_module,     SYS_finit_module, SYS_delete_module};

// Calls that are trapped for the journal, and are the kernel's unless they are made to fail.
constexpr int kJournalCalls[] = {
    SYS_writev,    SYS_sendto,   SYS_pwrite64, SYS_lseek,   SYS_fsync,  SYS_fdatasync,
    SYS_ftruncate, SYS_unlinkat, SYS_renameat, SYS_mkdirat, SYS_fchmod, SYS_fchmodat,
    SYS_fchownat,  SYS_execve,   SYS_clone3,
#ifdef __aarch64__  // whose C library makes threads and programs with it
    SYS_clone,
#endif
#ifdef SYS_unlink  // see call_form.h
    SYS_unlink,    SYS_rmdir,    SYS_mkdir,    SYS_rename,  SYS_chmod,  SYS_chown,
#endif
};
constexpr unsigned kSerialReadSize = 576;

// Reads of every size and what else is worth failing, which only a handset with faults sees.
constexpr int kFaultCalls[] = {
    SYS_read,   SYS_pread64, SYS_shutdown, SYS_faccessat,
#ifdef SYS_access
    SYS_access,
#endif
};

// What else can fail, which only a handset that looks at every call sees. Not sendmsg: with it the
// stage hands over the traps.
constexpr int kOtherCalls[] = {
    SYS_newfstatat,    SYS_fstat,     SYS_getdents64, SYS_epoll_pwait, SYS_fcntl,
    SYS_dup3,          SYS_pipe2,     SYS_wait4,      SYS_mmap,        SYS_mprotect,
    SYS_epoll_create1, SYS_epoll_ctl, SYS_eventfd2,   SYS_socket,      SYS_connect,
    SYS_recvfrom,      SYS_recvmsg,   SYS_shutdown,   SYS_ppoll,       SYS_fchown,
#ifdef SYS_epoll_wait
    SYS_epoll_wait,    SYS_poll,      SYS_dup2,
#endif
};

}  // namespace handset
