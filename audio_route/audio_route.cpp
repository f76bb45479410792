// The mixer path engine: the card's state and the work on paths; see audio_route.h.

#include "audio_route/audio_route.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "audio_route/log.h"
#include "audio_route/mixer_path_xml.h"
#include "audio_route/mixer_paths.h"

static const char kDefaultFile[] = "/system/etc/mixer_paths.xml";

static_assert(sizeof(long) == sizeof(int64_t),
              "the mixer's BOOL and INT elements are 64 bits wide");

static uint32_t type_of(const mixer_state& state) {
  return mixer_ctl_get_type(state.ctl);
}

static size_t value_bytes(const mixer_state& state) {
  return state.num_values * mixer_value_width(type_of(state));
}

// False when memory is short.
static bool read_state(mixer_state* state) {
  const uint32_t type = type_of(*state);
  if (type >= kHandledTypes) {
    return true;
  }
  for (void** values : {&state->old_value, &state->new_value, &state->reset_value}) {
    // One element at least, so that no control's arrays are null.
    *values = calloc(std::max(state->num_values, 1U), mixer_value_width(type));
    if (*values == nullptr) {
      return false;
    }
  }
  if (type == MIXER_CTL_TYPE_ENUM) {
    *static_cast<uint32_t*>(state->old_value) =
        static_cast<uint32_t>(mixer_ctl_get_value(state->ctl, 0));
  } else {
    mixer_ctl_get_array(state->ctl, state->old_value, state->num_values);
  }
  memcpy(state->new_value, state->old_value, value_bytes(*state));
  return true;
}

static bool read_states(audio_route* route) {
  route->num_mixer_ctls = mixer_get_num_ctls(route->mixer);
  route->mixer_state =
      static_cast<mixer_state*>(calloc(std::max(route->num_mixer_ctls, 1U), sizeof(mixer_state)));
  if (route->mixer_state == nullptr) {
    route->num_mixer_ctls = 0;
    return false;
  }
  for (uint32_t i = 0; i < route->num_mixer_ctls; ++i) {
    mixer_state* state = &route->mixer_state[i];
    state->ctl = mixer_get_ctl(route->mixer, i);
    state->num_values = mixer_ctl_get_num_values(state->ctl);
    if (!read_state(state)) {
      return false;
    }
  }
  return true;
}

audio_route* audio_route_init(unsigned int card, const char* xml_path) {
  UniqueAudioRoute route(static_cast<audio_route*>(calloc(1, sizeof(audio_route))));
  if (route == nullptr) {
    return nullptr;
  }
  route->mixer = mixer_open(card);
  if (route->mixer == nullptr) {
    ROUTE_LOGE("Unable to open the mixer, aborting.");
    return nullptr;
  }
  if (!read_states(route.get()) ||
      !read_mixer_paths(route.get(), xml_path == nullptr ? kDefaultFile : xml_path)) {
    return nullptr;
  }
  audio_route_update_mixer(route.get());
  for (uint32_t i = 0; i < route->num_mixer_ctls; ++i) {
    const mixer_state& state = route->mixer_state[i];
    if (type_of(state) < kHandledTypes) {
      memcpy(state.reset_value, state.new_value, value_bytes(state));
    }
  }
  return route.release();
}

void audio_route_free(audio_route* route) {
  if (route == nullptr) {
    return;
  }
  free_mixer_state(route);
  if (route->mixer != nullptr) {
    mixer_close(route->mixer);
  }
  path_free(route);
  free(route);
}

static const mixer_path* wanted_path(const audio_route* route, const char* name) {
  if (route == nullptr) {
    ROUTE_LOGE("invalid audio_route");
    return nullptr;
  }
  const mixer_path* path = find_path(route, name);
  if (path == nullptr) {
    ROUTE_LOGE("unable to find path '%s'", name);
  }
  return path;
}

int audio_route_apply_path(audio_route* route, const char* name) {
  const mixer_path* path = wanted_path(route, name);
  if (path == nullptr) {
    return -1;
  }
  ROUTE_LOGD("Apply path: %s", path->name);
  for (uint32_t i = 0; i < path->length; ++i) {
    const path_setting& setting = path->setting[i];
    memcpy(route->mixer_state[setting.ctl_index].new_value, setting.value,
           setting.num_values * mixer_value_width(setting.type));
  }
  return 0;
}

int audio_route_reset_path(audio_route* route, const char* name) {
  const mixer_path* path = wanted_path(route, name);
  if (path == nullptr) {
    return -1;
  }
  for (uint32_t i = 0; i < path->length; ++i) {
    const mixer_state& state = route->mixer_state[path->setting[i].ctl_index];
    memcpy(state.new_value, state.reset_value, value_bytes(state));
  }
  return 0;
}

static void write_control(const mixer_state& state) {
  switch (const uint32_t type = type_of(state); type) {
    case MIXER_CTL_TYPE_BOOL:
    case MIXER_CTL_TYPE_INT:
    case MIXER_CTL_TYPE_BYTE:
      mixer_ctl_set_array(state.ctl, state.new_value, state.num_values);
      break;
    case MIXER_CTL_TYPE_ENUM:
      // Only the first value: kept as it stands.
      mixer_ctl_set_value(state.ctl, 0, static_cast<int>(*static_cast<uint32_t*>(state.new_value)));
      break;
    default:
      __android_log_assert(nullptr, "audio_route",
                           "Unsupported mixer ctl type: %d, check type before calling",
                           static_cast<int>(type));
  }
  memcpy(state.old_value, state.new_value, value_bytes(state));
}

static bool differs(const mixer_state& state) {
  return memcmp(state.new_value, state.old_value, value_bytes(state)) != 0;
}

static void count_use(mixer_state* state, int mode) {
  if (mode == kAudioRouteApply) {
    ++state->active_count;
  } else if (mode == kAudioRouteForceReset) {
    state->active_count = 0;
  } else if (state->active_count > 0) {
    --state->active_count;
  }
}

int audio_route_update_path(audio_route* route, const char* name, int mode) {
  const mixer_path* path = wanted_path(route, name);
  if (path == nullptr) {
    return -1;
  }
  for (uint32_t i = 0; i < path->length; ++i) {
    const uint32_t at = mode == kAudioRouteApply ? i : path->length - 1 - i;
    mixer_state* state = &route->mixer_state[path->setting[at].ctl_index];
    count_use(state, mode);
    if (!differs(*state)) {
      continue;
    }
    if (mode == kAudioRouteApply || state->active_count == 0) {
      write_control(*state);
    } else {
      ROUTE_LOGD(
          "%s: skip to reset mixer control '%s' in path '%s' because it is still needed by other "
          "paths",
          __func__, mixer_ctl_get_name(state->ctl), path->name);
      memcpy(state->new_value, state->old_value, value_bytes(*state));
    }
  }
  return 0;
}

int audio_route_apply_and_update_path(audio_route* route, const char* name) {
  if (audio_route_apply_path(route, name) < 0) {
    return -1;
  }
  return audio_route_update_path(route, name, kAudioRouteApply);
}

int audio_route_force_reset_and_update_path(audio_route* route, const char* name) {
  if (audio_route_reset_path(route, name) < 0) {
    return -1;
  }
  return audio_route_update_path(route, name, kAudioRouteForceReset);
}

int audio_route_update_mixer(audio_route* route) {
  if (route == nullptr) {
    ROUTE_LOGE("invalid audio_route");
    return -1;
  }
  for (uint32_t i = 0; i < route->num_mixer_ctls; ++i) {
    const mixer_state& state = route->mixer_state[i];
    if (type_of(state) < kHandledTypes && differs(state)) {
      write_control(state);
    }
  }
  return 0;
}
