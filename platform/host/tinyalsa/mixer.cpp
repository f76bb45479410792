// The tinyalsa mixer interface over alsa-lib, for a desk: no distribution packs tinyalsa. Card N is
// alsa-lib's "hw:N"; what the card answers is passed on as it is. Without memory a card does not
// open and an item has no text: this file alone is built to catch what the standard library throws
// then.

#include <alsa/asoundlib.h>
#include <errno.h>
#include <string.h>
#include <tinyalsa/asoundlib.h>

#include <algorithm>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

struct mixer_ctl {
  snd_ctl_t* card;
  unsigned int numid;
  std::string name;
  mixer_ctl_type type;
  unsigned int num_values;
  std::vector<std::string> enums;  // asked from the card one by one, at the first use
  unsigned int num_enums;
};

struct CloseCard {
  void operator()(snd_ctl_t* card) const {
    snd_ctl_close(card);
  }
};

struct mixer {
  std::unique_ptr<snd_ctl_t, CloseCard> card;
  std::vector<mixer_ctl> ctls;
  std::unordered_map<std::string_view, mixer_ctl*> by_name;
};

// alsa-lib's own owner of an element list, with what it points to.
struct ElementList {
  ElementList() {
    snd_ctl_elem_list_malloc(&list);
  }
  ~ElementList() {
    if (list != nullptr) {
      snd_ctl_elem_list_free_space(list);
      snd_ctl_elem_list_free(list);
    }
  }
  ElementList(const ElementList&) = delete;
  ElementList& operator=(const ElementList&) = delete;
  snd_ctl_elem_list_t* list = nullptr;
};

static mixer_ctl_type type_of(snd_ctl_elem_type_t type) {
  switch (type) {
    case SND_CTL_ELEM_TYPE_BOOLEAN:
      return MIXER_CTL_TYPE_BOOL;
    case SND_CTL_ELEM_TYPE_INTEGER:
      return MIXER_CTL_TYPE_INT;
    case SND_CTL_ELEM_TYPE_ENUMERATED:
      return MIXER_CTL_TYPE_ENUM;
    case SND_CTL_ELEM_TYPE_BYTES:
      return MIXER_CTL_TYPE_BYTE;
    case SND_CTL_ELEM_TYPE_IEC958:
      return MIXER_CTL_TYPE_IEC958;
    case SND_CTL_ELEM_TYPE_INTEGER64:
      return MIXER_CTL_TYPE_INT64;
    default:
      return MIXER_CTL_TYPE_UNKNOWN;
  }
}

// How many values of a control one read or write carries.
static unsigned int most_values(mixer_ctl_type type) {
  return type == MIXER_CTL_TYPE_BYTE ? 512 : 128;
}

static bool read_controls(mixer* mixer) {
  snd_ctl_t* card = mixer->card.get();
  ElementList elements;
  if (elements.list == nullptr || snd_ctl_elem_list(card, elements.list) < 0) {
    return false;
  }
  const unsigned int count = snd_ctl_elem_list_get_count(elements.list);
  if (snd_ctl_elem_list_alloc_space(elements.list, count) < 0 ||
      snd_ctl_elem_list(card, elements.list) < 0) {
    return false;
  }
  snd_ctl_elem_info_t* info;
  snd_ctl_elem_info_alloca(&info);
  const unsigned int used = snd_ctl_elem_list_get_used(elements.list);
  mixer->ctls.reserve(used);
  for (unsigned int i = 0; i < used; ++i) {
    const unsigned int numid = snd_ctl_elem_list_get_numid(elements.list, i);
    snd_ctl_elem_info_clear(info);
    snd_ctl_elem_info_set_numid(info, numid);
    if (snd_ctl_elem_info(card, info) < 0) {
      return false;
    }
    const mixer_ctl_type type = type_of(snd_ctl_elem_info_get_type(info));
    mixer->ctls.push_back(
        {.card = card,
         .numid = numid,
         .name = snd_ctl_elem_info_get_name(info),
         .type = type,
         .num_values = snd_ctl_elem_info_get_count(info),
         .enums = {},
         .num_enums = type == MIXER_CTL_TYPE_ENUM ? snd_ctl_elem_info_get_items(info) : 0});
  }
  for (mixer_ctl& ctl : mixer->ctls) {
    mixer->by_name.emplace(ctl.name, &ctl);
  }
  return true;
}

// The library's own lines about a card that is not there would stand in the daemon's log.
static void say_nothing(const char*, int, const char*, int, const char*, ...) {}

struct mixer* mixer_open(unsigned int card) try {
  snd_lib_error_set_handler(say_nothing);
  auto made = std::make_unique<mixer>();
  snd_ctl_t* opened = nullptr;
  if (snd_ctl_open(&opened, ("hw:" + std::to_string(card)).c_str(), 0) < 0) {
    return nullptr;
  }
  made->card.reset(opened);
  return read_controls(made.get()) ? made.release() : nullptr;
} catch (const std::bad_alloc&) {
  return nullptr;
}

void mixer_close(struct mixer* mixer) {
  delete mixer;
}

unsigned int mixer_get_num_ctls(const struct mixer* mixer) {
  return mixer == nullptr ? 0 : static_cast<unsigned int>(mixer->ctls.size());
}

struct mixer_ctl* mixer_get_ctl(struct mixer* mixer, unsigned int id) {
  return id < mixer_get_num_ctls(mixer) ? &mixer->ctls[id] : nullptr;
}

struct mixer_ctl* mixer_get_ctl_by_name(struct mixer* mixer, const char* name) {
  if (mixer == nullptr || name == nullptr) {
    return nullptr;
  }
  const auto found = mixer->by_name.find(name);
  return found == mixer->by_name.end() ? nullptr : found->second;
}

const char* mixer_ctl_get_name(const struct mixer_ctl* ctl) {
  return ctl == nullptr ? nullptr : ctl->name.c_str();
}

enum mixer_ctl_type mixer_ctl_get_type(const struct mixer_ctl* ctl) {
  return ctl == nullptr ? MIXER_CTL_TYPE_UNKNOWN : ctl->type;
}

unsigned int mixer_ctl_get_num_values(const struct mixer_ctl* ctl) {
  return ctl == nullptr ? 0 : ctl->num_values;
}

unsigned int mixer_ctl_get_num_enums(const struct mixer_ctl* ctl) {
  return ctl == nullptr ? 0 : ctl->num_enums;
}

const char* mixer_ctl_get_enum_string(struct mixer_ctl* ctl, unsigned int enum_id) try {
  if (enum_id >= mixer_ctl_get_num_enums(ctl)) {
    return nullptr;
  }
  snd_ctl_elem_info_t* info;
  snd_ctl_elem_info_alloca(&info);
  // Reserved whole: texts handed out before must stay where they are.
  ctl->enums.reserve(ctl->num_enums);
  while (ctl->enums.size() <= enum_id) {
    snd_ctl_elem_info_clear(info);
    snd_ctl_elem_info_set_numid(info, ctl->numid);
    snd_ctl_elem_info_set_item(info, static_cast<unsigned int>(ctl->enums.size()));
    if (snd_ctl_elem_info(ctl->card, info) < 0) {
      return nullptr;
    }
    ctl->enums.emplace_back(snd_ctl_elem_info_get_item_name(info));
  }
  return ctl->enums[enum_id].c_str();
} catch (const std::bad_alloc&) {
  return nullptr;
}

static int read_value(const mixer_ctl* ctl, snd_ctl_elem_value_t* value) {
  snd_ctl_elem_value_set_numid(value, ctl->numid);
  return snd_ctl_elem_read(ctl->card, value);
}

static int write_value(const mixer_ctl* ctl, snd_ctl_elem_value_t* value) {
  const int result = snd_ctl_elem_write(ctl->card, value);
  return std::min(result, 0);  // a card says 1 when the value is a new one
}

static bool has_value(const mixer_ctl* ctl, size_t id) {
  return ctl != nullptr && id < ctl->num_values && id < most_values(ctl->type);
}

int mixer_ctl_get_value(const struct mixer_ctl* ctl, unsigned int id) {
  if (!has_value(ctl, id)) {
    return -EINVAL;
  }
  snd_ctl_elem_value_t* value;
  snd_ctl_elem_value_alloca(&value);
  const int result = read_value(ctl, value);
  if (result < 0) {
    return result;
  }
  switch (ctl->type) {
    case MIXER_CTL_TYPE_BOOL:
      return snd_ctl_elem_value_get_boolean(value, id) != 0 ? 1 : 0;
    case MIXER_CTL_TYPE_INT:
      return static_cast<int>(snd_ctl_elem_value_get_integer(value, id));
    case MIXER_CTL_TYPE_ENUM:
      return static_cast<int>(snd_ctl_elem_value_get_enumerated(value, id));
    case MIXER_CTL_TYPE_BYTE:
      return snd_ctl_elem_value_get_byte(value, id);
    default:
      return -EINVAL;
  }
}

int mixer_ctl_set_value(struct mixer_ctl* ctl, unsigned int id, int new_value) {
  if (!has_value(ctl, id)) {
    return -EINVAL;
  }
  snd_ctl_elem_value_t* value;
  snd_ctl_elem_value_alloca(&value);
  const int result = read_value(ctl, value);  // the other values stay
  if (result < 0) {
    return result;
  }
  switch (ctl->type) {
    case MIXER_CTL_TYPE_BOOL:
      snd_ctl_elem_value_set_boolean(value, id, new_value != 0 ? 1 : 0);
      break;
    case MIXER_CTL_TYPE_INT:
      snd_ctl_elem_value_set_integer(value, id, new_value);
      break;
    case MIXER_CTL_TYPE_ENUM:
      snd_ctl_elem_value_set_enumerated(value, id, static_cast<unsigned int>(new_value));
      break;
    case MIXER_CTL_TYPE_BYTE:
      snd_ctl_elem_value_set_byte(value, id, static_cast<unsigned char>(new_value));
      break;
    default:
      return -EINVAL;
  }
  return write_value(ctl, value);
}

int mixer_ctl_get_array(const struct mixer_ctl* ctl, void* array, size_t count) {
  if (array == nullptr || count == 0 || !has_value(ctl, count - 1)) {
    return -EINVAL;
  }
  snd_ctl_elem_value_t* value;
  snd_ctl_elem_value_alloca(&value);
  const int result = read_value(ctl, value);
  if (result < 0) {
    return result;
  }
  if (ctl->type == MIXER_CTL_TYPE_BYTE) {
    memcpy(array, snd_ctl_elem_value_get_bytes(value), count);
    return 0;
  }
  if (ctl->type != MIXER_CTL_TYPE_BOOL && ctl->type != MIXER_CTL_TYPE_INT) {
    return -EINVAL;
  }
  for (size_t i = 0; i < count; ++i) {
    static_cast<long*>(array)[i] =
        snd_ctl_elem_value_get_integer(value, static_cast<unsigned int>(i));
  }
  return 0;
}

int mixer_ctl_set_array(struct mixer_ctl* ctl, const void* array, size_t count) {
  if (array == nullptr || count == 0 || !has_value(ctl, count - 1)) {
    return -EINVAL;
  }
  snd_ctl_elem_value_t* value;
  snd_ctl_elem_value_alloca(&value);
  const int result = read_value(ctl, value);
  if (result < 0) {
    return result;
  }
  if (ctl->type == MIXER_CTL_TYPE_BYTE) {
    snd_ctl_elem_set_bytes(value, const_cast<void*>(array), count);
    return write_value(ctl, value);
  }
  if (ctl->type != MIXER_CTL_TYPE_BOOL && ctl->type != MIXER_CTL_TYPE_INT) {
    return -EINVAL;
  }
  for (size_t i = 0; i < count; ++i) {
    snd_ctl_elem_value_set_integer(value, static_cast<unsigned int>(i),
                                   static_cast<const long*>(array)[i]);
  }
  return write_value(ctl, value);
}

int mixer_ctl_set_enum_by_string(struct mixer_ctl* ctl, const char* string) {
  if (string == nullptr) {
    return -EINVAL;
  }
  for (unsigned int i = 0; i < mixer_ctl_get_num_enums(ctl); ++i) {
    const char* text = mixer_ctl_get_enum_string(ctl, i);
    if (text != nullptr && strcmp(text, string) == 0) {
      return mixer_ctl_set_value(ctl, 0, static_cast<int>(i));
    }
  }
  return -EINVAL;
}
