// A property read that finds nothing and has no default, for the daemon that shows what the
// records' readers do then. Takes the place of the core's.

#include "core/properties.h"

int property_get(const char*, char* value, const char*) {
  value[0] = '\0';
  return 0;
}
