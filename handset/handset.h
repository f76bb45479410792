// The simulated handset: one object is one phone. It lays out the phone's root from a profile,
// starts the unchanged daemon inside, and answers for the hardware. Used by the system tests and by
// the console program.
//
//   Handset phone;
//   phone.start();
//   phone.command("AT+EDFT=6,1\r\n");  // {"OK\r\n"}
//   phone.nodes.value("/sys/class/leds/vibrator/activate");  // "1\n"

#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "handset/journal.h"
#include "handset/links/call_recorder.h"
#include "handset/links/device_table.h"
#include "handset/links/faults.h"
#include "handset/links/hub_service.h"
#include "handset/links/nodes.h"
#include "handset/links/serial_line.h"
#include "handset/models/cameras.h"
#include "handset/models/clock.h"
#include "handset/models/display_card.h"
#include "handset/models/input_device.h"
#include "handset/models/kernel_modules.h"
#include "handset/models/memory_card.h"
#include "handset/models/power_interfaces.h"
#include "handset/models/sensor_hub.h"
#include "handset/models/sound_card.h"
#include "handset/models/tone_party.h"

namespace handset {

class Handset {
 public:
  struct Options {
    // Waits of the daemon take this part of their time: 1 real time, 0 none.
    double time_factor = 0;
    // The program that becomes the phone's /odm/bin/ftmd; the handset's own when empty.
    std::filesystem::path daemon = {};
    // The file that gets the daemon's log, behind what it holds; one of the phone's own when empty.
    std::filesystem::path log = {};
  };

  struct StartOptions {
    // The tty that becomes /dev/ttyMSM0: the handset's own line when not given, no such device when
    // empty.
    std::optional<std::string> serial = {};
    bool faults = false;      // true: reads can be made to fail, too
    bool every_call = false;  // true: intercept sees all calls that can fail
    bool traps = true;        // false: no system call is seen (no devices, waits or single replies)
    bool log = true;          // false: the daemon's log goes to /dev/null
    bool wait_ready = true;   // return only when the daemon waits for its first command
    // A library of the phone that is loaded into the daemon first.
    std::string preload = {};
  };

  Handset() : Handset(Options{}) {}
  explicit Handset(const Options& options);
  ~Handset();
  Handset(const Handset&) = delete;
  Handset& operator=(const Handset&) = delete;

  // Starts the daemon. Throws std::runtime_error with one line that says what this machine lacks or
  // why the daemon did not come up.
  void start() {
    start(StartOptions{});
  }
  void start(const StartOptions& options);
  // Ends the daemon and whatever it started. The phone's state stays; start begins anew on it.
  void stop();
  // Waits for the daemon to end by itself. Its wait status, or nothing when it still runs after
  // limit.
  std::optional<int> wait_exit(std::chrono::seconds limit = std::chrono::seconds(20));
  // The daemon's process id, 0 when none runs.
  pid_t pid() const {
    return pid_;
  }
  // How many descriptors of a device model the daemon has open, by the name of its memory
  // ("drm-card", "camera"); of all when empty. Those that it has closed are closed in the models
  // now.
  size_t open_devices(const std::string& kind = "");
  // How many descriptors the daemon has open.
  size_t open_descriptors() const;

  // Sends one command, waits until the daemon has handled it and returns its replies, one by one.
  // Throws std::runtime_error when the daemon does not come back to its line within limit, or the
  // phone falls asleep before.
  std::vector<std::string> command(std::string_view line,
                                   std::chrono::seconds limit = std::chrono::seconds(60));

  // Lays a profile over the phone as it is: nodes, properties, files, the sensors behind the hub
  // and the sound card's controls (see root.h). Throws std::exception with one line when one of its
  // files cannot be read.
  void lay_over(const std::filesystem::path& profile);

  // Where a path of the phone lies on the desk.
  std::filesystem::path path(const std::string& phone_path) const;
  void write_file(const std::string& phone_path, const std::string& content);
  std::optional<std::string> read_file(const std::string& phone_path) const;

  // Makes a trapped call (SYS_openat, SYS_write, those of kJournalCalls; with StartOptions::faults
  // also those of kFaultCalls) fail with an errno on a file of the phone, whoever makes it: from
  // now on, or only in some of its calls. With error 0 it works again. The path is the file's own
  // (for a call that names a path: that one), not that of a link to it. For SYS_clone3 the "path"
  // is "thread" or "process": no new one is made; for SYS_shutdown it is "socket".
  void fail(const std::string& phone_path, int call, int error,
            const Faults::Which& which = Faults::Which());
  // Lets a SYS_read or SYS_write of such a file move this many bytes at most.
  void shorten(const std::string& phone_path, int call, size_t most,
               const Faults::Which& which = Faults::Which());

  // The device whose file the call's descriptor is, by its path; nothing for other descriptors.
  std::string device(const TrappedCall& call) {
    return devices_.path(call);
  }

  // Shows each trapped call, before its own part of the phone answers it, to a function on the
  // supervisor's thread: what that answers stands, unless it is the kernel's. Before start.
  void intercept(Supervisor::Handler function) {
    supervisor_.intercept(std::move(function));
  }

  void set_property(const std::string& name, const std::string& value);
  std::optional<std::string> property(const std::string& name) const;

  // The daemon's log, and what it printed on standard output; each begins anew at 64 MiB.
  std::string log() const;
  std::string output() const;

  // One of the phone's keys, by its name: "power", "volup" or "voldown". Nothing for other names.
  struct Key {
    InputDevice* device;
    uint16_t code;
  };
  std::optional<Key> key(const std::string& name);

  // Makes a device appear at a path such as /dev/dri/card0. Before start; the model must live as
  // long as the handset.
  void add_device(const std::string& phone_path, Device* device);
  void remove_device(const std::string& phone_path);

  // Everything that the daemon does to this phone, in order.
  Journal journal;
  Nodes nodes;
  KernelModules modules;
  Clock clock;
  PowerInterfaces power{clock.factor(), Nodes::caller_interrupted};
  SerialLine serial;
  Cameras cameras;  // /dev/media0 and 1, /dev/v4l-subdev0 to 5
  InputDevice volume_keys{InputDevice::kSyn | InputDevice::kKey};  // /dev/input/event0
  InputDevice power_key{InputDevice::kSyn | InputDevice::kKey};    // /dev/input/event1
  InputDevice pointer{InputDevice::kSyn | InputDevice::kKey | InputDevice::kRelative |
                      InputDevice::kAbsolute};     // /dev/input/event2
  DisplayCard display{DisplayCard::phone_card()};  // /dev/dri/card0
  SoundCard sound;                                 // /dev/snd/controlC0
  MemoryCard card;                                 // at /mnt/sdcard
  ToneParty tone_party;
  SensorHub sensors;
  HubService hub_service;  // the sensors' hub, at /dev/socket/qmi_sns_client

 private:
  static constexpr char kSerialTty[] = "/dev/ttyMSM0";

  void lay_phone();
  void plug_devices();
  void serve_power_nodes();
  void cut_large_files() const;
  std::optional<HubService::Reply> on_hub_request(const std::string& payload);

  // In handset_calls.cpp.
  void route_calls();
  Answer on_openat(const TrappedCall& call);
  Answer on_read(const TrappedCall& call);
  Answer on_write(const TrappedCall& call);
  Answer on_sendto(const TrappedCall& call);
  Answer on_statfs(const TrappedCall& call);
  Answer on_clock_nanosleep(const TrappedCall& call);
  Answer on_sync(const TrappedCall& call);
  Answer load_module(const TrappedCall& call, const std::string& image,
                     const std::string& parameters);
  Answer on_init_module(const TrappedCall& call);
  Answer on_finit_module(const TrappedCall& call);
  Answer on_delete_module(const TrappedCall& call);

  std::filesystem::path daemon_;
  std::filesystem::path base_;  // holds the root and the logs; removed at the end
  std::filesystem::path log_;
  DeviceTable devices_;
  Faults faults_;
  pid_t pid_ = 0;
  std::optional<int> status_;
  CallRecorder recorder_{&journal};
  Supervisor supervisor_{&journal};
};

}  // namespace handset
