// The records of the mixer path engine: audio_route.cpp works on them, mixer_path_xml.cpp fills the
// paths.

#pragma once

#include <stddef.h>
#include <stdint.h>
#include <tinyalsa/asoundlib.h>

// What the engine handles: the control types below this one, by their number.
constexpr uint32_t kHandledTypes = MIXER_CTL_TYPE_BYTE + 1;

// One control of the card. The arrays hold num_values elements of the type's width; a control of a
// type that is not handled has none.
struct mixer_state {
  mixer_ctl* ctl;
  uint32_t num_values;
  void* old_value;        // what the card holds
  void* new_value;        // what the next update writes
  void* reset_value;      // what the card held after the file's defaults
  uint32_t active_count;  // how many applied paths need it
};

// What a path sets one control to.
struct path_setting {
  uint32_t ctl_index;  // into mixer_state
  uint32_t num_values;
  uint32_t type;
  void* value;  // as in mixer_state
};

struct mixer_path {
  char* name;
  uint32_t size;  // allocated settings
  uint32_t length;
  path_setting* setting;  // in order of first appearance
};

struct audio_route {
  struct mixer* mixer;
  uint32_t num_mixer_ctls;
  struct mixer_state* mixer_state;  // in the card's order
  uint32_t mixer_path_size;         // allocated paths
  uint32_t num_mixer_paths;
  struct mixer_path* mixer_path;  // in the file's order
  uint32_t* paths_by_name;        // the indexes of mixer_path, sorted by name; mixer_path_size long
};

// Bytes of one element of a handled type.
size_t mixer_value_width(uint32_t type);

// The path's place in paths_by_name, or where it would go.
uint32_t path_place(const audio_route* route, const char* name);
// The path of that name, null when there is none.
const struct mixer_path* find_path(const audio_route* route, const char* name);

// Release the state array and the path array and leave both empty.
void free_mixer_state(audio_route* route);
void path_free(audio_route* route);
