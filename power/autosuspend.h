// The front of the suspend engine: lets the device into system suspend again and again, or keeps it
// out. The sleep module enables on the command worker; its watcher thread disables.

#pragma once

// Calls before_sleep, starts a thread with watcher as its body (argument null) and lets the engine
// run. Returns 0, also when it runs already (nothing is done then), or the engine's negative
// result; the watcher runs in that case, too.
int autosuspend_enable(void (*before_sleep)(), void* (*watcher)(void*));

// Stops the engine; returns once no suspend is in progress. Returns 0, also when it does not run,
// or the engine's negative result.
int autosuspend_disable();
