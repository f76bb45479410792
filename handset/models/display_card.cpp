// The display card's model; see display_card.h.

#include "handset/models/display_card.h"

#include <drm.h>
#include <drm_mode.h>
#include <errno.h>
#include <fcntl.h>
#include <png.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <set>

namespace handset {

// Object ids. What is made at run time counts from 1000.
static constexpr uint32_t kCrtcs = 100;
static constexpr uint32_t kEncoders = 200;  // one for each connector
static constexpr uint32_t kConnectors = 300;
static constexpr uint32_t kPlanes = 400;
static constexpr uint32_t kProperties = 500;

static constexpr uint32_t kLargest = 8192;  // pixels, either way
static constexpr uint32_t kMostInRequest = 1024;

static const char* const kCrtcProperties[] = {"ACTIVE", "MODE_ID"};
static const char* const kPlaneProperties[] = {"FB_ID", "CRTC_ID", "SRC_X",  "SRC_Y",  "SRC_W",
                                               "SRC_H", "CRTC_X",  "CRTC_Y", "CRTC_W", "CRTC_H"};
static const char kConnectorCrtc[] = "CRTC_ID";
static const char kModeProperties[] = "mode_properties";

bool Picture::write_png(const std::string& file) const {
  std::vector<uint8_t> bytes;
  for (const uint32_t pixel : pixels) {
    bytes.push_back(static_cast<uint8_t>(pixel >> 16));
    bytes.push_back(static_cast<uint8_t>(pixel >> 8));
    bytes.push_back(static_cast<uint8_t>(pixel));
  }
  png_image image = {};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<uint32_t>(width);
  image.height = static_cast<uint32_t>(height);
  image.format = PNG_FORMAT_RGB;
  return png_image_write_to_file(&image, file.c_str(), 0, bytes.data(), 0, nullptr) != 0;
}

DrmDevice::Card DrmDevice::phone_card() {
  Connector panel;
  panel.modes = {{.width = 1080, .height = 2340, .preferred = true}};
  panel.mode_properties = "mode_name=1080x2340\ntopology=sde_dualpipe\nfps=60\n";
  Card card;
  card.connectors = {panel};
  return card;
}

DrmDevice::DrmDevice(const Card& card) : card_(card) {
  std::set<std::string> names(std::begin(kCrtcProperties), std::end(kCrtcProperties));
  names.insert(std::begin(kPlaneProperties), std::end(kPlaneProperties));
  names.erase(card_.lacks);
  uint32_t id = kProperties;
  for (const std::string& name : names) {
    properties_[id++] = {name, true};
  }
  properties_[id] = {kModeProperties, false};
  const auto give = [&](uint32_t object, const std::string& name) {
    if (name != card_.lacks) {
      values_[object][property_id(name)] = 0;
    }
  };

  for (uint32_t i = 0; i < static_cast<uint32_t>(card_.crtcs); ++i) {
    for (const char* name : kCrtcProperties) {
      give(kCrtcs + i, name);
    }
  }
  for (uint32_t i = 0; i < static_cast<uint32_t>(card_.planes); ++i) {
    for (const char* name : kPlaneProperties) {
      give(kPlanes + i, name);
    }
  }
  for (uint32_t i = 0; i < card_.connectors.size(); ++i) {
    give(kConnectors + i, kConnectorCrtc);
    if (const std::string& text = card_.connectors[i].mode_properties; !text.empty()) {
      blobs_[next_id_] = text;
      values_[kConnectors + i][id] = next_id_++;
    }
  }
}

DrmDevice::~DrmDevice() = default;

uint32_t DrmDevice::property_id(const std::string& name) const {
  for (const auto& [id, property] : properties_) {
    if (property.name == name) {
      return id;
    }
  }
  return 0;
}

uint64_t DrmDevice::value(const Values& values, uint32_t object, const char* property) const {
  const auto found = values.find(object);
  if (found == values.end()) {
    return 0;
  }
  const auto held = found->second.find(property_id(property));
  return held == found->second.end() ? 0 : held->second;
}

// 0, or the errno that a kernel gives for a state that cannot be shown.
int DrmDevice::check(const Values& values) const {
  const auto is_crtc = [&](uint64_t id) {
    return id == 0 || (id >= kCrtcs && id < kCrtcs + static_cast<uint32_t>(card_.crtcs));
  };
  for (uint32_t i = 0; i < static_cast<uint32_t>(card_.crtcs); ++i) {
    const uint32_t crtc = kCrtcs + i;
    const uint64_t mode = value(values, crtc, "MODE_ID");
    const auto blob = blobs_.find(static_cast<uint32_t>(mode));
    if (mode != 0 && (blob == blobs_.end() || blob->second.size() != sizeof(drm_mode_modeinfo))) {
      return EINVAL;
    }
    bool driven = false;
    for (uint32_t j = 0; j < card_.connectors.size(); ++j) {
      driven = driven || value(values, kConnectors + j, kConnectorCrtc) == crtc;
    }
    if ((value(values, crtc, "ACTIVE") != 0 && mode == 0) || driven != (mode != 0)) {
      return EINVAL;
    }
  }
  for (uint32_t i = 0; i < card_.connectors.size(); ++i) {
    const uint64_t crtc = value(values, kConnectors + i, kConnectorCrtc);
    if (!is_crtc(crtc) ||
        (crtc != 0 && ((card_.connectors[i].possible_crtcs >> (crtc - kCrtcs)) & 1) == 0)) {
      return EINVAL;
    }
  }
  for (uint32_t i = 0; i < static_cast<uint32_t>(card_.planes); ++i) {
    if (const int error = check_plane(values, kPlanes + i); error != 0) {
      return error;
    }
  }
  return 0;
}

int DrmDevice::check_plane(const Values& values, uint32_t plane) const {
  const uint64_t framebuffer = value(values, plane, "FB_ID");
  const uint64_t crtc = value(values, plane, "CRTC_ID");
  if ((framebuffer != 0) != (crtc != 0) ||
      (crtc != 0 && (crtc < kCrtcs || crtc >= kCrtcs + static_cast<uint32_t>(card_.crtcs)))) {
    return EINVAL;
  }
  if (framebuffer == 0) {
    return 0;
  }
  const auto shown = framebuffers_.find(static_cast<uint32_t>(framebuffer));
  if (shown == framebuffers_.end()) {
    return EINVAL;
  }
  const struct {
    const char *source, *source_size, *target, *target_size;
    uint32_t framebuffer_size;
  } directions[] = {{"SRC_X", "SRC_W", "CRTC_X", "CRTC_W", shown->second.width},
                    {"SRC_Y", "SRC_H", "CRTC_Y", "CRTC_H", shown->second.height}};
  for (const auto& d : directions) {
    const uint64_t limit = uint64_t{d.framebuffer_size} << 16;
    const uint64_t size = value(values, plane, d.source_size);
    if (size > limit || value(values, plane, d.source) > limit - size) {
      return ENOSPC;
    }
    if (size >> 16 != value(values, plane, d.target_size) ||
        value(values, plane, d.target) > kLargest) {
      return ERANGE;  // nothing here scales, and nothing begins left of or above the screen
    }
  }
  return 0;
}

Picture DrmDevice::picture() const {
  const std::lock_guard lock(mutex_);
  Picture picture;
  uint64_t crtc = 0;
  for (uint32_t i = 0; i < card_.connectors.size() && crtc == 0; ++i) {
    const Connector& connector = card_.connectors[i];
    if (connector.connected && !connector.modes.empty() && picture.width == 0) {
      picture.width = connector.modes[0].width;
      picture.height = connector.modes[0].height;
    }
    crtc = value(values_, kConnectors + i, kConnectorCrtc);
  }
  const bool lit = crtc != 0 && value(values_, static_cast<uint32_t>(crtc), "ACTIVE") != 0;
  if (lit) {
    drm_mode_modeinfo mode;
    const auto blob =
        blobs_.find(static_cast<uint32_t>(value(values_, static_cast<uint32_t>(crtc), "MODE_ID")));
    memcpy(&mode, blob->second.data(), sizeof(mode));
    picture.width = mode.hdisplay;
    picture.height = mode.vdisplay;
  }
  picture.pixels.assign(static_cast<size_t>(picture.width) * static_cast<size_t>(picture.height),
                        0);
  for (uint32_t i = 0; lit && i < static_cast<uint32_t>(card_.planes); ++i) {
    const uint32_t plane = kPlanes + i;
    const auto shown = framebuffers_.find(static_cast<uint32_t>(value(values_, plane, "FB_ID")));
    if (value(values_, plane, "CRTC_ID") != crtc || shown == framebuffers_.end()) {
      continue;
    }
    const Framebuffer& framebuffer = shown->second;
    const auto source_x = static_cast<int>(value(values_, plane, "SRC_X") >> 16);
    const auto source_y = static_cast<int>(value(values_, plane, "SRC_Y") >> 16);
    const auto left = static_cast<int>(value(values_, plane, "CRTC_X"));
    const auto top = static_cast<int>(value(values_, plane, "CRTC_Y"));
    const auto width = static_cast<int>(value(values_, plane, "CRTC_W"));
    const auto height = static_cast<int>(value(values_, plane, "CRTC_H"));
    std::vector<uint8_t> row(framebuffer.buffer.pitch);
    for (int y = 0; y < height && top + y < picture.height; ++y) {
      const uint64_t at = framebuffer.buffer.offset +
                          static_cast<uint64_t>(source_y + y) * framebuffer.buffer.pitch;
      if (pread(framebuffer.memory, row.data(), row.size(), static_cast<off_t>(at)) < 0) {
        break;
      }
      for (int x = 0; x < width && left + x < picture.width; ++x) {
        const uint8_t* pixel = &row[static_cast<size_t>(source_x + x) * 4];  // red first
        picture.pixels[static_cast<size_t>(top + y) * static_cast<size_t>(picture.width) +
                       static_cast<size_t>(left + x)] =
            static_cast<uint32_t>(pixel[0] << 16 | pixel[1] << 8 | pixel[2]);
      }
    }
  }
  return picture;
}

DrmDevice::Objects DrmDevice::objects() const {
  const std::lock_guard lock(mutex_);
  return {.buffers = buffers_, .framebuffers = framebuffers_.size(), .blobs = made_blobs_};
}

int DrmDevice::commits() const {
  const std::lock_guard lock(mutex_);
  return static_cast<int>(first_pixels_.size());
}

std::vector<uint32_t> DrmDevice::first_pixels() const {
  const std::lock_guard lock(mutex_);
  return first_pixels_;
}

uint32_t DrmDevice::first_pixel() const {
  uint8_t pixel[4] = {};  // red first
  for (uint32_t plane = kPlanes; plane < kPlanes + static_cast<uint32_t>(card_.planes); ++plane) {
    const auto shown = framebuffers_.find(static_cast<uint32_t>(value(values_, plane, "FB_ID")));
    if (shown != framebuffers_.end() && value(values_, plane, "CRTC_X") == 0 &&
        pread(shown->second.memory, pixel, sizeof(pixel),
              static_cast<off_t>(shown->second.buffer.offset)) < 0) {
      break;
    }
  }
  return static_cast<uint32_t>(pixel[0] << 16 | pixel[1] << 8 | pixel[2]);
}

// What is lit: "1080x2340 0xffffff" with the first pixel's colour, or "off".
std::string DrmDevice::lit() const {
  for (uint32_t crtc = kCrtcs; crtc < kCrtcs + static_cast<uint32_t>(card_.crtcs); ++crtc) {
    const auto blob = blobs_.find(static_cast<uint32_t>(value(values_, crtc, "MODE_ID")));
    if (value(values_, crtc, "ACTIVE") != 0 && blob != blobs_.end()) {
      drm_mode_modeinfo mode;
      memcpy(&mode, blob->second.data(), sizeof(mode));
      char text[64];
      snprintf(text, sizeof(text), "%dx%d 0x%06x", mode.hdisplay, mode.vdisplay, first_pixel());
      return text;
    }
  }
  return "off";
}

// Its maker no longer needs it.
void DrmDevice::dismiss_blob(uint32_t id) {
  --made_blobs_;
  const uint32_t mode = property_id("MODE_ID");
  for (const auto& [object, values] : values_) {
    if (const auto held = values.find(mode); held != values.end() && held->second == id) {
      return;
    }
  }
  blobs_.erase(id);
}

void DrmDevice::reset(uint32_t object, const char* property) {
  if (const auto held = values_[object].find(property_id(property));
      held != values_[object].end()) {
    held->second = 0;
  }
}

void DrmDevice::turn_off(uint32_t crtc) {
  reset(crtc, "ACTIVE");
  reset(crtc, "MODE_ID");
  for (uint32_t i = 0; i < card_.connectors.size(); ++i) {
    if (value(values_, kConnectors + i, kConnectorCrtc) == crtc) {
      reset(kConnectors + i, kConnectorCrtc);
    }
  }
}

void DrmDevice::fail(uint32_t request, int error, int skip) {
  const std::lock_guard lock(mutex_);
  failures_[request] = {error, skip};
}

// ---- One open of the card

class DrmFile : public MemoryFile {
 public:
  explicit DrmFile(DrmDevice* card) : MemoryFile("drm-card"), card_(card) {
    const std::lock_guard lock(card_->mutex_);
    if (card_->master_ == nullptr) {
      card_->master_ = this;
    }
  }
  ~DrmFile() override;

  int64_t ioctl(const Caller& caller, uint32_t request, uint64_t argument) override;

 private:
  // Reads the request's record, lets a step work on it, writes it back.
  template <typename Record, typename Step>
  int64_t with(const Caller& caller, uint64_t argument, Step step) {
    Record record;
    if (!caller.read(argument, &record, sizeof(record))) {
      return -EFAULT;
    }
    const int error = step(record);
    if (error == 0 && !caller.write(argument, &record, sizeof(record))) {
      return -EFAULT;
    }
    return -error;
  }

  int resources(const Caller& caller, drm_mode_card_res* record);
  int connector(const Caller& caller, drm_mode_get_connector* record);
  int encoder(drm_mode_get_encoder* record);
  int crtc(drm_mode_crtc* record);
  int object_properties(const Caller& caller, drm_mode_obj_get_properties* record);
  int property(drm_mode_get_property* record);
  int blob(const Caller& caller, drm_mode_get_blob* record);
  int create_blob(const Caller& caller, drm_mode_create_blob* record);
  int create_buffer(drm_mode_create_dumb* record);
  int close_buffer(uint32_t handle);
  int add_framebuffer(drm_mode_fb_cmd2* record);
  int remove_framebuffer(uint32_t id);
  int commit(const Caller& caller, const drm_mode_atomic& record);
  std::vector<std::pair<uint32_t, uint64_t>> visible(uint32_t object) const;

  DrmDevice* card_;
  uint64_t memory_size_ = 0;
  bool atomic_ = false;
  uint32_t next_handle_ = 1;
  std::map<uint32_t, DrmDevice::Buffer> buffers_;
  std::set<uint32_t> framebuffers_;
  std::set<uint32_t> blobs_;
};

OpenedDevice DrmDevice::open(const Caller&, int) {
  auto file = std::make_unique<DrmFile>(this);
  const int fd = file->caller_descriptor();
  return {.fd = fd, .file = std::move(file)};
}

// The kernel's own release at a close: what is left over goes, and what it showed goes dark.
DrmFile::~DrmFile() {
  const std::lock_guard lock(card_->mutex_);
  for (const uint32_t id : std::set<uint32_t>(framebuffers_)) {
    remove_framebuffer(id);
  }
  for (const uint32_t id : blobs_) {
    card_->dismiss_blob(id);
  }
  card_->buffers_ -= buffers_.size();
  if (card_->master_ == this) {
    card_->master_ = nullptr;
  }
}

int64_t DrmFile::ioctl(const Caller& caller, uint32_t request, uint64_t argument) {
  const std::lock_guard lock(card_->mutex_);
  if (const auto failure = card_->failures_.find(request); failure != card_->failures_.end()) {
    if (failure->second.second-- == 0) {
      const int error = failure->second.first;
      card_->failures_.erase(failure);
      return -error;
    }
  }
  switch (request) {
    case DRM_IOCTL_GET_CAP:
      return with<drm_get_cap>(caller, argument, [&](auto& r) {
        r.value = r.capability == DRM_CAP_DUMB_BUFFER && card_->card_.dumb_buffers ? 1 : 0;
        return 0;
      });
    case DRM_IOCTL_SET_CLIENT_CAP:
      return with<drm_set_client_cap>(caller, argument, [&](auto& r) {
        if (r.capability == DRM_CLIENT_CAP_ATOMIC) {
          atomic_ = r.value != 0;
          return 0;
        }
        return r.capability == DRM_CLIENT_CAP_UNIVERSAL_PLANES ? 0 : EINVAL;
      });
    case DRM_IOCTL_MODE_GETRESOURCES:
      return with<drm_mode_card_res>(caller, argument,
                                     [&](auto& r) { return resources(caller, &r); });
    case DRM_IOCTL_MODE_GETCONNECTOR:
      return with<drm_mode_get_connector>(caller, argument,
                                          [&](auto& r) { return connector(caller, &r); });
    case DRM_IOCTL_MODE_GETENCODER:
      return with<drm_mode_get_encoder>(caller, argument, [&](auto& r) { return encoder(&r); });
    case DRM_IOCTL_MODE_GETCRTC:
      return with<drm_mode_crtc>(caller, argument, [&](auto& r) { return crtc(&r); });
    case DRM_IOCTL_MODE_GETPLANERESOURCES:
      return with<drm_mode_get_plane_res>(caller, argument, [&](auto& r) {
        std::vector<uint32_t> ids;
        ids.reserve(static_cast<size_t>(card_->card_.planes));
        for (int i = 0; i < card_->card_.planes; ++i) {
          ids.push_back(kPlanes + static_cast<uint32_t>(i));
        }
        const bool fits = r.count_planes >= ids.size();
        r.count_planes = static_cast<uint32_t>(ids.size());
        return fits && !caller.write(r.plane_id_ptr, ids.data(), ids.size() * 4) ? EFAULT : 0;
      });
    case DRM_IOCTL_MODE_OBJ_GETPROPERTIES:
      return with<drm_mode_obj_get_properties>(
          caller, argument, [&](auto& r) { return object_properties(caller, &r); });
    case DRM_IOCTL_MODE_GETPROPERTY:
      return with<drm_mode_get_property>(caller, argument, [&](auto& r) { return property(&r); });
    case DRM_IOCTL_MODE_GETPROPBLOB:
      return with<drm_mode_get_blob>(caller, argument, [&](auto& r) { return blob(caller, &r); });
    case DRM_IOCTL_MODE_CREATEPROPBLOB:
      return with<drm_mode_create_blob>(caller, argument,
                                        [&](auto& r) { return create_blob(caller, &r); });
    case DRM_IOCTL_MODE_DESTROYPROPBLOB:
      return with<drm_mode_destroy_blob>(caller, argument, [&](auto& r) {
        if (blobs_.erase(r.blob_id) == 0) {
          return ENOENT;
        }
        card_->dismiss_blob(r.blob_id);
        return 0;
      });
    case DRM_IOCTL_MODE_CREATE_DUMB:
      return with<drm_mode_create_dumb>(caller, argument,
                                        [&](auto& r) { return create_buffer(&r); });
    case DRM_IOCTL_MODE_MAP_DUMB:
      return with<drm_mode_map_dumb>(caller, argument, [&](auto& r) {
        const auto buffer = buffers_.find(r.handle);
        if (buffer == buffers_.end()) {
          return ENOENT;
        }
        // An offset within a page is none that the kernel maps.
        r.offset = buffer->second.offset + (card_->card_.mappable ? 0 : 1);
        return 0;
      });
    case DRM_IOCTL_GEM_CLOSE:
      return with<drm_gem_close>(caller, argument, [&](auto& r) { return close_buffer(r.handle); });
    case DRM_IOCTL_MODE_ADDFB2:
      return with<drm_mode_fb_cmd2>(caller, argument, [&](auto& r) { return add_framebuffer(&r); });
    case DRM_IOCTL_MODE_RMFB:
      return with<uint32_t>(caller, argument, [&](auto& id) {
        return framebuffers_.count(id) == 0 ? ENOENT : remove_framebuffer(id);
      });
    case DRM_IOCTL_MODE_ATOMIC:
      return with<drm_mode_atomic>(caller, argument, [&](auto& r) { return commit(caller, r); });
    default:
      return -ENOTTY;
  }
}

// Fills an array of the caller when there is room for all of it and says how long it is, as the
// kernel does: callers ask twice.
template <typename Element>
static int fill(const Caller& caller, uint64_t address, uint32_t* count,
                const std::vector<Element>& elements) {
  const bool fits = *count >= elements.size();
  *count = static_cast<uint32_t>(elements.size());
  const bool written = !fits || elements.empty() ||
                       caller.write(address, elements.data(), elements.size() * sizeof(Element));
  return written ? 0 : EFAULT;
}

static std::vector<uint32_t> ids(uint32_t first, size_t count) {
  std::vector<uint32_t> all;
  for (size_t i = 0; i < count; ++i) {
    all.push_back(first + static_cast<uint32_t>(i));
  }
  return all;
}

int DrmFile::resources(const Caller& caller, drm_mode_card_res* record) {
  const size_t connectors = card_->card_.connectors.size();
  record->count_fbs = 0;
  record->max_width = kLargest;
  record->max_height = kLargest;
  int error = fill(caller, record->crtc_id_ptr, &record->count_crtcs,
                   ids(kCrtcs, static_cast<size_t>(card_->card_.crtcs)));
  error = error != 0 ? error
                     : fill(caller, record->connector_id_ptr, &record->count_connectors,
                            ids(kConnectors, connectors));
  return error != 0 ? error
                    : fill(caller, record->encoder_id_ptr, &record->count_encoders,
                           ids(kEncoders, connectors));
}

static drm_mode_modeinfo mode_info(const DrmDevice::Mode& mode) {
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

int DrmFile::connector(const Caller& caller, drm_mode_get_connector* record) {
  const uint32_t index = record->connector_id - kConnectors;
  if (index >= card_->card_.connectors.size()) {
    return ENOENT;
  }
  const DrmDevice::Connector& connector = card_->card_.connectors[index];
  std::vector<drm_mode_modeinfo> modes;
  for (const DrmDevice::Mode& mode : connector.modes) {
    modes.push_back(mode_info(mode));
  }
  std::vector<uint32_t> properties;
  std::vector<uint64_t> values;
  for (const auto& [id, value] : visible(record->connector_id)) {
    properties.push_back(id);
    values.push_back(value);
  }
  record->encoder_id = connector.crtc >= 0 ? kEncoders + index : 0;
  record->connector_type = connector.type;
  record->connector_type_id = 1;
  record->connection = connector.connected ? 1 : 2;
  record->mm_width = 68;
  record->mm_height = 147;
  record->subpixel = 1;
  uint32_t value_count = record->count_props;
  int error = fill(caller, record->modes_ptr, &record->count_modes, modes);
  error = error != 0 ? error : fill(caller, record->prop_values_ptr, &value_count, values);
  error = error != 0 ? error : fill(caller, record->props_ptr, &record->count_props, properties);
  return error != 0 ? error
                    : fill(caller, record->encoders_ptr, &record->count_encoders,
                           ids(kEncoders + index, 1));
}

int DrmFile::encoder(drm_mode_get_encoder* record) {
  const uint32_t index = record->encoder_id - kEncoders;
  if (index >= card_->card_.connectors.size()) {
    return ENOENT;
  }
  const DrmDevice::Connector& connector = card_->card_.connectors[index];
  record->encoder_type = DRM_MODE_ENCODER_DSI;
  record->crtc_id = connector.crtc >= 0 ? kCrtcs + static_cast<uint32_t>(connector.crtc) : 0;
  record->possible_crtcs = connector.possible_crtcs;
  record->possible_clones = 0;
  return 0;
}

int DrmFile::crtc(drm_mode_crtc* record) {
  if (record->crtc_id - kCrtcs >= static_cast<uint32_t>(card_->card_.crtcs)) {
    return ENOENT;
  }
  const uint32_t id = record->crtc_id;
  *record = {};
  record->crtc_id = id;
  return 0;
}

std::vector<std::pair<uint32_t, uint64_t>> DrmFile::visible(uint32_t object) const {
  std::vector<std::pair<uint32_t, uint64_t>> found;
  for (const auto& [id, value] : card_->values_[object]) {
    if (atomic_ || !card_->properties_.at(id).atomic) {
      found.emplace_back(id, value);
    }
  }
  return found;
}

int DrmFile::object_properties(const Caller& caller, drm_mode_obj_get_properties* record) {
  if (card_->values_.count(record->obj_id) == 0) {
    return ENOENT;
  }
  std::vector<uint32_t> properties;
  std::vector<uint64_t> values;
  for (const auto& [id, value] : visible(record->obj_id)) {
    properties.push_back(id);
    values.push_back(value);
  }
  uint32_t value_count = record->count_props;
  const int error = fill(caller, record->prop_values_ptr, &value_count, values);
  return error != 0 ? error : fill(caller, record->props_ptr, &record->count_props, properties);
}

int DrmFile::property(drm_mode_get_property* record) {
  const auto property = card_->properties_.find(record->prop_id);
  if (property == card_->properties_.end()) {
    return ENOENT;
  }
  const bool blob = property->second.name == kModeProperties;
  record->flags = blob ? DRM_MODE_PROP_BLOB | DRM_MODE_PROP_IMMUTABLE : DRM_MODE_PROP_ATOMIC;
  snprintf(record->name, sizeof(record->name), "%s", property->second.name.c_str());
  record->count_values = 0;
  record->count_enum_blobs = 0;
  return 0;
}

int DrmFile::blob(const Caller& caller, drm_mode_get_blob* record) {
  const auto blob = card_->blobs_.find(record->blob_id);
  if (blob == card_->blobs_.end()) {
    return ENOENT;
  }
  const std::string& text = blob->second;
  const bool wanted = record->length == text.size();
  record->length = static_cast<uint32_t>(text.size());
  return wanted && !caller.write(record->data, text.data(), text.size()) ? EFAULT : 0;
}

int DrmFile::create_blob(const Caller& caller, drm_mode_create_blob* record) {
  if (record->length == 0 || record->length > 4096) {
    return EINVAL;
  }
  std::string content(record->length, '\0');
  if (!caller.read(record->data, content.data(), content.size())) {
    return EFAULT;
  }
  record->blob_id = card_->next_id_++;
  card_->blobs_[record->blob_id] = content;
  ++card_->made_blobs_;
  blobs_.insert(record->blob_id);
  return 0;
}

int DrmFile::create_buffer(drm_mode_create_dumb* record) {
  if (!card_->card_.dumb_buffers) {
    return ENOSYS;
  }
  if (record->width == 0 || record->height == 0 || record->bpp != 32) {
    return EINVAL;
  }
  const uint32_t alignment = card_->card_.pitch_alignment;
  record->pitch = (record->width * 4 + alignment - 1) / alignment * alignment;
  record->size = (uint64_t{record->pitch} * record->height + 4095) / 4096 * 4096;
  if (ftruncate(memory(), static_cast<off_t>(memory_size_ + record->size)) != 0) {
    return ENOMEM;
  }
  record->handle = next_handle_++;
  buffers_[record->handle] = {record->width, record->height, record->pitch, memory_size_};
  memory_size_ += record->size;
  ++card_->buffers_;
  return 0;
}

int DrmFile::close_buffer(uint32_t handle) {
  if (buffers_.erase(handle) == 0) {
    return EINVAL;
  }
  --card_->buffers_;
  return 0;
}

int DrmFile::add_framebuffer(drm_mode_fb_cmd2* record) {
  constexpr uint32_t kXbgr8888 = 'X' | 'B' << 8 | '2' << 16 | static_cast<uint32_t>('4') << 24;
  const auto buffer = buffers_.find(record->handles[0]);
  if (buffer == buffers_.end()) {
    return ENOENT;
  }
  if (record->pixel_format != kXbgr8888 || record->width > buffer->second.width ||
      record->height > buffer->second.height || record->pitches[0] != buffer->second.pitch ||
      record->offsets[0] != 0) {
    return EINVAL;
  }
  record->fb_id = card_->next_id_++;
  card_->framebuffers_[record->fb_id] = {record->width, record->height, buffer->second, memory()};
  framebuffers_.insert(record->fb_id);
  return 0;
}

// Planes that show it go dark, and their CRTC with them.
int DrmFile::remove_framebuffer(uint32_t id) {
  for (uint32_t i = 0; i < static_cast<uint32_t>(card_->card_.planes); ++i) {
    const uint32_t plane = kPlanes + i;
    if (card_->value(card_->values_, plane, "FB_ID") == id) {
      card_->turn_off(static_cast<uint32_t>(card_->value(card_->values_, plane, "CRTC_ID")));
      card_->reset(plane, "FB_ID");
      card_->reset(plane, "CRTC_ID");
    }
  }
  card_->framebuffers_.erase(id);
  framebuffers_.erase(id);
  return 0;
}

int DrmFile::commit(const Caller& caller, const drm_mode_atomic& record) {
  if (card_->master_ != this) {
    return EACCES;
  }
  if (!atomic_) {
    return EINVAL;
  }
  const auto read_array = [&](uint64_t address, auto* elements, size_t count) {
    elements->resize(count);
    return count == 0 || caller.read(address, elements->data(), count * sizeof((*elements)[0]));
  };
  std::vector<uint32_t> objects;
  std::vector<uint32_t> counts;
  if (record.count_objs > kMostInRequest ||
      !read_array(record.objs_ptr, &objects, record.count_objs) ||
      !read_array(record.count_props_ptr, &counts, record.count_objs)) {
    return EFAULT;
  }
  size_t total = 0;
  for (const uint32_t count : counts) {
    if (count > kMostInRequest) {
      return EINVAL;
    }
    total += count;
  }
  std::vector<uint32_t> properties;
  std::vector<uint64_t> values;
  if (!read_array(record.props_ptr, &properties, total) ||
      !read_array(record.prop_values_ptr, &values, total)) {
    return EFAULT;
  }
  DrmDevice::Values next = card_->values_;
  bool mode_set = false;
  size_t at = 0;
  for (size_t i = 0; i < objects.size(); ++i) {
    const auto object = next.find(objects[i]);
    if (object == next.end()) {
      return ENOENT;
    }
    for (uint32_t j = 0; j < counts[i]; ++j, ++at) {
      const auto held = object->second.find(properties[at]);
      if (held == object->second.end()) {
        return ENOENT;
      }
      mode_set = mode_set || (held->second != values[at] && objects[i] < kPlanes);
      held->second = values[at];
    }
  }
  if (mode_set && (record.flags & DRM_MODE_ATOMIC_ALLOW_MODESET) == 0) {
    return EINVAL;
  }
  if (const int error = card_->check(next); error != 0) {
    return error;
  }
  if ((record.flags & DRM_MODE_ATOMIC_TEST_ONLY) == 0) {
    card_->values_ = next;
    card_->first_pixels_.push_back(card_->first_pixel());
    caller.note("panel " + card_->lit());
  }
  return 0;
}

}  // namespace handset
