// What the daemon asks of the kernel where neither a reply nor the journal tells: the flags and
// the order of calls, and a child that cannot be waited for.

#include <drm.h>
#include <drm_mode.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/syscall.h>

#include <filesystem>
#include <set>

#include "tests/system/station.h"

using Flags = std::set<uint64_t>;

TEST(KernelCalls, TheLineIsOpenedWithNoFlagButReadWrite) {
  Handset phone;
  Flags flags;  // here and below filled on the supervisor's thread, before the daemon goes on
  phone.intercept([&flags](const TrappedCall& call) {
    if (call.number == SYS_openat && call.text(call.arguments[1]) == "/dev/ttyMSM0") {
      flags.insert(call.arguments[2]);
    }
    return Answer::kernel();
  });
  phone.start();
  EXPECT_EQ(flags, Flags{O_RDWR});
}

TEST(KernelCalls, AKeyKeepsThePhoneAwakeUntilItIsRead) {
  Handset phone;
  Flags flags;
  phone.intercept([&flags](const TrappedCall& call) {
    epoll_event event = {};
    if (call.number == SYS_epoll_ctl && call.read(call.arguments[3], &event, sizeof(event))) {
      flags.insert(event.events);
    }
    return Answer::kernel();
  });
  phone.start({.every_call = true});
  phone.command("AT+KEY");
  EXPECT_EQ(flags, Flags{EPOLLIN | EPOLLWAKEUP});
}

TEST(KernelCalls, PlanesComeBeforeAtomicAndEachCommitMaySetAMode) {
  Handset phone;
  std::vector<uint64_t> asked_for;
  std::vector<uint64_t> flags;
  phone.intercept([&](const TrappedCall& call) {
    drm_set_client_cap capability = {};
    if (call.number == SYS_ioctl && call.arguments[1] == DRM_IOCTL_SET_CLIENT_CAP &&
        call.read(call.arguments[2], &capability, sizeof(capability))) {
      asked_for.push_back(capability.capability);
    }
    drm_mode_atomic request = {};
    if (call.number == SYS_ioctl && call.arguments[1] == DRM_IOCTL_MODE_ATOMIC &&
        call.read(call.arguments[2], &request, sizeof(request))) {
      flags.push_back(request.flags);
    }
    return Answer::kernel();
  });
  phone.start();  // once on and off, with six commits
  EXPECT_EQ(asked_for,
            std::vector<uint64_t>({DRM_CLIENT_CAP_UNIVERSAL_PLANES, DRM_CLIENT_CAP_ATOMIC}));
  EXPECT_EQ(flags, std::vector<uint64_t>(6, DRM_MODE_ATOMIC_ALLOW_MODESET));
}

TEST(KernelCalls, AChildThatCannotBeWaitedForIsAFailure) {
  Handset phone;
  phone.intercept([&phone](const TrappedCall& call) {
    const bool is_daemon = std::filesystem::exists("/proc/" + std::to_string(phone.pid()) +
                                                   "/task/" + std::to_string(call.thread));
    return call.number == SYS_wait4 && is_daemon ? Answer::fail(ECHILD) : Answer::kernel();
  });
  phone.start({.every_call = true});
  expect_exchange(phone, "AT^OPEN_WIFI", {"OK\r\n"});
  EXPECT_EQ(times_logged(phone, "E iw wlan0 scan fail----- "), 1U);  // no other scan is tried
  phone.serial.send("AT+WCDMIC=1\r\n");
  EXPECT_TRUE(phone.serial.wait_replies(2, std::chrono::seconds(20)));
  const std::vector<std::string> replies = phone.serial.take_replies();
  EXPECT_EQ(std::count(replies.begin(), replies.end(), "WCDMIC_TINYCAP_FAIL\n"), 1);
  EXPECT_EQ(times_logged(phone,
                         "D [FTM-AUDIO]wcd_mic_die_test_record_thread_start: pclose "
                         "tinycap fail !!!! \\n"),
            1U);
}
