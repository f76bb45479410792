// A phone without a sound card: no mixer is opened, so that no control is ever asked.

#include <errno.h>
#include <tinyalsa/asoundlib.h>

struct mixer* mixer_open(unsigned int card) {
  return NULL;
}

void mixer_close(struct mixer* mixer) {}

unsigned int mixer_get_num_ctls(const struct mixer* mixer) {
  return 0;
}

struct mixer_ctl* mixer_get_ctl(struct mixer* mixer, unsigned int id) {
  return NULL;
}

struct mixer_ctl* mixer_get_ctl_by_name(struct mixer* mixer, const char* name) {
  return NULL;
}

const char* mixer_ctl_get_name(const struct mixer_ctl* ctl) {
  return NULL;
}

enum mixer_ctl_type mixer_ctl_get_type(const struct mixer_ctl* ctl) {
  return MIXER_CTL_TYPE_UNKNOWN;
}

unsigned int mixer_ctl_get_num_values(const struct mixer_ctl* ctl) {
  return 0;
}

unsigned int mixer_ctl_get_num_enums(const struct mixer_ctl* ctl) {
  return 0;
}

const char* mixer_ctl_get_enum_string(struct mixer_ctl* ctl, unsigned int enum_id) {
  return NULL;
}

int mixer_ctl_get_value(const struct mixer_ctl* ctl, unsigned int id) {
  return -EINVAL;
}

int mixer_ctl_get_array(const struct mixer_ctl* ctl, void* array, size_t count) {
  return -EINVAL;
}

int mixer_ctl_set_value(struct mixer_ctl* ctl, unsigned int id, int value) {
  return -EINVAL;
}

int mixer_ctl_set_array(struct mixer_ctl* ctl, const void* array, size_t count) {
  return -EINVAL;
}

int mixer_ctl_set_enum_by_string(struct mixer_ctl* ctl, const char* string) {
  return -EINVAL;
}
