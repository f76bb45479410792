// Builds the phone's root around the daemon and becomes it: private mounts, chroot, system call
// traps, exec. A program of its own, because it must run between fork and exec without the threads
// of the handset. Called by Handset::start only:
//
//   handset_stage ROOT SERIAL DAEMON TRAPS PRELOAD
//
// ROOT is the prepared folder, SERIAL the tty that becomes /dev/ttyMSM0 (empty for none), DAEMON
// the binary that becomes /odm/bin/ftmd, TRAPS the number of a StageTraps, PRELOAD a library of the
// phone that the daemon is loaded with (empty for none). Descriptor kStageSocket
// is a seqpacket socket to the handset, which gets the FUSE and the trap descriptor, or one line of
// text that says what is missing.

#include "handset/links/stage.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/close_range.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <initializer_list>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

using namespace handset;

static void send_to_handset(StageMessage kind, int fd, const std::string& text) {
  std::string body = static_cast<char>(kind) + text;
  iovec vector = {body.data(), body.size()};
  char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message = {};
  message.msg_iov = &vector;
  message.msg_iovlen = 1;
  if (fd >= 0) {
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(header), &fd, sizeof(fd));
  }
  sendmsg(kStageSocket, &message, MSG_NOSIGNAL);
}

[[noreturn]] static void fail(const std::string& what) {
  send_to_handset(StageMessage::kFailed, -1, what + ": " + strerror(errno));
  _exit(1);
}

static void write_file(const char* path, const std::string& text) {
  const int fd = open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    fail(std::string("cannot write ") + path);
  }
  close(fd);
}

static void enter_namespaces() {
  const uid_t uid = getuid();
  const gid_t gid = getgid();
  if (unshare(uid == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) != 0) {
    fail("this machine gives no private mount namespace");
  }
  if (uid != 0) {
    write_file("/proc/self/setgroups", "deny");
    write_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    write_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    fail("cannot make the mounts private");
  }
}

// Binds what the host has at source over root's own (existing) file or folder.
static void bind(const std::string& source, const std::string& target, bool read_only = false) {
  if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
    fail("cannot bind " + source);
  }
  if (read_only) {
    // Best effort: in a user namespace the flags of a host mount can be locked.
    mount(nullptr, target.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY | MS_NOSUID, nullptr);
  }
}

static void bind_host(const std::string& root) {
  // On hosts with one merged /usr these are links in the root already.
  for (const char* folder : {"/usr", "/bin", "/sbin", "/lib", "/lib32", "/lib64", "/libx32"}) {
    struct stat status;
    if (lstat((root + folder).c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
      bind(folder, root + folder, true);
    }
  }
  for (const char* device : {"/dev/null", "/dev/zero", "/dev/full", "/dev/urandom"}) {
    bind(device, root + device);
  }
}

// One FUSE file system serves both trees of nodes.
static void mount_nodes(const std::string& root) {
  const int fuse = open("/dev/fuse", O_RDWR | O_CLOEXEC);
  if (fuse < 0) {
    fail("this machine gives no FUSE (/dev/fuse)");
  }
  const std::string options =
      "fd=" + std::to_string(fuse) + ",rootmode=40000,user_id=0,group_id=0,allow_other";
  if (mount("handset", (root + kNodesFolder).c_str(), "fuse.handset", MS_NOSUID | MS_NODEV,
            options.c_str()) != 0) {
    fail("this machine gives no FUSE mount");
  }
  send_to_handset(StageMessage::kFuse, fuse, "");
  close(fuse);
  // The real procfs stays within reach: /proc/self and /proc/PID are links into it.
  bind("/proc", root + kRealProc);
  for (const char* tree : {"/sys", "/proc"}) {
    bind(root + kNodesFolder + tree, root + tree);
  }
}

static void enter_root(const std::string& root) {
  if (chdir(root.c_str()) != 0 || syscall(SYS_pivot_root, ".", ".") != 0 ||
      umount2(".", MNT_DETACH) != 0 || chdir("/") != 0) {
    fail("cannot enter the phone's root");
  }
}

// ---- system call filters

static sock_filter load(uint32_t offset) {
  return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset);
}

static sock_filter answer(uint32_t action) {
  return BPF_STMT(BPF_RET | BPF_K, action);
}

// Goes on when what was loaded is value, and otherwise behind the next steps.
static sock_filter when(uint32_t value, uint8_t steps) {
  return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, steps);
}

constexpr uint32_t kCallNumber = offsetof(seccomp_data, nr);

// The low word of a call's argument.
static uint32_t argument(int index) {
  return static_cast<uint32_t>(offsetof(seccomp_data, args) + 8 * index);
}

static std::vector<sock_filter> trap_program(StageTraps traps) {
#if defined(__x86_64__)
  const uint32_t arch = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
  const uint32_t arch = AUDIT_ARCH_AARCH64;
#else
#error "the trap filter needs this machine's audit architecture"
#endif
  std::vector<sock_filter> program = {load(offsetof(seccomp_data, arch)), when(arch, 1),
                                      BPF_JUMP(BPF_JMP | BPF_JA, 1, 0, 0),
                                      answer(SECCOMP_RET_ALLOW), load(kCallNumber)};
  const auto add = [&program](std::initializer_list<sock_filter> steps) {
    program.insert(program.end(), steps);
  };
  const auto trap = [&add](int call) {
    add({when(static_cast<uint32_t>(call), 1), answer(SECCOMP_RET_USER_NOTIF)});
  };
  std::for_each(std::begin(kTrappedCalls), std::end(kTrappedCalls), trap);
  std::for_each(std::begin(kJournalCalls), std::end(kJournalCalls), trap);
  if (traps == StageTraps::kCallsAndFaults || traps == StageTraps::kEveryCall) {
    std::for_each(std::begin(kFaultCalls), std::end(kFaultCalls), trap);
  }
  if (traps == StageTraps::kEveryCall) {
    std::for_each(std::begin(kOtherCalls), std::end(kOtherCalls), trap);
  }
  // Of all reads only those of the command loop: nothing else here reads in its size.
  add({when(SYS_read, 3), load(argument(2)), when(kSerialReadSize, 1),
       answer(SECCOMP_RET_USER_NOTIF)});
  add({answer(SECCOMP_RET_ALLOW)});
  return program;
}

// The kernel's answer: what the flags ask for, or -1.
static int install(std::vector<sock_filter> program, unsigned flags) {
  const sock_fprog filter = {static_cast<uint16_t>(program.size()), program.data()};
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  return static_cast<int>(syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, flags, &filter));
}

static void trap_calls(StageTraps traps) {
  const int listener = install(trap_program(traps), SECCOMP_FILTER_FLAG_NEW_LISTENER);
  if (listener < 0) {
    fail("this machine gives no system call notification (seccomp)");
  }
  send_to_handset(StageMessage::kTraps, listener, "");
  close(listener);
}

// Without traps the module calls would reach the desk's own kernel.
static void refuse_module_calls() {
  std::vector<sock_filter> program = {load(kCallNumber)};
  for (const uint32_t call : {SYS_init_module, SYS_finit_module, SYS_delete_module}) {
    program.push_back(when(call, 1));
    program.push_back(answer(SECCOMP_RET_ERRNO | EPERM));
  }
  program.push_back(answer(SECCOMP_RET_ALLOW));
  if (install(std::move(program), 0) != 0) {
    fail("this machine gives no system call filter (seccomp)");
  }
}

int main(int argc, char** argv) {
  if (argc != 6) {
    fprintf(stderr, "handset_stage is started by the handset\n");
    return 2;
  }
  const std::string root = argv[1];
  const std::string serial = argv[2];
  const std::string daemon = argv[3];
  const auto traps = static_cast<StageTraps>(atoi(argv[4]));

  // The phone does not outlive the thread of the desk that started it. A group of its own lets the
  // handset end the daemon together with the shells it started.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  setpgid(0, 0);
  const rlimit no_core = {0, 0};
  setrlimit(RLIMIT_CORE, &no_core);

  enter_namespaces();
  bind(root, root);
  bind_host(root);
  if (!serial.empty()) {
    bind(serial, root + "/dev/ttyMSM0");
  }
  bind(daemon, root + "/odm/bin/ftmd", true);
  mount_nodes(root);
  enter_root(root);

  if (argv[5][0] != '\0') {
    setenv("LD_PRELOAD", argv[5], 1);
  }
  char* const arguments[] = {const_cast<char*>("ftmd"), nullptr};
  // Like init, and unlike whoever started the handset, hand on nothing but 0, 1 and 2.
  close_range(kStageSocket, ~0U, CLOSE_RANGE_CLOEXEC);
  if (traps == StageTraps::kNone) {
    refuse_module_calls();
    send_to_handset(StageMessage::kUntrapped, -1, "");
  } else {
    trap_calls(traps);
  }
  execv("/odm/bin/ftmd", arguments);
  fail("cannot start the daemon");
}
