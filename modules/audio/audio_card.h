// What the audio modules share about sound card 0: its path file and the patient opening of its
// mixer.

#pragma once

#include <tinyalsa/asoundlib.h>

#include <memory>

#include "audio_route/audio_route.h"

constexpr unsigned int kSoundCard = 0;
constexpr char kMixerPaths[] = "/odm/etc/ftm_mixer_paths.xml";

struct CloseMixer {
  void operator()(mixer* opened) const {
    mixer_close(opened);
  }
};
using UniqueMixer = std::unique_ptr<mixer, CloseMixer>;

// Opens the card's mixer, up to seven times 300 ms apart: the codec can come up after the daemon.
// Null when it stays away. Logs each try and the end under the caller's name.
UniqueMixer open_mixer(const char* caller);

// Whether the path file is there.
bool mixer_paths_exist();
