// Phones that are broken in one way each, by folders that lie over the healthy one: "about" says in
// one line what is broken and which commands show it, "script" has dot lines for what files cannot
// say, and the rest is a profile (see root.h).

#pragma once

#include <ostream>
#include <string>

#include "handset/handset.h"

namespace handset {

// Breaks a phone, whether its daemon runs or not, in the way of the handset's own folder of that
// name, or of any folder when the name has a slash. Throws std::exception with one line that says
// what of it cannot be done.
void break_phone(Handset* phone, const std::string& name);

// The names of the handset's own, each with its "about".
void print_broken_phones(std::ostream& out);

}  // namespace handset
