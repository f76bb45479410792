// Reads a mixer path file: the element handlers and the read loop; see mixer_path_xml.h. Whatever
// an element gets wrong is logged and passed over. The look-ups made per element do not grow with
// the card or the file, except the mixer library's own by name.

#include "audio_route/mixer_path_xml.h"

#include <errno.h>
#include <expat.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>

#include "audio_route/log.h"
#include "core/file_utils.h"
#include "core/unique.h"

static constexpr int kReadSize = 1024;
static constexpr uint32_t kFirstGrowth = 8;
static constexpr int kAllElements = -1;  // a ctl without an id; a negative id never gets this far

// Where a control stands: its index on the card, and its setting in the path that was last seen to
// hold one.
struct KnownControl {
  const mixer_ctl* ctl;
  uint32_t index;
  uint32_t path_mark;  // number of that path plus one; 0 for none
  uint32_t setting;
};

struct xml_parse_state {
  audio_route* route;
  mixer_path* path;  // the current one, or null
  int depth;
  KnownControl* known;  // sorted by address, one for each control
};

struct CtlAttributes {
  const char* name;
  const char* id;
  const char* value;
};

struct FreeParser {
  void operator()(XML_Parser parser) const {
    XML_ParserFree(parser);
  }
};

// Makes room for one more element: 8 at first, then twice as many. False when memory is short;
// nothing has then changed.
template <typename Element>
static bool grow(Element** array, uint32_t size) {
  const uint32_t next = size == 0 ? kFirstGrowth : size * 2;
  auto* grown = static_cast<Element*>(reallocarray(*array, next, sizeof(Element)));
  if (grown != nullptr) {
    *array = grown;
  }
  return grown != nullptr;
}

static void grown(uint32_t* size) {
  *size = *size == 0 ? kFirstGrowth : *size * 2;
}

static KnownControl* known_control(const xml_parse_state& state, const mixer_ctl* ctl) {
  KnownControl* end = state.known + state.route->num_mixer_ctls;
  KnownControl* found = std::lower_bound(
      state.known, end, ctl,
      [](const KnownControl& k, const mixer_ctl* c) { return std::less<>()(k.ctl, c); });
  return found != end && found->ctl == ctl ? found : nullptr;
}

static KnownControl* make_known_controls(const audio_route& route) {
  auto* known =
      static_cast<KnownControl*>(calloc(std::max(route.num_mixer_ctls, 1U), sizeof(KnownControl)));
  if (known == nullptr) {
    return nullptr;
  }
  for (uint32_t i = 0; i < route.num_mixer_ctls; ++i) {
    known[i].ctl = route.mixer_state[i].ctl;
    known[i].index = i;
  }
  std::sort(known, known + route.num_mixer_ctls, [](const KnownControl& a, const KnownControl& b) {
    return std::less<>()(a.ctl, b.ctl);
  });
  return known;
}

// ---- paths and their settings

static uint32_t path_mark(const xml_parse_state& state) {
  return static_cast<uint32_t>(state.path - state.route->mixer_path) + 1;
}

static path_setting* find_setting(const xml_parse_state& state, const KnownControl& control) {
  return control.path_mark == path_mark(state) ? &state.path->setting[control.setting] : nullptr;
}

// Adds a setting with zeroed values to the current path; null, logged, when memory is short.
static path_setting* add_setting(xml_parse_state* state, KnownControl* control) {
  mixer_path* path = state->path;
  const mixer_state& of = state->route->mixer_state[control->index];
  const uint32_t type = mixer_ctl_get_type(of.ctl);
  void* value = calloc(std::max(of.num_values, 1U), mixer_value_width(type));
  if (value == nullptr || (path->length == path->size && !grow(&path->setting, path->size))) {
    ROUTE_LOGE("Unable to allocate more path settings");
    free(value);
    return nullptr;
  }
  if (path->length == path->size) {
    grown(&path->size);
  }
  control->path_mark = path_mark(*state);
  control->setting = path->length;
  path_setting* setting = &path->setting[path->length++];
  *setting = {control->index, of.num_values, type, value};
  return setting;
}

// Makes room for one more path in both arrays.
static bool grow_paths(audio_route* route) {
  if (route->num_mixer_paths < route->mixer_path_size) {
    return true;
  }
  if (!grow(&route->mixer_path, route->mixer_path_size) ||
      !grow(&route->paths_by_name, route->mixer_path_size)) {
    return false;
  }
  grown(&route->mixer_path_size);
  return true;
}

static mixer_path* path_create(audio_route* route, const char* name) {
  if (find_path(route, name) != nullptr) {
    ROUTE_LOGE("Path name '%s' already exists", name);
    return nullptr;
  }
  char* owned_name = strdup(name);
  if (owned_name == nullptr || !grow_paths(route)) {
    ROUTE_LOGE("Unable to allocate more paths");
    free(owned_name);
    return nullptr;
  }
  const uint32_t place = path_place(route, name);
  uint32_t* slot = route->paths_by_name + place;
  memmove(slot + 1, slot, (route->num_mixer_paths - place) * sizeof(*slot));
  *slot = route->num_mixer_paths;
  mixer_path* path = &route->mixer_path[route->num_mixer_paths++];
  *path = {owned_name, 0, 0, nullptr};
  return path;
}

static void include_path(xml_parse_state* state, const char* name) {
  const mixer_path* included = find_path(state->route, name);
  if (included == nullptr) {
    ROUTE_LOGE("unable to find sub path '%s'", name);
    return;
  }
  if (state->path == nullptr) {
    return;
  }
  // A path that includes itself stops at its first setting, so its array never moves in here.
  for (uint32_t i = 0; i < included->length; ++i) {
    const path_setting& from = included->setting[i];
    mixer_ctl* ctl = state->route->mixer_state[from.ctl_index].ctl;
    KnownControl* control = known_control(*state, ctl);
    if (find_setting(*state, *control) != nullptr) {
      ROUTE_LOGE("Control '%s' already exists in path '%s'", mixer_ctl_get_name(ctl),
                 state->path->name);
      return;
    }
    const path_setting* copy = add_setting(state, control);
    if (copy == nullptr) {
      return;
    }
    memcpy(copy->value, from.value, from.num_values * mixer_value_width(from.type));
  }
}

static void start_path(xml_parse_state* state, const char* name) {
  if (name == nullptr) {
    ROUTE_LOGE("Unnamed path!");
  } else if (state->depth == 1) {
    state->path = path_create(state->route, name);
    if (state->path == nullptr) {
      ROUTE_LOGE("path created failed, please check the path if existed");
    }
  } else {
    include_path(state, name);
  }
}

// ---- controls

static int64_t enum_string_to_value(mixer_ctl* ctl, const char* text) {
  if (text == nullptr) {
    ROUTE_LOGE("NULL enum value string passed to mixer_enum_string_to_value() for ctl %s",
               mixer_ctl_get_name(ctl));
    return 0;
  }
  const unsigned int items = mixer_ctl_get_num_enums(ctl);
  for (unsigned int i = 0; i < items; ++i) {
    const char* item = mixer_ctl_get_enum_string(ctl, i);
    if (item != nullptr && strcmp(item, text) == 0) {
      return i;
    }
  }
  ROUTE_LOGE("unknown enum value string %s for ctl %s", text, mixer_ctl_get_name(ctl));
  return 0;
}

static int64_t parse_value(mixer_ctl* ctl, const char* text) {
  switch (mixer_ctl_get_type(ctl)) {
    case MIXER_CTL_TYPE_BOOL:
    case MIXER_CTL_TYPE_INT:
      return text == nullptr ? 0 : strtol(text, nullptr, 0);
    case MIXER_CTL_TYPE_ENUM:
      return enum_string_to_value(ctl, text);
    case MIXER_CTL_TYPE_BYTE:
      return text == nullptr ? 0 : static_cast<uint8_t>(strtol(text, nullptr, 16));
    default:
      return 0;
  }
}

static void store(void* values, uint32_t type, uint32_t element, int64_t value) {
  switch (type) {
    case MIXER_CTL_TYPE_ENUM:
      static_cast<uint32_t*>(values)[element] = static_cast<uint32_t>(value);
      break;
    case MIXER_CTL_TYPE_BYTE:
      static_cast<uint8_t*>(values)[element] = static_cast<uint8_t>(value);
      break;
    default:
      static_cast<int64_t*>(values)[element] = value;
  }
}

static void store_wanted(void* values, uint32_t type, uint32_t num_values, int id, int64_t value) {
  if (id != kAllElements) {
    store(values, type, static_cast<uint32_t>(id), value);
    return;
  }
  for (uint32_t i = 0; i < num_values; ++i) {
    store(values, type, i, value);
  }
}

static bool in_range(const char* id_text, int id, uint32_t num_values) {
  return id_text == nullptr || (id >= 0 && static_cast<uint32_t>(id) < num_values);
}

static void set_default(const mixer_state& of, const CtlAttributes& attributes, int id,
                        int64_t value) {
  const uint32_t type = mixer_ctl_get_type(of.ctl);
  if (type >= kHandledTypes) {
    return;
  }
  if (!in_range(attributes.id, id, of.num_values)) {
    ROUTE_LOGE("value id out of range for mixer ctl '%s'", mixer_ctl_get_name(of.ctl));
    return;
  }
  store_wanted(of.new_value, type, of.num_values, id, value);
}

static void set_in_path(xml_parse_state* state, KnownControl* control,
                        const CtlAttributes& attributes, int id, int64_t value) {
  if (state->path == nullptr) {
    return;
  }
  const mixer_state& of = state->route->mixer_state[control->index];
  const uint32_t type = mixer_ctl_get_type(of.ctl);
  if (!in_range(attributes.id, id, of.num_values)) {
    ROUTE_LOGE("mixer index %d is out of range for '%s'", id, mixer_ctl_get_name(of.ctl));
    return;
  }
  path_setting* setting = find_setting(*state, *control);
  if (setting == nullptr) {
    if (type >= kHandledTypes) {
      ROUTE_LOGE("unsupported type %d", static_cast<int>(type));
      return;
    }
    setting = add_setting(state, control);
    if (setting == nullptr) {
      return;
    }
    // Also when another element is named: kept as it stands.
    store(setting->value, type, 0, value);
  }
  store_wanted(setting->value, type, setting->num_values, id, value);
}

static void start_ctl(xml_parse_state* state, const CtlAttributes& attributes) {
  mixer_ctl* ctl = attributes.name == nullptr
                       ? nullptr
                       : mixer_get_ctl_by_name(state->route->mixer, attributes.name);
  KnownControl* control = ctl == nullptr ? nullptr : known_control(*state, ctl);
  if (control == nullptr) {
    ROUTE_LOGE("Control '%s' doesn't exist - skipping",
               attributes.name == nullptr ? "(null)" : attributes.name);
    return;
  }
  const int64_t value = parse_value(ctl, attributes.value);
  const int id = attributes.id == nullptr ? kAllElements : parse_int(attributes.id);
  if (state->depth == 1) {
    set_default(state->route->mixer_state[control->index], attributes, id, value);
  } else {
    set_in_path(state, control, attributes, id, value);
  }
}

// ---- parsing

static void XMLCALL start_tag(void* data, const XML_Char* element, const XML_Char** pairs) {
  auto* state = static_cast<xml_parse_state*>(data);
  CtlAttributes attributes = {};
  for (; pairs[0] != nullptr; pairs += 2) {
    if (strcmp(pairs[0], "name") == 0) {
      attributes.name = pairs[1];
    } else if (strcmp(pairs[0], "id") == 0) {
      attributes.id = pairs[1];
    } else if (strcmp(pairs[0], "value") == 0) {
      attributes.value = pairs[1];
    }
  }
  if (strcmp(element, "path") == 0) {
    start_path(state, attributes.name);
  } else if (strcmp(element, "ctl") == 0) {
    start_ctl(state, attributes);
  }
  ++state->depth;
}

static void XMLCALL end_tag(void* data, const XML_Char*) {
  --static_cast<xml_parse_state*>(data)->depth;
}

bool read_mixer_paths(audio_route* route, const char* file) {
  const UniqueFd fd(open(file, O_RDONLY | O_CLOEXEC));
  if (!fd.ok()) {
    ROUTE_LOGE("Failed to open %s: %s", file, strerror(errno));
    return false;
  }
  const std::unique_ptr<XML_ParserStruct, FreeParser> parser(XML_ParserCreate(nullptr));
  if (parser == nullptr) {
    ROUTE_LOGE("Failed to create XML parser");
    return false;
  }
  const std::unique_ptr<KnownControl, FreeMemory> known(make_known_controls(*route));
  if (known == nullptr) {
    return false;
  }
  xml_parse_state state = {route, nullptr, 0, known.get()};
  XML_SetUserData(parser.get(), &state);
  XML_SetElementHandler(parser.get(), start_tag, end_tag);
  for (;;) {
    void* buffer = XML_GetBuffer(parser.get(), kReadSize);
    if (buffer == nullptr) {
      return false;
    }
    const ssize_t count = read(fd.get(), buffer, kReadSize);
    if (count < 0) {
      return false;
    }
    if (XML_ParseBuffer(parser.get(), static_cast<int>(count), count == 0) != XML_STATUS_OK) {
      // The default file is named whichever was read: the text is kept as it stands.
      ROUTE_LOGE("Error in mixer xml (%s)", "/system/etc/mixer_paths.xml");
      return false;
    }
    if (count == 0) {
      return true;
    }
  }
}
