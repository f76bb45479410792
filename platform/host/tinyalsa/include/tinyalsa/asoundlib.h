// The mixer calls of tinyalsa 2 that the daemon uses, as its own header declares them. On a desk
// they are served by mixer.cpp; where tinyalsa is installed, its header and library take this one's
// place.

#pragma once

#include <stddef.h>

struct mixer;
struct mixer_ctl;

enum mixer_ctl_type {
  MIXER_CTL_TYPE_BOOL,
  MIXER_CTL_TYPE_INT,
  MIXER_CTL_TYPE_ENUM,
  MIXER_CTL_TYPE_BYTE,
  MIXER_CTL_TYPE_IEC958,
  MIXER_CTL_TYPE_INT64,
  MIXER_CTL_TYPE_UNKNOWN,
  MIXER_CTL_TYPE_MAX,
};

extern "C" {

// Opens a card's mixer with all its controls, or returns null. A mixer and its controls belong to
// one thread at a time.
struct mixer* mixer_open(unsigned int card);
void mixer_close(struct mixer* mixer);

unsigned int mixer_get_num_ctls(const struct mixer* mixer);
// Controls live as long as their mixer. By index in the card's own order; null beyond the last.
struct mixer_ctl* mixer_get_ctl(struct mixer* mixer, unsigned int id);
// The first control of that name, or null.
struct mixer_ctl* mixer_get_ctl_by_name(struct mixer* mixer, const char* name);

const char* mixer_ctl_get_name(const struct mixer_ctl* ctl);
enum mixer_ctl_type mixer_ctl_get_type(const struct mixer_ctl* ctl);
unsigned int mixer_ctl_get_num_values(const struct mixer_ctl* ctl);
unsigned int mixer_ctl_get_num_enums(const struct mixer_ctl* ctl);
// Null when the control is no enum or has no such item.
const char* mixer_ctl_get_enum_string(struct mixer_ctl* ctl, unsigned int enum_id);

// One value of a BOOL, INT, ENUM (item index) or BYTE control; or a negative errno, which an INT
// value can look like.
int mixer_ctl_get_value(const struct mixer_ctl* ctl, unsigned int id);
int mixer_ctl_set_value(struct mixer_ctl* ctl, unsigned int id, int value);

// The first count values of a BOOL or INT (array of long) or a BYTE (array of bytes) control.
// 0 or a negative errno.
int mixer_ctl_get_array(const struct mixer_ctl* ctl, void* array, size_t count);
int mixer_ctl_set_array(struct mixer_ctl* ctl, const void* array, size_t count);

// Sets an ENUM control's first value to the item of that text.
int mixer_ctl_set_enum_by_string(struct mixer_ctl* ctl, const char* string);
}
