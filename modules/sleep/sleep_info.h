// What a sleep test leaves on the partition for those who look for the cause of a failed sleep.

#pragma once

// Takes the snapshot before the phone sleeps, on the thread that enables the suspend engine.
void ftm_before_sleep_info_save();

// The body of the watcher thread: arms the alarm, and when the phone has not slept by then stops
// the suspend engine and takes a snapshot. Takes nothing, returns null.
void* ftm_sleep_fail_info_save_func(void* unused);
