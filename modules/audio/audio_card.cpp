// Sound card 0; see audio_card.h.

#include "modules/audio/audio_card.h"

#include <unistd.h>

#include "core/file_utils.h"
#include "core/log.h"

#define TAG "[FTM-AUDIO]"

static constexpr int kOpenRetries = 6;
static constexpr useconds_t kOpenRetryUs = 300 * 1000;

UniqueMixer open_mixer(const char* caller) {
  UniqueMixer opened(mixer_open(kSoundCard));
  for (int retry = 1; opened == nullptr && retry <= kOpenRetries; ++retry) {
    FTM_LOGD(TAG "%s: mixer init try %d times fail!\n", caller, retry);
    usleep(kOpenRetryUs);
    opened.reset(mixer_open(kSoundCard));
  }
  FTM_LOGD(opened == nullptr ? TAG "%s: mixer init fail.\n" : TAG "%s: mixer init done.\n", caller);
  return opened;
}

bool mixer_paths_exist() {
  return exists(kMixerPaths) == Existence::kThere;
}
