// One form for calls that a kernel has in several: the one that every architecture has. What looks
// at a trapped call knows only that.

#pragma once

#include "handset/links/supervisor.h"

namespace handset {

// A call on a path becomes the one that takes the path's folder, too: unlink(path) is
// unlinkat(AT_FDCWD, path, 0).
void use_common_form(TrappedCall* call);

// Whether a clone or clone3 makes a thread and no process.
bool makes_thread(const TrappedCall& call);

}  // namespace handset
