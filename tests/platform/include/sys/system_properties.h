// The property calls that the daemon uses, as a phone's header declares them.

#pragma once

#define PROP_VALUE_MAX 92

#ifdef __cplusplus
extern "C" {
#endif

int __system_property_get(const char* name, char* value);
int __system_property_set(const char* name, const char* value);

#ifdef __cplusplus
}
#endif
