// The fake sound card; see fake_tinyalsa.h. What the engine should never ask ends the test.

#include "tests/unit/fake_tinyalsa.h"

#include <stdlib.h>

FakeCard fake_card;

struct mixer {};
static mixer the_mixer;

mixer* mixer_open(unsigned int) {
  if (!fake_card.present) {
    return nullptr;
  }
  fake_card.by_name.clear();
  for (mixer_ctl& ctl : fake_card.controls) {
    fake_card.by_name.emplace(ctl.name, &ctl);
  }
  ++fake_card.open_mixers;
  return &the_mixer;
}

void mixer_close(mixer*) {
  --fake_card.open_mixers;
}

unsigned int mixer_get_num_ctls(const mixer*) {
  return static_cast<unsigned int>(fake_card.controls.size());
}

mixer_ctl* mixer_get_ctl(mixer*, unsigned int id) {
  return &fake_card.controls.at(id);
}

mixer_ctl* mixer_get_ctl_by_name(mixer*, const char* name) {
  const auto found = fake_card.by_name.find(name);
  return found == fake_card.by_name.end() ? nullptr : found->second;
}

const char* mixer_ctl_get_name(const mixer_ctl* ctl) {
  return ctl->name.c_str();
}

mixer_ctl_type mixer_ctl_get_type(const mixer_ctl* ctl) {
  return ctl->type;
}

unsigned int mixer_ctl_get_num_values(const mixer_ctl* ctl) {
  return static_cast<unsigned int>(ctl->values.size());
}

unsigned int mixer_ctl_get_num_enums(const mixer_ctl* ctl) {
  return static_cast<unsigned int>(ctl->items.size());
}

const char* mixer_ctl_get_enum_string(mixer_ctl* ctl, unsigned int id) {
  return ctl->items.at(id).c_str();
}

int mixer_ctl_get_value(const mixer_ctl* ctl, unsigned int id) {
  return static_cast<int>(ctl->values.at(id));
}

static void record(const mixer_ctl& ctl) {
  std::string text = ctl.name + " =";
  for (const long value : ctl.values) {
    text.append(" ").append(std::to_string(value));
  }
  fake_card.writes.push_back(text);
}

int mixer_ctl_set_value(mixer_ctl* ctl, unsigned int id, int value) {
  ctl->values.at(id) = value;
  record(*ctl);
  return 0;
}

static bool has_array(const mixer_ctl& ctl) {
  return ctl.type == MIXER_CTL_TYPE_BOOL || ctl.type == MIXER_CTL_TYPE_INT ||
         ctl.type == MIXER_CTL_TYPE_BYTE;
}

int mixer_ctl_get_array(const mixer_ctl* ctl, void* array, size_t count) {
  if (!has_array(*ctl)) {
    abort();
  }
  for (size_t i = 0; i < count; ++i) {
    if (ctl->type == MIXER_CTL_TYPE_BYTE) {
      static_cast<unsigned char*>(array)[i] = static_cast<unsigned char>(ctl->values.at(i));
    } else {
      static_cast<long*>(array)[i] = ctl->values.at(i);
    }
  }
  return 0;
}

int mixer_ctl_set_array(mixer_ctl* ctl, const void* array, size_t count) {
  if (!has_array(*ctl) || count != ctl->values.size()) {
    abort();
  }
  for (size_t i = 0; i < count; ++i) {
    ctl->values[i] = ctl->type == MIXER_CTL_TYPE_BYTE ? static_cast<const unsigned char*>(array)[i]
                                                      : static_cast<const long*>(array)[i];
  }
  record(*ctl);
  return 0;
}
