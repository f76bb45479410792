// The test tone on the loudspeaker: the path "ftm-loudspeaker-test" and an external player on a
// thread of its own, which a second party steers through the system property
// "vendor.norva.mm.ftm_spk". The loudspeaker module and the amplifier self-check each have one.

#pragma once

#include <pthread.h>

#include <mutex>

#include "audio_route/audio_route.h"

struct Tone {
  // How the users differ.
  const char* repeat_reply;  // to a start while a session runs; null for none
  int thread_attempts;
  bool replies_thread_failure;

  // The play thread's work on the route and the command thread's exclude each other.
  std::mutex route_mutex = {};
  UniqueAudioRoute route = nullptr;

  // The command thread's alone.
  pthread_t thread = {};
  bool thread_started = false;
};

bool tone_has_route(Tone* tone);
// Opens a new route and makes it the tone's, which has none when that fails. True on success.
bool tone_open_route(Tone* tone);
void tone_close_route(Tone* tone);

// Starts a session, or finds one running. The play thread replies when the player has started; its
// failures are its replies, too. A session property that cannot be set is as a thread that cannot
// be made. caller's name stands in the log lines.
void tone_start(Tone* tone, const char* caller);

// Ends the session, waits for the play thread and resets the path. The thread ends only when the
// second party has set the property to "cmd_finish", so this can wait for good. When the property
// cannot be set all stays as it is. Replies.
void tone_stop(Tone* tone, const char* caller);
