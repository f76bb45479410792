// Where the trapped calls of the phone's processes go: each is taken apart and handed to the part
// of the phone that answers it; see handset.h.

#include <errno.h>
#include <fcntl.h>
#include <sys/vfs.h>
#include <time.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

#include "handset/handset.h"
#include "handset/links/stage.h"
#include "handset/visible.h"

namespace handset {

namespace fs = std::filesystem;

static const char kMemoryCard[] = "/mnt/sdcard";

void Handset::route_calls() {
  struct Route {
    int call;
    Answer (Handset::*answer)(const TrappedCall& call);
  };
  static constexpr Route kRoutes[] = {
      {SYS_openat, &Handset::on_openat},
      {SYS_read, &Handset::on_read},
      {SYS_write, &Handset::on_write},
      {SYS_sendto, &Handset::on_sendto},
      {SYS_statfs, &Handset::on_statfs},
      {SYS_clock_nanosleep, &Handset::on_clock_nanosleep},
      {SYS_sync, &Handset::on_sync},
      {SYS_init_module, &Handset::on_init_module},
      {SYS_finit_module, &Handset::on_finit_module},
      {SYS_delete_module, &Handset::on_delete_module},
  };
  supervisor_.observe(
      [this](const TrappedCall& call, const Answer& answer) { recorder_.record(call, answer); });
  const auto may_fail = [this](int number) {
    supervisor_.handle(number, [this](const TrappedCall& call) { return faults_.answer(call); });
  };
  std::for_each(std::begin(kJournalCalls), std::end(kJournalCalls), may_fail);
  std::for_each(std::begin(kFaultCalls), std::end(kFaultCalls), may_fail);
  supervisor_.handle(SYS_ioctl, [this](const TrappedCall& call) { return devices_.ioctl(call); });
  // Behind the failing calls: a read is one of them, and the serial line's.
  for (const Route& route : kRoutes) {
    supervisor_.handle(route.call, [this, answer = route.answer](const TrappedCall& call) {
      return (this->*answer)(call);
    });
  }
}

// The only socket that the daemon sends on is the sensor hub's.
Answer Handset::on_sendto(const TrappedCall& call) {
  std::string packet(std::min<uint64_t>(call.arguments[2], 4096), '\0');
  if (call.read(call.arguments[1], packet.data(), packet.size())) {
    if (const std::string message = HubService::request_message(packet); !message.empty()) {
      call.note("hub " + sensors.describe(message));
    }
  }
  return Answer::kernel();
}

Answer Handset::on_statfs(const TrappedCall& call) {
  if (call.text(call.arguments[0]) != kMemoryCard) {
    return Answer::kernel();
  }
  struct statfs status;
  if (const int error = card.status(&status); error != 0) {
    return Answer::result(error);
  }
  return Answer::result(call.write(call.arguments[1], &status, sizeof(status)) ? 0 : -EFAULT);
}

// " = EBUSY" for a negative errno, nothing for a success.
static std::string shown_result(int result) {
  return result < 0 ? " = " + error_name(-result) : "";
}

Answer Handset::load_module(const TrappedCall& call, const std::string& image,
                            const std::string& parameters) {
  const int result = modules.load(image, parameters);
  const std::string name = KernelModules::name(image);
  call.note("load " + (name.empty() ? "nonsense" : name) + " \"" + parameters + "\"" +
            shown_result(result));
  return Answer::result(result);
}

Answer Handset::on_init_module(const TrappedCall& call) {
  constexpr uint64_t kLargest = 64U << 20;
  std::string image(call.arguments[1] > kLargest ? 0 : call.arguments[1], '\0');
  if (!call.read(call.arguments[0], image.data(), image.size())) {
    return Answer::result(-EFAULT);
  }
  return load_module(call, image, call.text(call.arguments[2]));
}

Answer Handset::on_finit_module(const TrappedCall& call) {
  std::ifstream file("/proc/" + std::to_string(call.thread) + "/fd/" +
                     std::to_string(call.descriptor()));
  const std::string image{std::istreambuf_iterator<char>(file), {}};
  return load_module(call, image, call.text(call.arguments[1]));
}

Answer Handset::on_delete_module(const TrappedCall& call) {
  const std::string name = call.text(call.arguments[0]);
  const int result = modules.unload(name, call.arguments[1]);
  std::ostringstream entry;
  entry << "unload " << name << " flags 0x" << std::hex << call.arguments[1];
  call.note(entry.str() + shown_result(result));
  return Answer::result(result);
}

Answer Handset::on_clock_nanosleep(const TrappedCall& call) {
  using std::chrono::nanoseconds;
  using std::chrono::seconds;
  timespec asked;
  if (!call.read(call.arguments[2], &asked, sizeof(asked))) {
    return Answer::result(-EFAULT);
  }
  nanoseconds time = seconds(asked.tv_sec) + nanoseconds(asked.tv_nsec);
  if ((call.arguments[1] & TIMER_ABSTIME) != 0) {
    timespec now;
    clock_gettime(static_cast<clockid_t>(call.arguments[0]), &now);
    time = std::max(nanoseconds(0), time - seconds(now.tv_sec) - nanoseconds(now.tv_nsec));
  }
  Clock::Wait wait = clock.wait(time);
  return Answer::result_after(0, wait.time, std::move(wait.ready));
}

// Not passed on to the desk's kernel.
Answer Handset::on_sync(const TrappedCall&) {
  power.note_sync();
  return Answer::result(0);
}

Answer Handset::on_openat(const TrappedCall& call) {
  std::string opened = call.text(call.arguments[1]);
  if (opened.empty()) {
    return Answer::kernel();
  }
  if (opened[0] != '/') {
    // The daemon works in "/"; a folder's descriptor names its place in the phone.
    const std::string folder = call.descriptor() == AT_FDCWD ? "" : call.link(call.descriptor());
    opened = folder + "/" + opened;
  }
  opened = fs::path(opened).lexically_normal().string();
  const Answer failure = faults_.open(opened);
  return failure.kind == Answer::Kind::kKernel ? devices_.open(call, opened) : failure;
}

Answer Handset::on_read(const TrappedCall& call) {
  const std::string file = call.link(call.descriptor());
  if (file == kSerialTty && call.arguments[2] == kSerialReadSize) {
    devices_.note_arrived();
    journal.set_worker(call.thread);
    serial.note_read();
    cut_large_files();
  }
  return faults_.answer(call);
}

Answer Handset::on_write(const TrappedCall& call) {
  const std::string file = call.link(call.descriptor());
  if (file != kSerialTty) {
    return faults_.answer(call);
  }
  std::string text(call.arguments[2], '\0');
  if (!call.read(call.arguments[1], text.data(), text.size())) {
    return Answer::kernel();
  }
  const size_t taken = serial.note_reply(text);
  if (taken == text.size()) {
    return Answer::kernel();
  }
  return Answer::result(static_cast<int64_t>(taken));
}

}  // namespace handset
