// System properties read with a default, as the modules ask for them.

#pragma once

#include <sys/system_properties.h>

// Fills value (PROP_VALUE_MAX bytes, terminated) with the property's text, or with fallback when
// the property is unset or empty, and returns the length of what value then holds. fallback may be
// null: value is then left empty. A fallback that is too long is cut. Callable from any thread.
int property_get(const char* name, char* value, const char* fallback);
