// A phone without a property.

#include <sys/system_properties.h>

int __system_property_get(const char* name, char* value) {
  value[0] = '\0';
  return 0;
}

int __system_property_set(const char* name, const char* value) {
  return -1;
}
