// The mixer calls of tinyalsa 2 that the daemon uses.

#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

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

struct mixer* mixer_open(unsigned int card);
void mixer_close(struct mixer* mixer);
unsigned int mixer_get_num_ctls(const struct mixer* mixer);
struct mixer_ctl* mixer_get_ctl(struct mixer* mixer, unsigned int id);
struct mixer_ctl* mixer_get_ctl_by_name(struct mixer* mixer, const char* name);
const char* mixer_ctl_get_name(const struct mixer_ctl* ctl);
enum mixer_ctl_type mixer_ctl_get_type(const struct mixer_ctl* ctl);
unsigned int mixer_ctl_get_num_values(const struct mixer_ctl* ctl);
unsigned int mixer_ctl_get_num_enums(const struct mixer_ctl* ctl);
const char* mixer_ctl_get_enum_string(struct mixer_ctl* ctl, unsigned int enum_id);
int mixer_ctl_get_value(const struct mixer_ctl* ctl, unsigned int id);
int mixer_ctl_get_array(const struct mixer_ctl* ctl, void* array, size_t count);
int mixer_ctl_set_value(struct mixer_ctl* ctl, unsigned int id, int value);
int mixer_ctl_set_array(struct mixer_ctl* ctl, const void* array, size_t count);
int mixer_ctl_set_enum_by_string(struct mixer_ctl* ctl, const char* string);

#ifdef __cplusplus
}
#endif
