// The engine's records: widths, look-up by name, release; see mixer_paths.h.

#include "audio_route/mixer_paths.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>

size_t mixer_value_width(uint32_t type) {
  static constexpr size_t kWidths[kHandledTypes] = {
      sizeof(int64_t),   // BOOL
      sizeof(int64_t),   // INT
      sizeof(uint32_t),  // ENUM: item index
      sizeof(uint8_t),   // BYTE
  };
  return kWidths[type];
}

void free_mixer_state(audio_route* route) {
  for (uint32_t i = 0; i < route->num_mixer_ctls; ++i) {
    free(route->mixer_state[i].old_value);
    free(route->mixer_state[i].new_value);
    free(route->mixer_state[i].reset_value);
  }
  free(route->mixer_state);
  route->mixer_state = nullptr;
  route->num_mixer_ctls = 0;
}

void path_free(audio_route* route) {
  for (uint32_t i = 0; i < route->num_mixer_paths; ++i) {
    mixer_path* path = &route->mixer_path[i];
    free(path->name);
    for (uint32_t j = 0; j < path->length; ++j) {
      free(path->setting[j].value);
    }
    free(path->setting);
  }
  free(route->mixer_path);
  free(route->paths_by_name);
  route->mixer_path = nullptr;
  route->paths_by_name = nullptr;
  route->mixer_path_size = 0;
  route->num_mixer_paths = 0;
}

uint32_t path_place(const audio_route* route, const char* name) {
  const uint32_t* first = route->paths_by_name;
  const uint32_t* last = first + route->num_mixer_paths;
  const uint32_t* place = std::lower_bound(first, last, name, [&](uint32_t path, const char* text) {
    return strcmp(route->mixer_path[path].name, text) < 0;
  });
  return static_cast<uint32_t>(place - first);
}

const mixer_path* find_path(const audio_route* route, const char* name) {
  const uint32_t place = path_place(route, name);
  if (place == route->num_mixer_paths) {
    return nullptr;
  }
  const mixer_path* path = &route->mixer_path[route->paths_by_name[place]];
  return strcmp(path->name, name) == 0 ? path : nullptr;
}
