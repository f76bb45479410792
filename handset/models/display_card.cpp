// The display card's state and what it shows; see display_card.h.

#include "handset/models/display_card.h"

#include <drm.h>
#include <drm_mode.h>
#include <errno.h>
#include <png.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <set>

namespace handset {

static const char* const kCrtcProperties[] = {"ACTIVE", "MODE_ID"};
static const char* const kPlaneProperties[] = {"FB_ID", "CRTC_ID", "SRC_X",  "SRC_Y",  "SRC_W",
                                               "SRC_H", "CRTC_X",  "CRTC_Y", "CRTC_W", "CRTC_H"};
static const char kConnectorCrtc[] = "CRTC_ID";
static const char kModeProperties[] = "mode_properties";
static const char kPlaneType[] = "type";

Picture Picture::smaller(int divisor) const {
  Picture made = {.width = width / divisor, .height = height / divisor, .pixels = {}};
  for (int y = 0; y < made.height; ++y) {
    for (int x = 0; x < made.width; ++x) {
      made.pixels.push_back(at(x * divisor, y * divisor));
    }
  }
  return made;
}

std::string Picture::png() const {
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
  std::string file(PNG_IMAGE_PNG_SIZE_MAX(image), '\0');
  png_alloc_size_t size = file.size();
  png_image_write_to_memory(&image, file.data(), &size, 0, bytes.data(), 0, nullptr);
  file.resize(size);
  return file;
}

bool Picture::write_png(const std::string& file) const {
  std::ofstream stream(file, std::ios::binary);
  stream << png();
  return static_cast<bool>(stream.flush());
}

// ---- The objects

DisplayCard::Card DisplayCard::phone_card() {
  Connector panel;
  panel.modes = {{.width = 1080, .height = 2340, .preferred = true}};
  panel.mode_properties = "mode_name=1080x2340\ntopology=sde_dualpipe\nfps=60\n";
  Card card;
  card.connectors = {panel};
  return card;
}

DisplayCard::DisplayCard(const Card& card) : card_(card) {
  std::set<std::string> names(std::begin(kCrtcProperties), std::end(kCrtcProperties));
  names.insert(std::begin(kPlaneProperties), std::end(kPlaneProperties));
  names.erase(card_.lacks);
  uint32_t id = kProperties;
  for (const std::string& name : names) {
    properties_[id++] = {.name = name, .flags = DRM_MODE_PROP_ATOMIC};
  }
  const uint32_t type = id++;
  properties_[type] = {.name = kPlaneType, .flags = DRM_MODE_PROP_ENUM | DRM_MODE_PROP_IMMUTABLE};
  properties_[id] = {.name = kModeProperties,
                     .flags = DRM_MODE_PROP_BLOB | DRM_MODE_PROP_IMMUTABLE};
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
  for (uint32_t i = 0; i < card_.planes.size(); ++i) {
    for (const char* name : kPlaneProperties) {
      give(kPlanes + i, name);
    }
    values_[kPlanes + i][type] = static_cast<uint64_t>(card_.planes[i]);
  }
  for (uint32_t i = 0; i < card_.connectors.size(); ++i) {
    give(kConnectors + i, kConnectorCrtc);
    const int crtc = card_.connectors[i].crtc;
    driving_crtcs_.push_back(crtc < 0 ? 0 : kCrtcs + static_cast<uint32_t>(crtc));
    if (const std::string& text = card_.connectors[i].mode_properties; !text.empty()) {
      blobs_[next_id_] = text;
      values_[kConnectors + i][id] = next_id_++;
    }
  }
}

DisplayCard::~DisplayCard() = default;

uint32_t DisplayCard::property_id(const std::string& name) const {
  for (const auto& [id, property] : properties_) {
    if (property.name == name) {
      return id;
    }
  }
  return 0;
}

uint64_t DisplayCard::value(const Values& values, uint32_t object, const char* property) const {
  const auto found = values.find(object);
  if (found == values.end()) {
    return 0;
  }
  const auto held = found->second.find(property_id(property));
  return held == found->second.end() ? 0 : held->second;
}

std::optional<DisplayCard::Property> DisplayCard::property(uint32_t id) const {
  const auto found = properties_.find(id);
  return found == properties_.end() ? std::nullopt : std::optional(found->second);
}

std::optional<DisplayCard::PropertyValues> DisplayCard::values(uint32_t object) const {
  const std::lock_guard lock(mutex_);
  const auto found = values_.find(object);
  return found == values_.end() ? std::nullopt : std::optional(found->second);
}

std::optional<std::string> DisplayCard::blob(uint32_t id) const {
  const std::lock_guard lock(mutex_);
  const auto found = blobs_.find(id);
  return found == blobs_.end() ? std::nullopt : std::optional(found->second);
}

uint32_t DisplayCard::add_blob(const std::string& content) {
  const std::lock_guard lock(mutex_);
  blobs_[next_id_] = content;
  ++made_blobs_;
  return next_id_++;
}

void DisplayCard::dismiss_blob(uint32_t id) {
  const std::lock_guard lock(mutex_);
  --made_blobs_;
  const uint32_t mode = property_id("MODE_ID");
  for (const auto& [object, values] : values_) {
    if (const auto held = values.find(mode); held != values.end() && held->second == id) {
      return;
    }
  }
  blobs_.erase(id);
}

uint32_t DisplayCard::add_framebuffer(const Framebuffer& framebuffer) {
  const std::lock_guard lock(mutex_);
  framebuffers_[next_id_] = framebuffer;
  return next_id_++;
}

void DisplayCard::remove_framebuffer(uint32_t id) {
  const std::lock_guard lock(mutex_);
  for (uint32_t i = 0; i < card_.planes.size(); ++i) {
    const uint32_t plane = kPlanes + i;
    if (value(values_, plane, "FB_ID") == id) {
      turn_off(static_cast<uint32_t>(value(values_, plane, "CRTC_ID")));
      reset(plane, "FB_ID");
      reset(plane, "CRTC_ID");
    }
  }
  framebuffers_.erase(id);
}

void DisplayCard::reset(uint32_t object, const char* property) {
  if (const auto held = values_[object].find(property_id(property));
      held != values_[object].end()) {
    held->second = 0;
  }
}

void DisplayCard::turn_off(uint32_t crtc) {
  reset(crtc, "ACTIVE");
  reset(crtc, "MODE_ID");
  for (uint32_t i = 0; i < card_.connectors.size(); ++i) {
    if (value(values_, kConnectors + i, kConnectorCrtc) == crtc) {
      reset(kConnectors + i, kConnectorCrtc);
      driving_crtcs_[i] = 0;
    }
  }
}

uint32_t DisplayCard::driving_crtc(uint32_t index) const {
  const std::lock_guard lock(mutex_);
  return driving_crtcs_[index];
}

DisplayCard::Shown DisplayCard::shown(uint32_t crtc) const {
  const std::lock_guard lock(mutex_);
  Shown shown = {.mode = static_cast<uint32_t>(value(values_, crtc, "MODE_ID")), .framebuffer = 0};
  for (uint32_t i = 0; i < card_.planes.size() && shown.framebuffer == 0; ++i) {
    if (value(values_, kPlanes + i, "CRTC_ID") == crtc) {
      shown.framebuffer = static_cast<uint32_t>(value(values_, kPlanes + i, "FB_ID"));
    }
  }
  return shown;
}

void DisplayCard::count_buffers(int added) {
  const std::lock_guard lock(mutex_);
  buffers_ += static_cast<size_t>(added);
}

// ---- Clients and their failures

void DisplayCard::enter(const void* client) {
  const std::lock_guard lock(mutex_);
  if (master_ == nullptr) {
    master_ = client;
  }
}

void DisplayCard::leave(const void* client) {
  const std::lock_guard lock(mutex_);
  if (master_ == client) {
    master_ = nullptr;
  }
}

bool DisplayCard::is_master(const void* client) const {
  const std::lock_guard lock(mutex_);
  return master_ == client;
}

void DisplayCard::fail(uint32_t request, int error, int skip) {
  const std::lock_guard lock(mutex_);
  failures_[request] = {error, skip};
}

int DisplayCard::take_failure(uint32_t request) {
  const std::lock_guard lock(mutex_);
  const auto failure = failures_.find(request);
  if (failure == failures_.end() || failure->second.second-- > 0) {
    return 0;
  }
  const int error = failure->second.first;
  failures_.erase(failure);
  return -error;
}

// ---- Commits

bool DisplayCard::is_crtc(uint64_t id) const {
  return id >= kCrtcs && id < kCrtcs + static_cast<uint32_t>(card_.crtcs);
}

bool DisplayCard::is_mode(uint64_t blob) const {
  const auto found = blobs_.find(static_cast<uint32_t>(blob));
  return found != blobs_.end() && found->second.size() == sizeof(drm_mode_modeinfo);
}

// 0, or the negative errno that a kernel gives for a state that cannot be shown.
int DisplayCard::check(const Values& values) const {
  for (uint32_t i = 0; i < static_cast<uint32_t>(card_.crtcs); ++i) {
    if (const int error = check_crtc(values, kCrtcs + i); error != 0) {
      return error;
    }
  }
  for (uint32_t i = 0; i < card_.connectors.size(); ++i) {
    if (const int error = check_connector(values, i); error != 0) {
      return error;
    }
  }
  for (uint32_t i = 0; i < card_.planes.size(); ++i) {
    if (const int error = check_plane(values, kPlanes + i); error != 0) {
      return error;
    }
  }
  return 0;
}

// It has a mode exactly when a connector takes from it, and is active only with one.
int DisplayCard::check_crtc(const Values& values, uint32_t crtc) const {
  const uint64_t mode = value(values, crtc, "MODE_ID");
  if (mode != 0 && !is_mode(mode)) {
    return -EINVAL;
  }
  bool driven = false;
  for (uint32_t i = 0; i < card_.connectors.size(); ++i) {
    driven = driven || value(values, kConnectors + i, kConnectorCrtc) == crtc;
  }
  const bool active = value(values, crtc, "ACTIVE") != 0;
  return (active && mode == 0) || driven != (mode != 0) ? -EINVAL : 0;
}

int DisplayCard::check_connector(const Values& values, uint32_t index) const {
  const uint64_t crtc = value(values, kConnectors + index, kConnectorCrtc);
  if (crtc == 0) {
    return 0;
  }
  const uint32_t possible = card_.connectors[index].possible_crtcs;
  return is_crtc(crtc) && ((possible >> (crtc - kCrtcs)) & 1) != 0 ? 0 : -EINVAL;
}

int DisplayCard::check_plane(const Values& values, uint32_t plane) const {
  const uint64_t framebuffer = value(values, plane, "FB_ID");
  const uint64_t crtc = value(values, plane, "CRTC_ID");
  if ((framebuffer != 0) != (crtc != 0) || (crtc != 0 && !is_crtc(crtc))) {
    return -EINVAL;
  }
  if (crtc != 0 && ((card_.plane_crtcs >> (crtc - kCrtcs)) & 1) == 0) {
    return -EINVAL;
  }
  if (framebuffer == 0) {
    return 0;
  }
  const auto shown = framebuffers_.find(static_cast<uint32_t>(framebuffer));
  if (shown == framebuffers_.end()) {
    return -EINVAL;
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
      return -ENOSPC;
    }
    if (size >> 16 != value(values, plane, d.target_size) ||
        value(values, plane, d.target) > kLargest) {
      return -ERANGE;  // nothing here scales, and nothing begins left of or above the screen
    }
  }
  return 0;
}

// Puts the changes into values, and says whether any is of a CRTC's or a connector's.
int DisplayCard::change(const std::vector<Change>& changes, Values* values, bool* mode_set) const {
  for (const Change& change : changes) {
    const auto object = values->find(change.object);
    if (object == values->end()) {
      return -ENOENT;
    }
    for (const auto& [property, value] : change.values) {
      const auto held = object->second.find(property);
      if (held == object->second.end()) {
        return -ENOENT;
      }
      if (properties_.at(property).flags != DRM_MODE_PROP_ATOMIC) {
        return -EINVAL;
      }
      *mode_set = *mode_set || (held->second != value && change.object < kPlanes);
      held->second = value;
    }
  }
  return 0;
}

int DisplayCard::commit(const std::vector<Change>& changes, uint32_t flags) {
  const std::lock_guard lock(mutex_);
  Values next = values_;
  bool mode_set = false;
  if (const int error = change(changes, &next, &mode_set); error != 0) {
    return error;
  }
  if (mode_set && (flags & DRM_MODE_ATOMIC_ALLOW_MODESET) == 0) {
    return -EINVAL;
  }
  const int error = check(next);
  if (error == 0 && (flags & DRM_MODE_ATOMIC_TEST_ONLY) == 0) {
    for (uint32_t i = 0; i < card_.connectors.size(); ++i) {
      const auto crtc = static_cast<uint32_t>(value(next, kConnectors + i, kConnectorCrtc));
      if (crtc != value(values_, kConnectors + i, kConnectorCrtc)) {
        driving_crtcs_[i] = crtc;
      }
    }
    values_ = next;
    ++commits_;
  }
  return error;
}

// ---- What is shown

// The CRTC that lights a panel; 0 when none does.
uint32_t DisplayCard::lit_crtc() const {
  for (uint32_t i = 0; i < card_.connectors.size(); ++i) {
    const auto crtc = static_cast<uint32_t>(value(values_, kConnectors + i, kConnectorCrtc));
    if (crtc != 0 && value(values_, crtc, "ACTIVE") != 0) {
      return crtc;
    }
  }
  return 0;
}

// Black, of the size of the CRTC's mode; of the first connected panel's for CRTC 0.
Picture DisplayCard::blank_picture(uint32_t crtc) const {
  Picture picture;
  if (crtc != 0) {
    drm_mode_modeinfo mode;
    const auto blob = blobs_.find(static_cast<uint32_t>(value(values_, crtc, "MODE_ID")));
    memcpy(&mode, blob->second.data(), sizeof(mode));
    picture.width = mode.hdisplay;
    picture.height = mode.vdisplay;
  } else {
    const auto panel =
        std::find_if(card_.connectors.begin(), card_.connectors.end(),
                     [](const Connector& c) { return c.connected && !c.modes.empty(); });
    if (panel != card_.connectors.end()) {
      picture.width = panel->modes[0].width;
      picture.height = panel->modes[0].height;
    }
  }
  picture.pixels.assign(static_cast<size_t>(picture.width) * static_cast<size_t>(picture.height),
                        0);
  return picture;
}

void DisplayCard::draw_plane(uint32_t plane, Picture* picture) const {
  const auto shown = framebuffers_.find(static_cast<uint32_t>(value(values_, plane, "FB_ID")));
  if (shown == framebuffers_.end()) {
    return;
  }
  const Framebuffer& framebuffer = shown->second;
  const auto source_x = static_cast<int>(value(values_, plane, "SRC_X") >> 16);
  const auto source_y = static_cast<int>(value(values_, plane, "SRC_Y") >> 16);
  const auto left = static_cast<int>(value(values_, plane, "CRTC_X"));
  const auto top = static_cast<int>(value(values_, plane, "CRTC_Y"));
  const auto width = static_cast<int>(value(values_, plane, "CRTC_W"));
  const auto height = static_cast<int>(value(values_, plane, "CRTC_H"));
  std::vector<uint8_t> row(framebuffer.buffer.pitch);
  for (int y = 0; y < height && top + y < picture->height; ++y) {
    const uint64_t at =
        framebuffer.buffer.offset + static_cast<uint64_t>(source_y + y) * framebuffer.buffer.pitch;
    if (pread(framebuffer.memory, row.data(), row.size(), static_cast<off_t>(at)) < 0) {
      break;
    }
    for (int x = 0; x < width && left + x < picture->width; ++x) {
      const uint8_t* pixel = &row[static_cast<size_t>(source_x + x) * 4];  // red first
      picture->pixels[static_cast<size_t>(top + y) * static_cast<size_t>(picture->width) +
                      static_cast<size_t>(left + x)] =
          static_cast<uint32_t>(pixel[0] << 16 | pixel[1] << 8 | pixel[2]);
    }
  }
}

Picture DisplayCard::picture() const {
  const std::lock_guard lock(mutex_);
  const uint32_t crtc = lit_crtc();
  Picture picture = blank_picture(crtc);
  for (uint32_t i = 0; crtc != 0 && i < card_.planes.size(); ++i) {
    if (value(values_, kPlanes + i, "CRTC_ID") == crtc) {
      draw_plane(kPlanes + i, &picture);
    }
  }
  return picture;
}

DisplayCard::Objects DisplayCard::objects() const {
  const std::lock_guard lock(mutex_);
  return {.buffers = buffers_, .framebuffers = framebuffers_.size(), .blobs = made_blobs_};
}

int DisplayCard::commits() const {
  const std::lock_guard lock(mutex_);
  return commits_;
}

uint32_t DisplayCard::first_pixel() const {
  uint8_t pixel[4] = {};  // red first
  for (uint32_t plane = kPlanes; plane < kPlanes + card_.planes.size(); ++plane) {
    const auto shown = framebuffers_.find(static_cast<uint32_t>(value(values_, plane, "FB_ID")));
    if (shown != framebuffers_.end() && value(values_, plane, "CRTC_X") == 0 &&
        pread(shown->second.memory, pixel, sizeof(pixel),
              static_cast<off_t>(shown->second.buffer.offset)) < 0) {
      break;
    }
  }
  return static_cast<uint32_t>(pixel[0] << 16 | pixel[1] << 8 | pixel[2]);
}

bool DisplayCard::is_lit() const {
  const std::lock_guard lock(mutex_);
  return lit_crtc() != 0;
}

std::string DisplayCard::lit() const {
  const std::lock_guard lock(mutex_);
  const uint32_t crtc = lit_crtc();
  if (crtc == 0) {
    return "off";
  }
  const Picture picture = blank_picture(crtc);
  char text[64];
  snprintf(text, sizeof(text), "%dx%d 0x%06x", picture.width, picture.height, first_pixel());
  return text;
}

}  // namespace handset
