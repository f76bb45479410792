// The codec's die-crack test: while the microphones record for a second, the codec's detector is
// run through eight settings and must read zero at each. A failure is answered with a hexadecimal
// code that names the step.

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <unistd.h>

#include <iterator>

#include "core/at.h"
#include "core/bounded.h"
#include "core/file_utils.h"
#include "core/log.h"
#include "core/unique.h"
#include "modules/audio/audio_card.h"

#define TAG "[FTM-AUDIO]"

struct Setting {
  const char* text;  // the enum item that is written
  uint32_t code;     // what stands for it in a result
};

static constexpr Setting kEnables[] = {{"0x80", 0x80}, {"0xC0", 0xC0}};
static constexpr Setting kInterrupts[] = {
    {"0xC2", 0xC2}, {"0x82", 0x82}, {"0x42", 0x42}, {"0x02", 0x02}};

static constexpr uint32_t kPassed = 0;
static constexpr uint32_t kNoMixer = 0x11;
static constexpr uint32_t kNoControl = 0x22;
static constexpr uint32_t kWriteFailed = 1;
static constexpr uint32_t kCracked = 0xFF000000;

static const char kDevicePath[] = "handset-stereo-dmic-ef";
static const char kRecordPath[] = "audio-record";
static const char kRecordFile[] = "/mnt/vendor/wcd-mic-record.pcm";
static const char kRecorder[] =
    "/system/bin/tinycap /mnt/vendor/wcd-mic-record.pcm -c 2 -r 48000 -b 16 -T 1";

static constexpr int kThreadAttempts = 6;
static constexpr useconds_t kBeforeTestUs = 200 * 1000;
// The name in the detector's log lines.
static const char kTestName[] = "start_wcd_mic_test";
static constexpr useconds_t kStepUs = 10 * 1000;
static constexpr useconds_t kRecordUs = 1000 * 1000;

// The record thread uses the route alone, and only between its creation and its join; everything
// else here is the command thread's.
static UniqueAudioRoute route;
static UniqueMixer mixer_handle;
static bool route_ready = false;
static bool test_started = false;
static pthread_t record_thread;
static bool thread_started = false;
static char result_text[16] = "0";

// The result is the route's alone: a missing mixer shows as a result code of the test.
static bool audio_mixer_route_init() {
  mixer_handle = open_mixer(__func__);
  route.reset(audio_route_init(kSoundCard, kMixerPaths));
  const bool success = route != nullptr;
  FTM_LOGD(success ? TAG "%s: audio route init done!\n" : TAG "%s: audio route init fail.\n",
           __func__);
  FTM_LOGD(TAG "%s:: %s  exit \n", __func__, success ? "success" : "fail");
  return success;
}

static void delete_record_file(const char* caller) {
  if (exists(kRecordFile) != Existence::kNotThere) {
    const int result = unlink(kRecordFile);
    FTM_LOGD(TAG "%s: delete record file %s with result %d !\n", caller, kRecordFile, result);
  } else {
    FTM_LOGE(TAG "%s:: record file %s is no exist \n", caller, kRecordFile);
  }
}

static bool enable_paths(const char* caller) {
  if (route == nullptr) {
    FTM_LOGD(TAG "%s: audio_route is not inited!\n", caller);
    return false;
  }
  FTM_LOGD(TAG "%s: enable mic device\n", caller);
  if (audio_route_apply_and_update_path(route.get(), kDevicePath) < 0) {
    FTM_LOGD(TAG "%s: '%s' enable device fail!\n", caller, kDevicePath);
    return false;
  }
  FTM_LOGD(TAG "%s: enable mic route\n", caller);
  if (audio_route_apply_and_update_path(route.get(), kRecordPath) < 0) {
    FTM_LOGD(TAG "%s: '%s' enable route fail!\n", caller, kRecordPath);
    return false;
  }
  return true;
}

static void* wcd_mic_die_test_record_thread_start(void*) {
  FTM_LOGD(TAG "%s: entry \n", __func__);
  if (!enable_paths(__func__)) {
    at_send_result("ERROR\n");
    return nullptr;
  }
  UniquePipe recorder(popen(kRecorder, "we"));
  if (recorder == nullptr) {
    FTM_LOGE(TAG "%s: popen tinycap fail !!!! \n", __func__);
    at_send_result("WCDMIC_TINYCAP_FAIL\n");
    return nullptr;
  }
  FTM_LOGD(TAG "%s: popen tinycap success ! \n", __func__);
  FTM_LOGD(TAG "%s: tinycap usleep begin \n", __func__);
  usleep(kRecordUs);
  FTM_LOGD(TAG "%s: tinycap usleep end \n", __func__);
  if (pclose(recorder.release()) == -1) {
    FTM_LOGD(TAG "%s: pclose tinycap fail !!!! \n", __func__);
    at_send_result("WCDMIC_TINYCAP_FAIL\n");
  } else {
    FTM_LOGD(TAG "%s: pclose tinycap success! \n", __func__);
  }
  delete_record_file(__func__);
  FTM_LOGD(TAG "%s: exit\n", __func__);
  return nullptr;
}

// One step of the detector with the enable setting written. kPassed or the code of its failure.
static uint32_t run_step(const Setting& enable, const Setting& interrupt, mixer_ctl* det_int1_ctl,
                         mixer_ctl* det_out_ctl) {
  const uint32_t step = enable.code << 16 | interrupt.code << 8;
  usleep(kStepUs);
  if (mixer_ctl_set_enum_by_string(det_int1_ctl, interrupt.text) != 0) {
    const uint32_t code = step | kWriteFailed;
    FTM_LOGE("%s: *** det_int1_ctl set value %8x error ***", kTestName, code);
    return code;
  }
  usleep(kStepUs);
  const int det_out = mixer_ctl_get_value(det_out_ctl, 0);
  if (det_out != 0) {
    const uint32_t code = kCracked | step | static_cast<uint32_t>(det_out);
    FTM_LOGE("%s: *** wcd mic check result det_out is %8x error ***", kTestName, code);
    return code;
  }
  FTM_LOGI("%s: *** wcd mic check result det_out is %8x pass ***", kTestName, step);
  return kPassed;
}

// Runs the detector. kPassed or the code of the step that failed.
static uint32_t start_wcd_mic_test() {
  mixer* card = mixer_handle.get();
  if (card == nullptr) {
    FTM_LOGE("%s: *** mixer NULL ***", __func__);
    return kNoMixer;
  }
  mixer_ctl* det_en_ctl = mixer_get_ctl_by_name(card, "DIE_CRK_DET_EN");
  mixer_ctl* det_int1_ctl = mixer_get_ctl_by_name(card, "DIE_CRK_DET_INT1");
  mixer_ctl* det_out_ctl = mixer_get_ctl_by_name(card, "DIE_CRK_DET_OUT");
  if (det_en_ctl == nullptr || det_int1_ctl == nullptr || det_out_ctl == nullptr) {
    FTM_LOGE("%s: *** ctl is NULL ***", __func__);
    return kNoControl;
  }
  for (const Setting& enable : kEnables) {
    usleep(kStepUs);
    if (mixer_ctl_set_enum_by_string(det_en_ctl, enable.text) != 0) {
      const uint32_t code = enable.code << 16 | kWriteFailed;
      FTM_LOGE("%s: *** det_en_ctl set value %x error ***", __func__, code);
      return code;
    }
    for (const Setting& interrupt : kInterrupts) {
      const uint32_t code = run_step(enable, interrupt, det_int1_ctl, det_out_ctl);
      if (code != kPassed) {
        return code;
      }
      if (&interrupt != std::end(kInterrupts) - 1) {
        usleep(kStepUs);
      }
    }
  }
  return kPassed;
}

static bool start_record_thread() {
  for (int attempt = 0; attempt < kThreadAttempts; ++attempt) {
    if (pthread_create(&record_thread, nullptr, wcd_mic_die_test_record_thread_start, nullptr) ==
        0) {
      thread_started = true;
      break;
    }
  }
  return thread_started;
}

static int at_wcd_mic_die_test_on(const char*) {
  FTM_LOGD(TAG "%s:: entry \n", __func__);
  if (test_started) {
    // Not cleared by a pass: a repeat answers the last failure, or "0".
    at_send_result(result_text);
    FTM_LOGD(TAG "%s: repeat cmd\n", __func__);
    return 0;
  }
  test_started = true;
  FTM_LOGD(TAG "%s: first cmd\n", __func__);
  if (route_ready) {
    FTM_LOGD(TAG "%s: audio mixer route is inited\n", __func__);
  } else {
    route_ready = audio_mixer_route_init();
    if (!route_ready) {
      at_send_result("AUDIO_ROUTE_INIT_FAIL\n");
      return 0;
    }
  }
  if (!start_record_thread()) {
    FTM_LOGD(TAG "%s: wcd_mic_die_test_record_thread try create fail!\n", __func__);
    at_send_result("THREAD_CREAT_FAIL\n");
    return 0;
  }
  usleep(kBeforeTestUs);
  const uint32_t code = start_wcd_mic_test();
  if (code == kPassed) {
    at_send_result("OK\r\n");
  } else {
    bounded_format(result_text, sizeof(result_text), "%x", code);
    at_send_result(result_text);
  }
  FTM_LOGD(TAG "%s:: exit , wcd mic test result: %s \n", __func__, result_text);
  return 0;
}

static int at_wcd_mic_die_test_off(const char*) {
  FTM_LOGD(TAG "%s:: entry \n", __func__);
  if (thread_started) {
    if (pthread_join(record_thread, nullptr) == 0) {
      FTM_LOGD(TAG "%s: record thread off ok\n", __func__);
      thread_started = false;
    } else {
      FTM_LOGD(TAG "%s: record thread off fail\n", __func__);
    }
  }
  if (route != nullptr) {
    usleep(kStepUs);
    audio_route_force_reset_and_update_path(route.get(), kRecordPath);
    audio_route_force_reset_and_update_path(route.get(), kDevicePath);
    FTM_LOGD(TAG "%s: reset audio route!\n", __func__);
  }
  delete_record_file(__func__);
  test_started = false;
  at_send_result("OK\r\n");
  FTM_LOGD(TAG "%s:: exit \n", __func__);
  return 0;
}

static AtCommand rows[] = {
    {.short_name = "wcd_mic_die_test_on",
     .command = "AT+WCDMIC=1",
     .handler = at_wcd_mic_die_test_on},
    {.short_name = "wcd_mic_die_test_off",
     .command = "AT+WCDMIC=0",
     .handler = at_wcd_mic_die_test_off},
};

static void at_wcd_mic_die_test_init() {
  FTM_LOGD(TAG "%s:: entry \n", __func__);
  if (!mixer_paths_exist()) {
    FTM_LOGE(TAG "%s: '%s' not exist!\n", __func__, kMixerPaths);
    // With no command pending: kept as it stands.
    at_send_result("ERROR\n");
  }
  route_ready = audio_mixer_route_init();
  at_register_rows(rows);
  FTM_LOGD(TAG "%s:: exit \n", __func__);
}

static void at_wcd_mic_die_test_exit() {
  mixer_handle.reset();
  route.reset();
  route_ready = false;
}

FTM_MODULE(wcd_mic_die_test, 4, TAG)
