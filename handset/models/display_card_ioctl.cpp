// The display card's requests: what libdrm asks on an open descriptor of it. They are marshalled
// here, a member function for each in a table; the card itself is in display_card.cpp.

#include <drm.h>
#include <drm_mode.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "handset/models/display_card.h"

namespace handset {

static constexpr uint32_t kMostInRequest = 1024;
static constexpr uint32_t kLongestBlob = 4096;  // bytes
static constexpr uint64_t kPage = 4096;         // bytes
static constexpr uint32_t kXbgr8888 = 'X' | 'B' << 8 | '2' << 16 | static_cast<uint32_t>('4') << 24;

// One open of the card. The requests give 0 or a negative errno.
class DisplayCardFile : public MemoryFile {
 public:
  explicit DisplayCardFile(DisplayCard* card) : MemoryFile("drm-card"), card_(card) {
    card_->enter(this);
  }
  ~DisplayCardFile() override;

  int64_t ioctl(const Caller& caller, uint32_t request, uint64_t argument) override;

 private:
  int capability(const Caller&, drm_get_cap* record);
  int client_capability(const Caller&, drm_set_client_cap* record);
  int resources(const Caller& caller, drm_mode_card_res* record);
  int connector(const Caller& caller, drm_mode_get_connector* record);
  int encoder(const Caller&, drm_mode_get_encoder* record);
  int crtc(const Caller&, drm_mode_crtc* record);
  int planes(const Caller& caller, drm_mode_get_plane_res* record);
  int object_properties(const Caller& caller, drm_mode_obj_get_properties* record);
  int property(const Caller&, drm_mode_get_property* record);
  int blob(const Caller& caller, drm_mode_get_blob* record);
  int create_blob(const Caller& caller, drm_mode_create_blob* record);
  int destroy_blob(const Caller&, drm_mode_destroy_blob* record);
  int create_buffer(const Caller&, drm_mode_create_dumb* record);
  int map_buffer(const Caller&, drm_mode_map_dumb* record);
  int close_buffer(const Caller&, drm_gem_close* record);
  int add_framebuffer(const Caller&, drm_mode_fb_cmd2* record);
  int remove_framebuffer(const Caller&, uint32_t* id);
  int commit(const Caller& caller, drm_mode_atomic* record);

  bool fill_properties(const Caller& caller, uint32_t object, uint64_t ids_address,
                       uint64_t values_address, uint32_t* count) const;

  DisplayCard* card_;
  uint64_t memory_size_ = 0;
  bool atomic_ = false;
  bool universal_planes_ = false;
  uint32_t next_handle_ = 1;
  std::map<uint32_t, DisplayCard::Buffer> buffers_;
  std::set<uint32_t> framebuffers_;
  std::set<uint32_t> blobs_;
};

OpenedDevice DisplayCard::open(const Caller&, int) {
  return open_memory_file<DisplayCardFile>(this);
}

// The kernel's own release at a close: what is left over goes, and what it showed goes dark.
DisplayCardFile::~DisplayCardFile() {
  for (const uint32_t id : framebuffers_) {
    card_->remove_framebuffer(id);
  }
  for (const uint32_t id : blobs_) {
    card_->dismiss_blob(id);
  }
  card_->count_buffers(-static_cast<int>(buffers_.size()));
  card_->leave(this);
}

// ---- The table

template <typename Record>
static int64_t answer(DisplayCardFile* file, int (DisplayCardFile::*member)(const Caller&, Record*),
                      const Caller& caller, uint64_t argument) {
  return with_record<Record>(caller, argument,
                             [&](Record* record) { return (file->*member)(caller, record); });
}

// The same with the member fixed, so that all members make a table.
template <auto kMember>
static int64_t answer_with(DisplayCardFile* file, const Caller& caller, uint64_t argument) {
  return answer(file, kMember, caller, argument);
}

int64_t DisplayCardFile::ioctl(const Caller& caller, uint32_t request, uint64_t argument) {
  using File = DisplayCardFile;
  static const struct {
    uint32_t request;
    int64_t (*answer)(DisplayCardFile* file, const Caller& caller, uint64_t argument);
  } kRequests[] = {
      {DRM_IOCTL_GET_CAP, answer_with<&File::capability>},
      {DRM_IOCTL_SET_CLIENT_CAP, answer_with<&File::client_capability>},
      {DRM_IOCTL_MODE_GETRESOURCES, answer_with<&File::resources>},
      {DRM_IOCTL_MODE_GETCONNECTOR, answer_with<&File::connector>},
      {DRM_IOCTL_MODE_GETENCODER, answer_with<&File::encoder>},
      {DRM_IOCTL_MODE_GETCRTC, answer_with<&File::crtc>},
      {DRM_IOCTL_MODE_GETPLANERESOURCES, answer_with<&File::planes>},
      {DRM_IOCTL_MODE_OBJ_GETPROPERTIES, answer_with<&File::object_properties>},
      {DRM_IOCTL_MODE_GETPROPERTY, answer_with<&File::property>},
      {DRM_IOCTL_MODE_GETPROPBLOB, answer_with<&File::blob>},
      {DRM_IOCTL_MODE_CREATEPROPBLOB, answer_with<&File::create_blob>},
      {DRM_IOCTL_MODE_DESTROYPROPBLOB, answer_with<&File::destroy_blob>},
      {DRM_IOCTL_MODE_CREATE_DUMB, answer_with<&File::create_buffer>},
      {DRM_IOCTL_MODE_MAP_DUMB, answer_with<&File::map_buffer>},
      {DRM_IOCTL_GEM_CLOSE, answer_with<&File::close_buffer>},
      {DRM_IOCTL_MODE_ADDFB2, answer_with<&File::add_framebuffer>},
      {DRM_IOCTL_MODE_RMFB, answer_with<&File::remove_framebuffer>},
      {DRM_IOCTL_MODE_ATOMIC, answer_with<&File::commit>},
  };
  if (const int error = card_->take_failure(request); error != 0) {
    return error;
  }
  for (const auto& entry : kRequests) {
    if (entry.request == request) {
      return entry.answer(this, caller, argument);
    }
  }
  return -ENOTTY;
}

// ---- What the card has

// Fills an array of the caller when there is room for all of it and says how long it is, as the
// kernel does: callers ask twice. False when the array is not the caller's memory.
template <typename Element>
static bool fill(const Caller& caller, uint64_t address, uint32_t* count,
                 const std::vector<Element>& elements) {
  const bool fits = *count >= elements.size();
  *count = static_cast<uint32_t>(elements.size());
  return !fits || elements.empty() ||
         caller.write(address, elements.data(), elements.size() * sizeof(Element));
}

static std::vector<uint32_t> ids(uint32_t first, size_t count) {
  std::vector<uint32_t> all;
  for (size_t i = 0; i < count; ++i) {
    all.push_back(first + static_cast<uint32_t>(i));
  }
  return all;
}

int DisplayCardFile::capability(const Caller&, drm_get_cap* record) {
  const bool dumb = record->capability == DRM_CAP_DUMB_BUFFER && card_->hardware().dumb_buffers;
  record->value = dumb ? 1 : 0;
  return 0;
}

int DisplayCardFile::client_capability(const Caller&, drm_set_client_cap* record) {
  if (record->value > 1) {
    return -EINVAL;
  }
  switch (record->capability) {
    case DRM_CLIENT_CAP_ATOMIC:
      atomic_ = record->value != 0;
      universal_planes_ = atomic_;
      return 0;
    case DRM_CLIENT_CAP_UNIVERSAL_PLANES:
      universal_planes_ = record->value != 0;
      return 0;
    default:
      return -EINVAL;
  }
}

int DisplayCardFile::resources(const Caller& caller, drm_mode_card_res* record) {
  const size_t connectors = card_->hardware().connectors.size();
  const auto crtcs = static_cast<size_t>(card_->hardware().crtcs);
  record->count_fbs = 0;
  record->max_width = DisplayCard::kLargest;
  record->max_height = DisplayCard::kLargest;
  const bool filled =
      fill(caller, record->crtc_id_ptr, &record->count_crtcs, ids(DisplayCard::kCrtcs, crtcs)) &&
      fill(caller, record->connector_id_ptr, &record->count_connectors,
           ids(DisplayCard::kConnectors, connectors)) &&
      fill(caller, record->encoder_id_ptr, &record->count_encoders,
           ids(DisplayCard::kEncoders, connectors));
  return filled ? 0 : -EFAULT;
}

static drm_mode_modeinfo mode_info(const DisplayCard::Mode& mode) {
  drm_mode_modeinfo info = {};
  info.hdisplay = mode.width;
  info.hsync_start = static_cast<uint16_t>(mode.width + 16);
  info.hsync_end = static_cast<uint16_t>(mode.width + 24);
  info.htotal = static_cast<uint16_t>(mode.width + 40);
  info.vdisplay = mode.height;
  info.vsync_start = static_cast<uint16_t>(mode.height + 8);
  info.vsync_end = static_cast<uint16_t>(mode.height + 10);
  info.vtotal = static_cast<uint16_t>(mode.height + 20);
  info.vrefresh = 60;
  info.clock = static_cast<uint32_t>(info.htotal) * info.vtotal * info.vrefresh / 1000;
  info.type = DRM_MODE_TYPE_DRIVER | (mode.preferred ? DRM_MODE_TYPE_PREFERRED : 0);
  snprintf(info.name, sizeof(info.name), "%dx%d", mode.width, mode.height);
  return info;
}

int DisplayCardFile::connector(const Caller& caller, drm_mode_get_connector* record) {
  const uint32_t index = record->connector_id - DisplayCard::kConnectors;
  if (index >= card_->hardware().connectors.size()) {
    return -ENOENT;
  }
  const DisplayCard::Connector& connector = card_->hardware().connectors[index];
  std::vector<drm_mode_modeinfo> modes;
  for (const DisplayCard::Mode& mode : connector.modes) {
    modes.push_back(mode_info(mode));
  }
  record->encoder_id = card_->driving_crtc(index) != 0 ? DisplayCard::kEncoders + index : 0;
  record->connector_type = connector.type;
  record->connector_type_id = 1;
  record->connection = connector.connected ? 1 : 2;
  record->mm_width = 68;
  record->mm_height = 147;
  record->subpixel = 1;
  const bool filled = fill(caller, record->modes_ptr, &record->count_modes, modes) &&
                      fill_properties(caller, record->connector_id, record->props_ptr,
                                      record->prop_values_ptr, &record->count_props) &&
                      fill(caller, record->encoders_ptr, &record->count_encoders,
                           ids(DisplayCard::kEncoders + index, 1));
  return filled ? 0 : -EFAULT;
}

int DisplayCardFile::encoder(const Caller&, drm_mode_get_encoder* record) {
  const uint32_t index = record->encoder_id - DisplayCard::kEncoders;
  if (index >= card_->hardware().connectors.size()) {
    return -ENOENT;
  }
  const DisplayCard::Connector& connector = card_->hardware().connectors[index];
  record->encoder_type = DRM_MODE_ENCODER_DSI;
  record->crtc_id = card_->driving_crtc(index);
  record->possible_crtcs = connector.possible_crtcs;
  record->possible_clones = 0;
  return 0;
}

int DisplayCardFile::crtc(const Caller&, drm_mode_crtc* record) {
  const uint32_t id = record->crtc_id;
  if (id - DisplayCard::kCrtcs >= static_cast<uint32_t>(card_->hardware().crtcs)) {
    return -ENOENT;
  }
  *record = {};
  record->crtc_id = id;
  const DisplayCard::Shown shown = card_->shown(id);
  if (const auto mode = card_->blob(shown.mode); mode.has_value()) {
    memcpy(&record->mode, mode->data(), sizeof(record->mode));
    record->mode_valid = 1;
    record->fb_id = shown.framebuffer;
  }
  return 0;
}

int DisplayCardFile::planes(const Caller& caller, drm_mode_get_plane_res* record) {
  // Without the capability a client sees overlays alone.
  std::vector<uint32_t> seen;
  for (uint32_t i = 0; i < card_->hardware().planes.size(); ++i) {
    if (universal_planes_ || card_->hardware().planes[i] == DisplayCard::PlaneType::kOverlay) {
      seen.push_back(DisplayCard::kPlanes + i);
    }
  }
  return fill(caller, record->plane_id_ptr, &record->count_planes, seen) ? 0 : -EFAULT;
}

// ---- Properties and blobs

// The object's properties that this client sees: atomic ones only when it has asked for them.
bool DisplayCardFile::fill_properties(const Caller& caller, uint32_t object, uint64_t ids_address,
                                      uint64_t values_address, uint32_t* count) const {
  std::vector<uint32_t> properties;
  std::vector<uint64_t> values;
  for (const auto& [id, value] : card_->values(object).value_or(DisplayCard::PropertyValues())) {
    if (atomic_ || card_->property(id)->flags != DRM_MODE_PROP_ATOMIC) {
      properties.push_back(id);
      values.push_back(value);
    }
  }
  uint32_t value_count = *count;
  return fill(caller, values_address, &value_count, values) &&
         fill(caller, ids_address, count, properties);
}

// The type of an object that has properties.
static uint32_t object_type(uint32_t id) {
  if (id >= DisplayCard::kPlanes) {
    return DRM_MODE_OBJECT_PLANE;
  }
  return id >= DisplayCard::kConnectors ? DRM_MODE_OBJECT_CONNECTOR : DRM_MODE_OBJECT_CRTC;
}

int DisplayCardFile::object_properties(const Caller& caller, drm_mode_obj_get_properties* record) {
  if (!card_->values(record->obj_id).has_value() ||
      (record->obj_type != DRM_MODE_OBJECT_ANY &&
       record->obj_type != object_type(record->obj_id))) {
    return -ENOENT;
  }
  return fill_properties(caller, record->obj_id, record->props_ptr, record->prop_values_ptr,
                         &record->count_props)
             ? 0
             : -EFAULT;
}

int DisplayCardFile::property(const Caller& caller, drm_mode_get_property* record) {
  static const std::vector<drm_mode_property_enum> kPlaneTypes = {
      {0, "Overlay"}, {1, "Primary"}, {2, "Cursor"}};
  const auto property = card_->property(record->prop_id);
  if (!property.has_value()) {
    return -ENOENT;
  }
  record->flags = property->flags;
  snprintf(record->name, sizeof(record->name), "%s", property->name.c_str());
  record->count_values = 0;
  if ((property->flags & DRM_MODE_PROP_ENUM) == 0) {
    record->count_enum_blobs = 0;
    return 0;
  }
  return fill(caller, record->enum_blob_ptr, &record->count_enum_blobs, kPlaneTypes) ? 0 : -EFAULT;
}

int DisplayCardFile::blob(const Caller& caller, drm_mode_get_blob* record) {
  const auto content = card_->blob(record->blob_id);
  if (!content.has_value()) {
    return -ENOENT;
  }
  const bool wanted = record->length == content->size();
  record->length = static_cast<uint32_t>(content->size());
  return wanted && !caller.write(record->data, content->data(), content->size()) ? -EFAULT : 0;
}

int DisplayCardFile::create_blob(const Caller& caller, drm_mode_create_blob* record) {
  if (record->length == 0 || record->length > kLongestBlob) {
    return -EINVAL;
  }
  std::string content(record->length, '\0');
  if (!caller.read(record->data, content.data(), content.size())) {
    return -EFAULT;
  }
  record->blob_id = card_->add_blob(content);
  blobs_.insert(record->blob_id);
  return 0;
}

int DisplayCardFile::destroy_blob(const Caller&, drm_mode_destroy_blob* record) {
  if (blobs_.erase(record->blob_id) == 0) {
    return -ENOENT;
  }
  card_->dismiss_blob(record->blob_id);
  return 0;
}

// ---- Buffers and framebuffers

static uint64_t round_up(uint64_t size, uint64_t unit) {
  return (size + unit - 1) / unit * unit;
}

int DisplayCardFile::create_buffer(const Caller&, drm_mode_create_dumb* record) {
  if (!card_->hardware().dumb_buffers) {
    return -ENOSYS;
  }
  if (record->width == 0 || record->height == 0 || record->bpp != 32) {
    return -EINVAL;
  }
  const uint64_t pitch = round_up(uint64_t{record->width} * 4, card_->hardware().pitch_alignment);
  record->pitch = static_cast<uint32_t>(pitch);
  record->size = round_up(pitch * record->height, kPage);
  if (ftruncate(memory(), static_cast<off_t>(memory_size_ + record->size)) != 0) {
    return -ENOMEM;
  }
  record->handle = next_handle_++;
  buffers_[record->handle] = {record->width, record->height, record->pitch, memory_size_};
  memory_size_ += record->size;
  card_->count_buffers(1);
  return 0;
}

int DisplayCardFile::map_buffer(const Caller&, drm_mode_map_dumb* record) {
  const auto buffer = buffers_.find(record->handle);
  if (buffer == buffers_.end()) {
    return -ENOENT;
  }
  // An offset within a page is none that the kernel maps.
  record->offset = buffer->second.offset + (card_->hardware().mappable ? 0 : 1);
  return 0;
}

int DisplayCardFile::close_buffer(const Caller&, drm_gem_close* record) {
  if (buffers_.erase(record->handle) == 0) {
    return -EINVAL;
  }
  card_->count_buffers(-1);
  return 0;
}

int DisplayCardFile::add_framebuffer(const Caller&, drm_mode_fb_cmd2* record) {
  const auto found = buffers_.find(record->handles[0]);
  if (found == buffers_.end()) {
    return -ENOENT;
  }
  const DisplayCard::Buffer& buffer = found->second;
  if (record->pixel_format != kXbgr8888 || record->width > buffer.width ||
      record->height > buffer.height || record->pitches[0] != buffer.pitch ||
      record->offsets[0] != 0) {
    return -EINVAL;
  }
  record->fb_id = card_->add_framebuffer({record->width, record->height, buffer, memory()});
  framebuffers_.insert(record->fb_id);
  return 0;
}

int DisplayCardFile::remove_framebuffer(const Caller&, uint32_t* id) {
  if (framebuffers_.erase(*id) == 0) {
    return -ENOENT;
  }
  card_->remove_framebuffer(*id);
  return 0;
}

// ---- Commits

template <typename Element>
static bool read_array(const Caller& caller, uint64_t address, size_t count,
                       std::vector<Element>* elements) {
  elements->resize(count);
  return count == 0 || caller.read(address, elements->data(), count * sizeof(Element));
}

// Reads a request's objects, and for each as many properties and values as it says.
static int read_changes(const Caller& caller, const drm_mode_atomic& record,
                        std::vector<DisplayCard::Change>* changes) {
  std::vector<uint32_t> objects;
  std::vector<uint32_t> counts;
  if (record.count_objs > kMostInRequest ||
      !read_array(caller, record.objs_ptr, record.count_objs, &objects) ||
      !read_array(caller, record.count_props_ptr, record.count_objs, &counts)) {
    return -EFAULT;
  }
  size_t total = 0;
  for (const uint32_t count : counts) {
    if (count > kMostInRequest) {
      return -EINVAL;
    }
    total += count;
  }
  std::vector<uint32_t> properties;
  std::vector<uint64_t> values;
  if (!read_array(caller, record.props_ptr, total, &properties) ||
      !read_array(caller, record.prop_values_ptr, total, &values)) {
    return -EFAULT;
  }
  size_t at = 0;
  for (size_t i = 0; i < objects.size(); ++i) {
    DisplayCard::Change& change = changes->emplace_back();
    change.object = objects[i];
    for (uint32_t j = 0; j < counts[i]; ++j, ++at) {
      change.values.emplace_back(properties[at], values[at]);
    }
  }
  return 0;
}

int DisplayCardFile::commit(const Caller& caller, drm_mode_atomic* record) {
  if (!card_->is_master(this)) {
    return -EACCES;
  }
  const uint32_t flags = record->flags;
  const bool event_of_a_test =
      (flags & DRM_MODE_ATOMIC_TEST_ONLY) != 0 && (flags & DRM_MODE_PAGE_FLIP_EVENT) != 0;
  if (!atomic_ || (flags & ~DRM_MODE_ATOMIC_FLAGS) != 0 || record->reserved != 0 ||
      event_of_a_test) {
    return -EINVAL;
  }
  std::vector<DisplayCard::Change> changes;
  int error = read_changes(caller, *record, &changes);
  if (error == 0) {
    error = card_->commit(changes, record->flags);
  }
  if (error == 0 && (record->flags & DRM_MODE_ATOMIC_TEST_ONLY) == 0) {
    caller.note("panel " + card_->lit());
  }
  return error;
}

}  // namespace handset
