// The loudspeaker test: the test tone on and off by command. Card and path file may come up after
// the daemon, so what start-up did not get is tried again at each start.

#include "core/at.h"
#include "core/log.h"
#include "modules/audio/audio_card.h"
#include "modules/audio/tone.h"

#define TAG "[FTM-AUDIO]"

// Start-up's results, not those of the retries: a card that came late is opened anew by each start.
static bool mixer_ready = false;
static bool route_ready = false;

static UniqueMixer mixer_handle;
static Tone tone = {.repeat_reply = "OK\r\n", .thread_attempts = 6, .replies_thread_failure = true};

static void log_exit(const char* caller, bool success) {
  FTM_LOGD(TAG "%s:: %s  exit \n", caller, success ? "success" : "fail");
}

static bool audio_loudspeaker_mixer_init() {
  FTM_LOGD(TAG "%s:: entry \n", __func__);
  mixer_handle = open_mixer(__func__);
  log_exit(__func__, mixer_handle != nullptr);
  return mixer_handle != nullptr;
}

static bool audio_loudspeaker_route_init() {
  FTM_LOGD(TAG "%s:: entry \n", __func__);
  const bool success = tone_open_route(&tone);
  FTM_LOGD(success ? TAG "%s: audio route init done!\n" : TAG "%s: audio route init fail.\n",
           __func__);
  log_exit(__func__, success);
  return success;
}

static int at_loudspeaker_on(const char*) {
  FTM_LOGD(TAG "%s: enter\n", __func__);
  if (mixer_ready) {
    FTM_LOGD(TAG "%s: audio mixer is inited\n", __func__);
  } else if (!audio_loudspeaker_mixer_init()) {
    at_send_result("AUDIO_ROUTE_INIT_FAIL\n");
    return 0;
  }
  if (route_ready) {
    FTM_LOGD(TAG "%s: audio route is inited\n", __func__);
  } else if (!mixer_paths_exist()) {
    FTM_LOGD(TAG "%s: '%s' not exist!\n", __func__, kMixerPaths);
    at_send_result("ERROR\n");
    return 0;
  } else if (!audio_loudspeaker_route_init()) {
    at_send_result("AUDIO_ROUTE_INIT_FAIL\n");
    return 0;
  }
  tone_start(&tone, __func__);
  return 0;
}

static int at_loudspeaker_off(const char*) {
  FTM_LOGD(TAG "%s: enter\n", __func__);
  tone_stop(&tone, __func__);
  return 0;
}

static AtCommand rows[] = {
    {.short_name = "loudspeaker_on", .command = "AT+CASP=1,151,2,20", .handler = at_loudspeaker_on},
    {.short_name = "loudspeaker_off", .command = "AT+CASP=2,151", .handler = at_loudspeaker_off},
};

static void at_loudspeaker_init() {
  FTM_LOGD(TAG "%s: start\n", __func__);
  if (!mixer_paths_exist()) {
    FTM_LOGD(TAG "%s: '%s' not exist!\n", __func__, kMixerPaths);
    // With no command pending: kept as it stands.
    at_send_result("ERROR\n");
  }
  mixer_ready = audio_loudspeaker_mixer_init();
  route_ready = audio_loudspeaker_route_init();
  at_register_rows(rows);
  FTM_LOGD(TAG "%s: end\n", __func__);
}

static void at_loudspeaker_exit() {
  FTM_LOGD(TAG "%s: start\n", __func__);
  mixer_handle.reset();
  tone_close_route(&tone);
  mixer_ready = false;
  route_ready = false;
  FTM_LOGD(TAG "%s: end\n", __func__);
}

FTM_MODULE(loudspeaker, 4, TAG)
