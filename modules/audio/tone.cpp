// The test tone's session; see tone.h.

#include "modules/audio/tone.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <initializer_list>
#include <utility>

#include "core/at.h"
#include "core/log.h"
#include "core/properties.h"
#include "core/unique.h"
#include "modules/audio/audio_card.h"

#define TAG "[FTM-AUDIO]"

static const char kSession[] = "vendor.norva.mm.ftm_spk";
static const char kSessionCopy[] = "vendor.norva.mm.ftm_spk1";
static const char kUnset[] = "0";
static const char kPath[] = "ftm-loudspeaker-test";
static const char kPlayer[] = "/odm/bin/tinyplay_ftm /vendor/norva/media/norva_ftm_smart_pa.wav";

static constexpr useconds_t kPlayerStartUs = 300 * 1000;
static constexpr useconds_t kBeforeResetUs = 10 * 1000;

bool tone_has_route(Tone* tone) {
  const std::lock_guard<std::mutex> lock(tone->route_mutex);
  return tone->route != nullptr;
}

static bool set_route(Tone* tone, UniqueAudioRoute route) {
  const std::lock_guard<std::mutex> lock(tone->route_mutex);
  tone->route = std::move(route);
  return tone->route != nullptr;
}

bool tone_open_route(Tone* tone) {
  return set_route(tone, UniqueAudioRoute(audio_route_init(kSoundCard, kMixerPaths)));
}

void tone_close_route(Tone* tone) {
  set_route(tone, nullptr);
}

static int enable_path(Tone* tone) {
  const std::lock_guard<std::mutex> lock(tone->route_mutex);
  return audio_route_apply_and_update_path(tone->route.get(), kPath);
}

static void reset_path(Tone* tone) {
  const std::lock_guard<std::mutex> lock(tone->route_mutex);
  audio_route_force_reset_and_update_path(tone->route.get(), kPath);
}

// True when the session property is one of the texts.
static bool is_one_of(const char* value, std::initializer_list<const char*> texts) {
  for (const char* text : texts) {
    if (strcmp(value, text) == 0) {
      return true;
    }
  }
  return false;
}

static UniquePipe start_player(const char* caller) {
  UniquePipe player(popen(kPlayer, "we"));
  if (player == nullptr) {
    FTM_LOGD(TAG "%s: popen fail!\n", caller);
    at_send_result("ERROR\n");
  }
  return player;
}

static void follow_session(Tone* tone, const char* caller) {
  // A busy poll without an end: kept as it stands.
  for (;;) {
    char session[PROP_VALUE_MAX];
    property_get(kSession, session, kUnset);
    if (strcmp(session, "cmd_continue") == 0) {
      __system_property_set(kSession, "cmd_on");
      enable_path(tone);
      if (start_player(caller) == nullptr) {  // otherwise waited for right here
        return;
      }
    } else if (strcmp(session, "cmd_finish") == 0) {
      FTM_LOGD(TAG "%s: cmd_finish\n", caller);
      FTM_LOGD(TAG "%s: thread exit\n", caller);
      return;
    }
  }
}

static void* loudspeaker_play_thread(void* argument) {
  FTM_LOGD(TAG "%s enter \n", __func__);
  auto* tone = static_cast<Tone*>(argument);
  if (!tone_has_route(tone)) {
    FTM_LOGD(TAG "%s: enable route param invalid!\n", __func__);
    at_send_result("ERROR\n");
    return nullptr;
  }
  FTM_LOGD(TAG "%s: enable route...\n", __func__);
  if (enable_path(tone) < 0) {
    FTM_LOGD(TAG "%s: '%s' enable fail!\n", __func__, kPath);
    at_send_result("ERROR\n");
    return nullptr;
  }
  UniquePipe player = start_player(__func__);
  if (player == nullptr) {
    return nullptr;
  }
  FTM_LOGD(TAG "%s: before usleep \n", __func__);
  usleep(kPlayerStartUs);
  FTM_LOGD(TAG "%s: end usleep \n", __func__);
  at_send_result("OK\r\n");
  player.reset();  // waits for the player
  follow_session(tone, __func__);
  return nullptr;
}

// False when the session property is refused: the second party then never hears of it.
static bool set_session(const char* session, const char* copy, const char* caller) {
  if (__system_property_set(kSession, session) != 0) {
    FTM_LOGD(TAG "%s: %s cannot be set\n", caller, kSession);
    return false;
  }
  __system_property_set(kSessionCopy, copy);  // nobody acts on it
  return true;
}

static bool start_thread(Tone* tone, const char* caller) {
  FTM_LOGD(TAG "%s: loudspeaker_play_thread\n", caller);
  if (tone->thread_started) {
    // Ended by the second party without a stop command, or about to: nobody will join it any more.
    pthread_detach(tone->thread);
    tone->thread_started = false;
  }
  for (int attempt = 1; attempt <= tone->thread_attempts; ++attempt) {
    if (pthread_create(&tone->thread, nullptr, loudspeaker_play_thread, tone) == 0) {
      tone->thread_started = true;
      return true;
    }
    if (attempt > 1 || tone->thread_attempts == 1) {
      FTM_LOGD(TAG "%s: loudspeaker_play_thread create fail!\n", caller);
    }
  }
  return false;
}

void tone_start(Tone* tone, const char* caller) {
  char session[PROP_VALUE_MAX];
  char copy[PROP_VALUE_MAX];
  property_get(kSession, session, kUnset);
  FTM_LOGD(TAG "%s: temp=%s\n", caller, session);
  property_get(kSessionCopy, copy, kUnset);
  FTM_LOGD(TAG "%s: %s=%s\n", caller, kSessionCopy, copy);
  if (!is_one_of(session, {kUnset, "cmd_finish", "cmd_off"})) {
    if (tone->repeat_reply != nullptr) {
      at_send_result(tone->repeat_reply);
    }
    FTM_LOGD(TAG "%s: repeat cmd\n", caller);
    return;
  }
  FTM_LOGD(TAG "%s: first cmd\n", caller);
  if (set_session("cmd_on", "cmd1_on", caller) && start_thread(tone, caller)) {
    return;  // the thread replies
  }
  if (tone->replies_thread_failure) {
    FTM_LOGD(TAG "%s: loudspeaker_play_thread try create fail!\n", caller);
    at_send_result("THREAD_CREAT_FAIL\n");
  }
}

static void log_session(const char* caller) {
  char session[PROP_VALUE_MAX];
  property_get(kSession, session, kUnset);
  FTM_LOGD(TAG "%s: temp=%s\n", caller, session);
}

void tone_stop(Tone* tone, const char* caller) {
  if (!tone_has_route(tone)) {
    FTM_LOGD(TAG "%s: audio route not init!\n", caller);
    at_send_result("ERROR\n");
    return;
  }
  log_session(caller);
  if (!set_session("cmd_off", "cmd1_off", caller)) {
    // The word that ends the thread cannot come: the session goes on, until a stop that is heard.
    at_send_result("ERROR\n");
    return;
  }
  log_session(caller);
  if (tone->thread_started) {
    if (pthread_join(tone->thread, nullptr) == 0) {
      FTM_LOGD(TAG "%s: thread_result ok\n", caller);
      tone->thread_started = false;
    } else {
      FTM_LOGD(TAG "%s: thread_result fail\n", caller);
    }
  }
  at_send_result("OK\r\n");
  usleep(kBeforeResetUs);
  reset_path(tone);
}
