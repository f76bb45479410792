// Property read with default; see properties.h.

#include "core/properties.h"

#include <string.h>

int property_get(const char* name, char* value, const char* fallback) {
  value[0] = '\0';
  const int length = __system_property_get(name, value);
  if (length > 0) {
    return length;
  }
  const size_t fallback_length =
      fallback == nullptr ? 0 : strnlen(fallback, static_cast<size_t>(PROP_VALUE_MAX) - 1);
  memcpy(value, fallback == nullptr ? "" : fallback, fallback_length);
  value[fallback_length] = '\0';
  return static_cast<int>(fallback_length);
}
