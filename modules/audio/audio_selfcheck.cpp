// Whether the kernel knows the codec, the two smart amplifiers and the audio switch, and the
// amplifiers' own check while the test tone plays.

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "core/at.h"
#include "core/bounded.h"
#include "core/file_utils.h"
#include "core/log.h"
#include "core/unique.h"
#include "modules/audio/audio_card.h"
#include "modules/audio/tone.h"

#define TAG "[FTM-AUDIO]"

static const char kSelfCheckNode[] = "/proc/tfa98xx-34/selfcheck";
static constexpr useconds_t kToneUs = 1300 * 1000;

// Bits of an amplifier's status word; set means bad.
enum : uint32_t {
  kClock = 1U << 0,
  kRegisterRead = 1U << 1,
  kOverTemperature = 1U << 2,
  kUnderVoltage = 1U << 3,
  kOverVoltage = 1U << 4,
  kOverCurrent = 1U << 5,
};

struct AmplifierWords {
  uint32_t top;
  uint32_t bottom;
};

// Unlike the loudspeaker's on purpose: no reply to a repeat, one attempt, no reply to its failure.
// The check's own replies follow in any case.
static Tone tone = {.repeat_reply = nullptr, .thread_attempts = 1, .replies_thread_failure = false};

// ---- registration

static int reply_registered(const char* node, const char* part, const char* caller) {
  const bool registered = exists(node) == Existence::kThere;
  at_send_result(registered ? "OK\r\n" : "ERROR\n");
  at_send_result(registered ? "0" : "-1");
  FTM_LOGD("%s: %s %s register\n", caller, part, registered ? "already" : "not");
  return 0;
}

// Codec and switch without a leading slash: kept as it stands. The daemon works in the root.
static int audio_codec_check_call(const char*) {
  return reply_registered("proc/wcd_codec_exist", "codec", __func__);
}

static int check_top_pa_init_call(const char*) {
  return reply_registered("/proc/tfa98xx-34/selfcheck", "Top PA", __func__);
}

static int check_bottom_pa_init_call(const char*) {
  return reply_registered("/proc/tfa98xx-35/selfcheck", "bottom PA", __func__);
}

static int audio_switch_check_call(const char*) {
  return reply_registered("proc/audio_switch_exist", "audio switch", __func__);
}

// ---- the amplifiers' check

static void start_tone(const char* caller) {
  FTM_LOGD(TAG "%s: enter\n", caller);
  if (tone_has_route(&tone)) {
    FTM_LOGD(TAG "%s: audio route is inited\n", caller);
  } else if (!mixer_paths_exist()) {
    FTM_LOGD(TAG "%s: '%s' not exist!\n", caller, kMixerPaths);
    at_send_result("ERROR\n");
    return;
  } else if (!tone_open_route(&tone)) {
    FTM_LOGD(TAG "%s: audio route init fail!\n", caller);
    at_send_result("ERROR\n");
    return;
  } else {
    FTM_LOGD(TAG "%s: audio route init done.\n", caller);
  }
  tone_start(&tone, caller);
}

static void log_protections(const char* place, uint32_t word, const char* caller) {
  const auto state = [word](uint32_t bit) { return (word & bit) != 0 ? "Error" : "Normal"; };
  FTM_LOGD(TAG "%s: %s PA OTP state:%s, UVP state:%s, OVP state:%s, OCP state:%s", caller, place,
           state(kOverTemperature), state(kUnderVoltage), state(kOverVoltage), state(kOverCurrent));
}

static void judge(const AmplifierWords& words, const char* caller) {
  constexpr uint32_t kAccess = kClock | kRegisterRead;
  if (words.top == 0 && words.bottom == 0) {
    FTM_LOGD(TAG "%s: smart PA selfcheck is PASS\n", caller);
    return;
  }
  if (((words.top | words.bottom) & kAccess) == 0) {
    log_protections("Top", words.top, caller);
    log_protections("Bottom", words.bottom, caller);
    return;
  }
  const auto verdict = [](uint32_t word, uint32_t bit) {
    return (word & bit) != 0 ? "is" : "isn't";
  };
  FTM_LOGD(TAG
           "%s: Top smartPA i2s clk %s issue, reg read %s issue\n"
           "Bottom smartPA i2s clk %s issue, reg read %s issue\n",
           caller, verdict(words.top, kClock), verdict(words.top, kRegisterRead),
           verdict(words.bottom, kClock), verdict(words.bottom, kRegisterRead));
  at_send_result("smartPA i2s clk/i2c read issue");
}

static int audio_pa_check_call(const char*) {
  const UniqueFd node(open(kSelfCheckNode, O_RDONLY | O_CLOEXEC));
  if (!node.ok()) {
    FTM_LOGD(TAG "%s open %s failed, %s\n", __func__, kSelfCheckNode, strerror(errno));
    at_send_result("ERROR\n");
    return 0;
  }
  start_tone(__func__);  // whatever comes of it
  usleep(kToneUs);
  AmplifierWords words = {};
  if (read(node.get(), &words, sizeof(words)) != static_cast<ssize_t>(sizeof(words))) {
    FTM_LOGD(TAG "%s read %s failed, %s\n", __func__, kSelfCheckNode, strerror(errno));
    // The tone plays on: kept as it stands.
    at_send_result("ERROR\n");
    return 0;
  }
  FTM_LOGD(TAG "%s: enter\n", __func__);
  tone_stop(&tone, __func__);
  judge(words, __func__);
  at_send_result("OK\r\n");
  char code[16];
  bounded_format(code, sizeof(code), "%u", words.top | words.bottom << 8);
  at_send_result(code);
  return 0;
}

static AtCommand rows[] = {
    {.short_name = "audio_pa_check",
     .command = "AT+CASP=PA_SELFCHECK",
     .handler = audio_pa_check_call},
    {.short_name = "audio_codec_check",
     .command = "AT+CASP=CHECK_AUDIO_CODEC",
     .handler = audio_codec_check_call},
    {.short_name = "check_top_pa_init",
     .command = "AT+CASP=CHECK_TOP_PA",
     .handler = check_top_pa_init_call},
    {.short_name = "check_bottom_pa_init",
     .command = "AT+CASP=CHECK_BOTTOM_PA",
     .handler = check_bottom_pa_init_call},
    {.short_name = "audio_switch_check",
     .command = "AT+CASP=CHECK_AUDIO_SWITCH",
     .handler = audio_switch_check_call},
};

static void at_audio_selfcheck_init() {
  at_register_rows(rows);
}

static void at_audio_selfcheck_exit() {}

FTM_MODULE(audio_selfcheck, 4, TAG)
