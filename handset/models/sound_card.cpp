// The sound card's model; see sound_card.h.

#include "handset/models/sound_card.h"

#include <errno.h>
#include <sound/asound.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "handset/recent.h"
#include "handset/visible.h"

namespace handset {

// The protocol version that the kernel tells.
static constexpr int kProtocol = (2 << 16) | (0 << 8) | 8;

static const std::pair<const char*, int> kTypes[] = {
    {"BOOL", SNDRV_CTL_ELEM_TYPE_BOOLEAN},    {"INT", SNDRV_CTL_ELEM_TYPE_INTEGER},
    {"ENUM", SNDRV_CTL_ELEM_TYPE_ENUMERATED}, {"BYTE", SNDRV_CTL_ELEM_TYPE_BYTES},
    {"IEC958", SNDRV_CTL_ELEM_TYPE_IEC958},   {"INT64", SNDRV_CTL_ELEM_TYPE_INTEGER64}};

// ---- the description

static std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, separator);) {
    const size_t first = part.find_first_not_of(' ');
    const size_t last = part.find_last_not_of(' ');
    parts.push_back(first == std::string::npos ? "" : part.substr(first, last - first + 1));
  }
  return parts;
}

// An item that is none of the items is -1.
static int64_t value_of(int type, const std::vector<std::string>& items, const std::string& text) {
  if (type == SNDRV_CTL_ELEM_TYPE_ENUMERATED) {
    const auto item = std::find(items.begin(), items.end(), text);
    return item == items.end() ? -1 : std::distance(items.begin(), item);
  }
  return strtoll(text.c_str(), nullptr, type == SNDRV_CTL_ELEM_TYPE_BYTES ? 16 : 0);
}

// A range limits these; the others hold any value.
static bool limited(int type) {
  return type == SNDRV_CTL_ELEM_TYPE_BOOLEAN || type == SNDRV_CTL_ELEM_TYPE_INTEGER ||
         type == SNDRV_CTL_ELEM_TYPE_ENUMERATED;
}

SoundCard::Control SoundCard::parse(const std::string& line) {
  std::vector<std::string> fields = split(line, ';');
  fields.resize(4);
  std::istringstream head(fields[0]);
  std::string type_name;
  size_t count = 0;
  head >> type_name >> count;
  const auto* type = std::find_if(std::begin(kTypes), std::end(kTypes),
                                  [&](const auto& t) { return type_name == t.first; });
  const size_t most = type_name == "BYTE" ? 512 : type_name == "INT64" ? 64 : 128;
  if (type == std::end(kTypes) || count == 0 || count > most || fields[1].empty()) {
    throw std::runtime_error("the sound card has no control such as: " + line);
  }
  Control control = {.name = fields[1].substr(0, SNDRV_CTL_ELEM_ID_NAME_MAXLEN - 1),
                     .type = type->second,
                     .minimum = 0,
                     .maximum = 1,
                     .items = {},
                     .values = std::vector<int64_t>(count)};
  if (control.type == SNDRV_CTL_ELEM_TYPE_ENUMERATED) {
    control.items = split(fields[2], ',');
    if (control.items.empty()) {
      throw std::runtime_error("an ENUM control has items: " + line);
    }
    control.maximum = static_cast<int64_t>(control.items.size()) - 1;
  } else if (control.type == SNDRV_CTL_ELEM_TYPE_INTEGER) {
    control.maximum = std::numeric_limits<int32_t>::max();
    std::istringstream(fields[2]) >> control.minimum >> control.maximum;
    if (control.minimum > control.maximum) {
      throw std::runtime_error("no range: " + line);
    }
  }
  const std::vector<std::string> values = split(fields[3], ' ');
  for (size_t i = 0; i < std::min(values.size(), count); ++i) {
    control.values[i] = value_of(control.type, control.items, values[i]);
    if (limited(control.type) &&
        (control.values[i] < control.minimum || control.values[i] > control.maximum)) {
      throw std::runtime_error("not in the control's range: " + line);
    }
  }
  return control;
}

void SoundCard::describe(const std::string& text) {
  std::vector<Control> controls;
  for (const std::string& line : split(text, '\n')) {
    if (!line.empty() && line[0] != '#') {
      controls.push_back(parse(line));
    }
  }
  const std::lock_guard lock(mutex_);
  controls_ = std::move(controls);
}

// ---- what tests and the console ask

std::string SoundCard::show(const Control& control) {
  std::string text = control.name + " =";
  for (const int64_t value : control.values) {
    if (control.type == SNDRV_CTL_ELEM_TYPE_ENUMERATED) {
      text.append(" ").append(control.items.at(static_cast<size_t>(value)));
    } else if (control.type == SNDRV_CTL_ELEM_TYPE_BYTES) {
      char byte[8];
      snprintf(byte, sizeof(byte), " %02x", static_cast<unsigned>(value & 0xff));
      text += byte;
    } else {
      text.append(" ").append(std::to_string(value));
    }
  }
  return text;
}

const SoundCard::Control* SoundCard::find(const std::string& name) const {
  const auto found = std::find_if(controls_.begin(), controls_.end(),
                                  [&](const Control& c) { return c.name == name; });
  return found == controls_.end() ? nullptr : &*found;
}

SoundCard::Control* SoundCard::find(const std::string& name) {
  return const_cast<Control*>(std::as_const(*this).find(name));
}

std::string SoundCard::show(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  const Control* control = find(name);
  return control == nullptr ? "" : show(*control);
}

std::vector<std::string> SoundCard::writes() const {
  const std::lock_guard lock(mutex_);
  return writes_;
}

std::vector<std::string> SoundCard::take_writes() {
  const std::lock_guard lock(mutex_);
  return std::exchange(writes_, {});
}

void SoundCard::fail(const std::string& name, Access access, int error) {
  const std::lock_guard lock(mutex_);
  if (Control* control = find(name); control != nullptr) {
    (access == Access::kRead ? control->read_error : control->write_error) = error;
  }
}

void SoundCard::on_write(const std::string& name, std::function<void()> function) {
  const std::lock_guard lock(mutex_);
  if (Control* control = find(name); control != nullptr) {
    control->written = std::move(function);
  }
}

bool SoundCard::set(const std::string& name, const std::string& value) {
  const std::lock_guard lock(mutex_);
  Control* control = find(name);
  if (control == nullptr) {
    return false;
  }
  const int64_t number = value_of(control->type, control->items, value);
  if (control->type == SNDRV_CTL_ELEM_TYPE_ENUMERATED && number < 0) {
    return false;
  }
  control->values[0] =
      limited(control->type) ? std::clamp(number, control->minimum, control->maximum) : number;
  return true;
}

// ---- the control device

class SoundCardFile : public MemoryFile {
 public:
  explicit SoundCardFile(SoundCard* card) : MemoryFile("sound control"), card_(card) {
    ++card_->handles_;
  }
  ~SoundCardFile() override {
    --card_->handles_;
  }

  int64_t ioctl(const Caller& caller, uint32_t request, uint64_t argument) override;

 private:
  int card_info(snd_ctl_card_info* record) const;
  int list(const Caller& caller, snd_ctl_elem_list* record) const;
  SoundCard::Control* select(snd_ctl_elem_id* id) const;
  int info(snd_ctl_elem_info* record) const;
  int read(snd_ctl_elem_value* record) const;
  int write(snd_ctl_elem_value* record, std::function<void()>* written);
  const SoundCard::Control* written_control(const Caller& caller, uint64_t argument) const;

  SoundCard* const card_;
};

OpenedDevice SoundCard::open(const Caller&, int) {
  return open_memory_file<SoundCardFile>(this);
}

int64_t SoundCardFile::ioctl(const Caller& caller, uint32_t request, uint64_t argument) {
  std::function<void()> written;
  std::unique_lock lock(card_->mutex_);
  int64_t result = -ENOTTY;  // event subscriptions among others
  switch (request) {
    case SNDRV_CTL_IOCTL_PVERSION:
      return caller.write(argument, &kProtocol, sizeof(kProtocol)) ? 0 : -EFAULT;
    case SNDRV_CTL_IOCTL_CARD_INFO:
      return with_record<snd_ctl_card_info>(caller, argument,
                                            [&](auto* r) { return card_info(r); });
    case SNDRV_CTL_IOCTL_ELEM_LIST:
      return with_record<snd_ctl_elem_list>(caller, argument,
                                            [&](auto* r) { return list(caller, r); });
    case SNDRV_CTL_IOCTL_ELEM_INFO:
      return with_record<snd_ctl_elem_info>(caller, argument, [&](auto* r) { return info(r); });
    case SNDRV_CTL_IOCTL_ELEM_READ:
      return with_record<snd_ctl_elem_value>(caller, argument, [&](auto* r) { return read(r); });
    case SNDRV_CTL_IOCTL_ELEM_WRITE:
      result = with_record<snd_ctl_elem_value>(caller, argument,
                                               [&](auto* r) { return write(r, &written); });
      if (const SoundCard::Control* control = written_control(caller, argument);
          control != nullptr) {
        caller.note("mixer " + SoundCard::show(*control) +
                    (result < 0 ? " = " + error_name(static_cast<int>(-result)) : ""));
      }
      break;
    default:
      break;
  }
  lock.unlock();
  if (written != nullptr) {
    written();  // which may ask the card
  }
  return result;
}

// The control that the caller's record names; null when there is none.
const SoundCard::Control* SoundCardFile::written_control(const Caller& caller,
                                                         uint64_t argument) const {
  snd_ctl_elem_value record = {};
  return caller.read(argument, &record, sizeof(record)) ? select(&record.id) : nullptr;
}

template <size_t kSize>
static void copy_text(unsigned char (&field)[kSize], const std::string& text) {
  memset(field, 0, kSize);
  memcpy(field, text.data(), std::min(text.size(), kSize - 1));
}

int SoundCardFile::card_info(snd_ctl_card_info* record) const {
  *record = {};
  copy_text(record->id, "handset");
  copy_text(record->driver, "handset");
  copy_text(record->name, "handset sound card");
  copy_text(record->longname, "sound card of the simulated handset");
  return 0;
}

static void fill_id(snd_ctl_elem_id* id, size_t index, const std::string& name) {
  *id = {};
  id->numid = static_cast<unsigned>(index) + 1;
  id->iface = SNDRV_CTL_ELEM_IFACE_MIXER;
  copy_text(id->name, name);
}

int SoundCardFile::list(const Caller& caller, snd_ctl_elem_list* record) const {
  const size_t all = card_->controls_.size();
  std::vector<snd_ctl_elem_id> ids;
  for (size_t i = record->offset; i < all && ids.size() < record->space; ++i) {
    fill_id(&ids.emplace_back(), i, card_->controls_[i].name);
  }
  record->count = static_cast<unsigned>(all);
  record->used = static_cast<unsigned>(ids.size());
  return ids.empty() || caller.write(reinterpret_cast<uint64_t>(record->pids), ids.data(),
                                     ids.size() * sizeof(ids[0]))
             ? 0
             : -EFAULT;
}

// The control that the caller means, by number or by name; its whole id is filled in.
SoundCard::Control* SoundCardFile::select(snd_ctl_elem_id* id) const {
  size_t index = id->numid - 1;
  if (id->numid == 0) {
    const auto* name = reinterpret_cast<const char*>(id->name);
    const SoundCard::Control* named =
        card_->find(std::string(name, strnlen(name, sizeof(id->name))));
    index = named == nullptr ? card_->controls_.size()
                             : static_cast<size_t>(named - card_->controls_.data());
  }
  if (index >= card_->controls_.size()) {
    return nullptr;
  }
  fill_id(id, index, card_->controls_[index].name);
  return &card_->controls_[index];
}

int SoundCardFile::info(snd_ctl_elem_info* record) const {
  const SoundCard::Control* control = select(&record->id);
  if (control == nullptr) {
    return -ENOENT;
  }
  record->type = control->type;
  record->access = SNDRV_CTL_ELEM_ACCESS_READWRITE;
  record->count = static_cast<unsigned>(control->values.size());
  record->owner = -1;
  const unsigned item = record->value.enumerated.item;
  record->value = {};
  if (control->type == SNDRV_CTL_ELEM_TYPE_ENUMERATED) {
    auto& items = record->value.enumerated;
    items.items = static_cast<unsigned>(control->items.size());
    items.item = std::min(item, items.items - 1);
    snprintf(items.name, sizeof(items.name), "%s", control->items[items.item].c_str());
  } else if (control->type == SNDRV_CTL_ELEM_TYPE_INTEGER64) {
    record->value.integer64.max = std::numeric_limits<int64_t>::max();
  } else {
    record->value.integer.min = static_cast<long>(control->minimum);
    record->value.integer.max = static_cast<long>(control->maximum);
  }
  return 0;
}

// Calls visit with each value of a control and its place in the record, which has room for as many
// as describe takes.
template <typename Record, typename Visit>
static void each_value(int type, size_t count, Record* record, Visit visit) {
  for (size_t i = 0; i < count; ++i) {
    switch (type) {
      case SNDRV_CTL_ELEM_TYPE_ENUMERATED:
        visit(i, record->value.enumerated.item[i]);
        break;
      case SNDRV_CTL_ELEM_TYPE_BYTES:
        visit(i, record->value.bytes.data[i]);
        break;
      case SNDRV_CTL_ELEM_TYPE_IEC958:
        visit(i, record->value.iec958.status[0]);
        break;
      case SNDRV_CTL_ELEM_TYPE_INTEGER64:
        visit(i, record->value.integer64.value[i]);
        break;
      default:
        visit(i, record->value.integer.value[i]);
    }
  }
}

int SoundCardFile::read(snd_ctl_elem_value* record) const {
  const SoundCard::Control* control = select(&record->id);
  if (control == nullptr) {
    return -ENOENT;
  }
  if (control->read_error != 0) {
    return -control->read_error;
  }
  record->value = {};
  each_value(control->type, control->values.size(), record, [&](size_t i, auto& place) {
    place = static_cast<std::remove_reference_t<decltype(place)>>(control->values[i]);
  });
  return 0;
}

// 1 when a value is a new one, as drivers answer.
int SoundCardFile::write(snd_ctl_elem_value* record, std::function<void()>* written) {
  SoundCard::Control* control = select(&record->id);
  if (control == nullptr) {
    return -ENOENT;
  }
  if (control->write_error != 0) {
    return -control->write_error;
  }
  std::vector<int64_t> values(control->values.size());
  each_value(control->type, values.size(), record,
             [&](size_t i, auto& place) { values[i] = static_cast<int64_t>(place); });
  for (const int64_t value : values) {
    if (limited(control->type) && (value < control->minimum || value > control->maximum)) {
      return -EINVAL;
    }
  }
  const bool changed = values != control->values;
  control->values = values;
  add_recent(&card_->writes_, SoundCard::show(*control));
  *written = control->written;
  return changed ? 1 : 0;
}

}  // namespace handset
