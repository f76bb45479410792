// What the kernel's device classes make of a write to one of their nodes, for those that the daemon
// writes.

#pragma once

#include "handset/links/nodes.h"

namespace handset {

// Before the nodes are served. nodes must outlive what they serve.
void serve_class_nodes(Nodes* nodes);

}  // namespace handset
