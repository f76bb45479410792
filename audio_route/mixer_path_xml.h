// The mixer path file.

#pragma once

#include "audio_route/mixer_paths.h"

// Parses the file and fills the paths and the defaults (as wanted values). False, with a log line,
// when it cannot be opened or is no XML; also when it cannot be read. Everything else is logged
// and passed over.
bool read_mixer_paths(audio_route* route, const char* file);
