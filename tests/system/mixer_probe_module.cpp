// A module that shows what the desk's mixer makes of a sound card: one row that lists every control
// and one that tries what a mixer must take or refuse. Linked into a daemon of its own.

#include <tinyalsa/asoundlib.h>

#include <string>

#include "core/at.h"

static std::string list_value(mixer_ctl* ctl, unsigned int i) {
  const int value = mixer_ctl_get_value(ctl, i);
  const char* item = mixer_ctl_get_enum_string(ctl, static_cast<unsigned int>(value));
  return item == nullptr ? std::to_string(value) : item;
}

static int at_list(const char*) {
  mixer* card = mixer_open(0);
  for (unsigned int i = 0; i < mixer_get_num_ctls(card); ++i) {
    mixer_ctl* ctl = mixer_get_ctl(card, i);
    std::string text = std::to_string(mixer_ctl_get_type(ctl)) + " " + mixer_ctl_get_name(ctl);
    for (unsigned int j = 0; j < mixer_ctl_get_num_values(ctl); ++j) {
      text.append(" ").append(list_value(ctl, j));
    }
    at_send_result(text.c_str());
  }
  mixer_close(card);
  return 0;
}

static int at_try(const char*) {
  mixer* card = mixer_open(0);
  const auto control = [card](const char* name) { return mixer_get_ctl_by_name(card, name); };
  mixer_ctl* ints = control("Ints");
  mixer_ctl* bytes = control("Bytes");
  mixer_ctl* choice = control("Choice");
  mixer_ctl* digital = control("Digital");
  long numbers[4] = {};
  unsigned char data[4] = {0xff, 0x80, 0, 1};
  const int results[] = {
      mixer_ctl_set_value(ints, 1, -7),
      mixer_ctl_get_array(ints, numbers, 2),
      mixer_ctl_set_array(bytes, data, 3),
      mixer_ctl_set_enum_by_string(choice, "b"),
      mixer_ctl_set_value(control("Switch"), 0, 12),
      // Refused: no such item, element, count, type; the card's range; the card itself.
      mixer_ctl_set_enum_by_string(choice, "B"),
      mixer_ctl_set_enum_by_string(ints, "b"),
      mixer_ctl_set_value(choice, 0, 3),
      mixer_ctl_set_value(ints, 2, 0),
      mixer_ctl_set_value(ints, 0, 101),
      mixer_ctl_get_array(ints, numbers, 3),
      mixer_ctl_set_array(ints, numbers, 0),
      mixer_ctl_get_array(choice, numbers, 1),
      mixer_ctl_get_value(digital, 0),
      mixer_ctl_set_array(digital, data, 1),
      mixer_ctl_set_value(control("Refused"), 0, 1),
      mixer_ctl_get_value(control("Missing"), 0),
  };
  std::string text = std::to_string(numbers[0]) + " " + std::to_string(numbers[1]) + ":";
  for (const int result : results) {
    text.append(" ").append(std::to_string(result));
  }
  at_send_result(text.c_str());
  mixer_close(card);
  return 0;
}

static AtCommand rows[] = {
    {.short_name = "list", .command = "AT+LIST", .handler = at_list},
    {.short_name = "try", .command = "AT+TRY", .handler = at_try},
};

FTM_PLAIN_MODULE(gps, 4, "[FTM-PROBE]", rows)
