// The mixer path engine: turns named paths of an XML file into writes of a sound card's mixer
// controls. It knows for every control what the card holds, what it should hold next and what it
// returns to, so that only what changes is written and a control that two paths share stays on
// while either needs it. Used by the audio modules, each with a route of its own.
//
// A route belongs to one thread at a time.

#pragma once

#include <memory>

struct audio_route;

enum AudioRouteMode : int {
  kAudioRouteApply = 0,
  kAudioRouteReset = 1,       // a control that another applied path needs is left alone
  kAudioRouteForceReset = 2,  // whoever needs it
};

// Opens the card's mixer, reads the path file ("/system/etc/mixer_paths.xml" when null) and writes
// its defaults to the card. Null on any failure.
audio_route* audio_route_init(unsigned int card, const char* xml_path);
void audio_route_free(audio_route* route);

// The following return 0, or -1 when the route is null or has no path of that name.

// Mark the path's values (the values to return to) as wanted; nothing is written yet.
int audio_route_apply_path(audio_route* route, const char* name);
int audio_route_reset_path(audio_route* route, const char* name);

// Writes those of the path's controls whose wanted value differs from the card's: in the file's
// order when applying, in the reverse order when resetting.
int audio_route_update_path(audio_route* route, const char* name, int mode);

int audio_route_apply_and_update_path(audio_route* route, const char* name);
int audio_route_force_reset_and_update_path(audio_route* route, const char* name);

// Writes every control whose wanted value differs from the card's. Returns 0.
int audio_route_update_mixer(audio_route* route);

struct FreeAudioRoute {
  void operator()(audio_route* route) const {
    audio_route_free(route);
  }
};
using UniqueAudioRoute = std::unique_ptr<audio_route, FreeAudioRoute>;
