// The system property calls for a desk, where no system library brings them. Properties are files
// in /dev/__properties__, one per property, holding the value alone.

#pragma once

#define PROP_VALUE_MAX 92  // bytes of a value, terminator included

// The platform's own names. NOLINTBEGIN(bugprone-reserved-identifier)

#ifdef __cplusplus
extern "C" {
#endif

// Fills value (PROP_VALUE_MAX bytes, terminated) and returns its length; 0 and the empty text when
// the property is not set. Callable from any thread.
int __system_property_get(const char* name, char* value);

// Sets the property; readers see the old value or the new one, never a part. Returns 0, or -1 when
// the name or value is not valid or cannot be stored.
int __system_property_set(const char* name, const char* value);

#ifdef __cplusplus
}
#endif

// NOLINTEND(bugprone-reserved-identifier)
