// What the stage program and the handset agree on.

#pragma once

#include <sys/syscall.h>

namespace handset {

// Messages of the stage: one byte of kind, then text; kFuse and kTraps carry a descriptor. The last
// one is kTraps, kUntrapped or kFailed (the text says why).
enum class StageMessage : char { kFuse = 'F', kTraps = 'T', kUntrapped = 'U', kFailed = 'E' };

// What the phone's processes are kept from doing alone: nothing, the trapped calls, or these and
// the calls that Handset::fail makes fail.
enum class StageTraps { kNone, kCalls, kCallsAndFaults };

constexpr int kStageSocket = 3;  // the stage's descriptor of the handset

constexpr char kNodesFolder[] = "/.nodes";  // where the FUSE file system is mounted in the root
constexpr char kRealProc[] = "/.proc";      // the host's procfs in the root

// System calls that the handset sees, each of every process in the phone; reads only in this size.
constexpr int kTrappedCalls[] = {SYS_statfs,          SYS_openat,       SYS_ioctl,
                                 SYS_clock_nanosleep, SYS_sync,         SYS_write,
                                 SYS_init_module,     SYS_finit_module, SYS_delete_module};

// Calls that are trapped for the journal, and are the kernel's unless they are made to fail.
constexpr int kJournalCalls[] = {
    SYS_writev,   SYS_sendto, SYS_pwrite64, SYS_lseek,    SYS_fsync,  SYS_fdatasync, SYS_ftruncate,
    SYS_unlinkat, SYS_fchmod, SYS_fchmodat, SYS_fchownat, SYS_execve, SYS_clone3,
#ifdef SYS_unlink  // what newer architectures have only with a folder's descriptor
    SYS_unlink,   SYS_rmdir,  SYS_mkdir,    SYS_rename,   SYS_chmod,  SYS_chown,
#endif
};
constexpr unsigned kSerialReadSize = 576;

// Reads of every size, which only a handset with faults sees.
constexpr int kFaultCalls[] = {SYS_read, SYS_pread64};

}  // namespace handset
