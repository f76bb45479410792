// SIGINT, SIGTERM and SIGHUP end the program the way that cleans up: they are noted, and every loop
// looks. A second one ends it at once.

#pragma once

namespace handset {

// From now on. Once, before the first thread.
void catch_endings();

// The number of the signal that came, 0 for none.
int ending();

// Becomes readable when one comes, for poll.
int ending_descriptor();

}  // namespace handset
