// The front of the suspend engine: lets the device into system suspend again and again, or keeps it
// out. The sleep module enables on the command worker; its watcher thread disables.

#pragma once

// Takes the before-sleep snapshot, starts the sleep-failure watcher and lets the engine run.
// Returns 0, also when it runs already (nothing is done then), or the engine's negative result; the
// watcher runs in that case, too.
int autosuspend_enable();

// Stops the engine; returns once no suspend is in progress. Returns 0, also when it does not run,
// or the engine's negative result.
int autosuspend_disable();

// Supplied by the program that links the front. The first is called on the thread that enables, the
// second is the body of the watcher thread.
void ftm_before_sleep_info_save();
void* ftm_sleep_fail_info_save_func(void* unused);
