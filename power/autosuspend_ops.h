// The suspend engine behind its front: one table of operations, one engine in the process. Enable
// and disable are called by one thread at a time.

#pragma once

struct AutosuspendOps {
  // Lets the suspend thread go on, and starts it the first time. Each call adds one permission.
  // Returns 0, or a negative number when the engine cannot be set up; the next call tries again.
  int (*enable)();
  // Takes one permission back, waiting until no suspend is in progress. Returns 0, also when
  // nothing was ever enabled, or a negative number.
  int (*disable)();
  // Suspends once, at once, whatever the wakeup count. The time-out is only logged. Returns 0 after
  // the resume, or -1.
  int (*force_suspend)(int timeout_ms);
  // Sets the function that the suspend thread tells the outcome of each suspend. The first one set
  // stays.
  void (*set_wakeup_callback)(void (*callback)(bool success));
};

// The table of the engine that suspends by the kernel's wakeup count. Never null.
const AutosuspendOps* autosuspend_wakeup_count_init();
