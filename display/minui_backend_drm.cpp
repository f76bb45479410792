// The DRM backend; see minui_backend_drm.h.

#include "display/minui_backend_drm.h"

#include <drm_fourcc.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>
#include <xf86drm.h>

#include <algorithm>
#include <new>
#include <string_view>
#include <utility>

static const char kDrmFolder[] = "/dev/dri";
static constexpr int kDrmCards = 16;

// How the display hardware is laid out between the mixers and the panel, by the connector's word.
static const struct {
  const char* topology;
  uint32_t layer_mixers;
} kTopologies[] = {
    {"sde_singlepipe", 1},        {"sde_singlepipe_dsc", 1}, {"sde_dualpipe", 2},
    {"sde_dualpipe_dsc", 2},      {"sde_dualpipemerge", 2},  {"sde_dualpipemerge_dsc", 2},
    {"sde_dualpipe_dscmerge", 2}, {"sde_ppsplit", 1},
};
static constexpr uint32_t kDefaultLayerMixers = 2;

// Messages are wanted when they happen, also where standard output is a file.
static void report(const char* format, ...) __attribute__((format(printf, 1, 2)));
static void report(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vprintf(format, args);
  va_end(args);
  fflush(stdout);
}

static bool is_usable(const DrmConnector& connector) {
  return connector != nullptr && connector->connection == DRM_MODE_CONNECTED &&
         connector->count_modes > 0;
}

// Takes the first usable connector out of the list, of a type when that is not 0.
static DrmConnector take_connector(std::span<DrmConnector> connectors, uint32_t type) {
  for (DrmConnector& connector : connectors) {
    if (is_usable(connector) && (type == 0 || connector->connector_type == type)) {
      return std::move(connector);
    }
  }
  return nullptr;
}

// Takes the connector of the panel out of the list, or null.
static DrmConnector FindMainMonitor(std::span<DrmConnector> connectors, int* mode_index) {
  DrmConnector connector;
  for (const uint32_t type :
       {DRM_MODE_CONNECTOR_LVDS, DRM_MODE_CONNECTOR_eDP, DRM_MODE_CONNECTOR_DSI, 0}) {
    connector = take_connector(connectors, type);
    if (connector != nullptr) {
      break;
    }
  }
  *mode_index = 0;
  for (int i = 0; connector != nullptr && i < connector->count_modes; ++i) {
    if ((connector->modes[i].type & DRM_MODE_TYPE_PREFERRED) != 0) {
      *mode_index = i;
      break;
    }
  }
  return connector;
}

static DrmCrtc find_crtc_for_connector(int fd, const drmModeRes* resources,
                                       const drmModeConnector* connector) {
  const DrmEncoder current(drmModeGetEncoder(fd, connector->encoder_id));
  if (current != nullptr && current->crtc_id != 0) {
    return DrmCrtc(drmModeGetCrtc(fd, current->crtc_id));
  }
  for (int i = 0; i < connector->count_encoders; ++i) {
    const DrmEncoder encoder(drmModeGetEncoder(fd, connector->encoders[i]));
    for (int j = 0; encoder != nullptr && j < std::min(resources->count_crtcs, 32); ++j) {
      if ((encoder->possible_crtcs & (1U << j)) != 0) {
        return DrmCrtc(drmModeGetCrtc(fd, resources->crtcs[j]));
      }
    }
  }
  return nullptr;
}

uint32_t MinuiBackendDrm::Properties::Id(const char* name) const {
  for (const Property& property : all()) {
    if (strcmp(property.name, name) == 0) {
      return property.id;
    }
  }
  return 0;
}

MinuiBackendDrm::Properties MinuiBackendDrm::GetProperties(uint32_t object, uint32_t type) const {
  Properties found;
  const DrmObjectProperties list(drmModeObjectGetProperties(drm_fd_.get(), object, type));
  const uint32_t most = list == nullptr ? 0 : list->count_props;
  found.items.reset(new (std::nothrow) Property[most]);
  for (uint32_t i = 0; found.items != nullptr && i < most; ++i) {
    const DrmProperty property(drmModeGetProperty(drm_fd_.get(), list->props[i]));
    if (property != nullptr) {
      Property& next = found.items[found.count++];
      next = {.name = {}, .id = property->prop_id, .value = list->prop_values[i]};
      memcpy(next.name, property->name, DRM_PROP_NAME_LEN);
    }
  }
  return found;
}

// ---- Requests

int MinuiBackendDrm::AddProperty(drmModeAtomicReq* request, uint32_t object,
                                 const Properties& properties, const char* name,
                                 uint64_t value) const {
  const uint32_t id = properties.Id(name);
  if (id == 0) {
    report("Could not find obj_id = %d\n", object);
    return -EINVAL;
  }
  if (drmModeAtomicAddProperty(request, object, id, value) < 0) {
    report("Could not add prop_id = %d for obj_id %d\n", id, object);
    return -EINVAL;
  }
  return 0;
}

// The connector and its CRTC, on or off.
int MinuiBackendDrm::AddCrtc(drmModeAtomicReq* request, uint32_t crtc_id, uint32_t mode_blob,
                             bool active) const {
  const uint32_t crtc = main_monitor_crtc_->crtc_id;
  int result = AddProperty(request, main_monitor_connector_->connector_id, connector_properties_,
                           "CRTC_ID", crtc_id);
  if (result == 0) {
    result = AddProperty(request, crtc, crtc_properties_, "MODE_ID", mode_blob);
  }
  if (result == 0) {
    result = AddProperty(request, crtc, crtc_properties_, "ACTIVE", active ? 1 : 0);
  }
  return result;
}

int MinuiBackendDrm::AtomicPopulatePlane(size_t index, drmModeAtomicReq* request) const {
  const Plane& plane = planes_[index];
  const uint64_t width = main_monitor_crtc_->mode.hdisplay / number_of_lms_;
  const uint64_t height = main_monitor_crtc_->mode.vdisplay;
  const bool first = index == 0;
  const std::pair<const char*, uint64_t> values[] = {
      {"FB_ID", surfaces_[current_buffer_]->fb_id},
      {"SRC_X", first ? 0 : width << 16},  // source geometry is 16.16 fixed point
      {"SRC_Y", 0},
      {"SRC_W", width << 16},
      {"SRC_H", height << 16},
      {"CRTC_X", first ? 0 : width},
      {"CRTC_Y", 0},
      {"CRTC_W", width},
      {"CRTC_H", height},
      {"CRTC_ID", main_monitor_crtc_->crtc_id},
  };
  for (const auto& [name, value] : values) {
    if (AddProperty(request, plane.id, plane.properties, name, value) != 0) {
      return -EINVAL;
    }
  }
  return 0;
}

int MinuiBackendDrm::SetupPipeline(drmModeAtomicReq* request) const {
  for (size_t i = 0; i < plane_count_; ++i) {
    if (AddCrtc(request, main_monitor_crtc_->crtc_id, mode_blob_, true) != 0) {
      return -EINVAL;
    }
  }
  for (size_t i = 0; i < plane_count_; ++i) {
    if (AtomicPopulatePlane(i, request) != 0) {
      report("Error populating plane_id = %d\n", planes_[i].id);
      return -EINVAL;
    }
  }
  return 0;
}

int MinuiBackendDrm::TeardownPipeline(drmModeAtomicReq* request) const {
  for (size_t i = 0; i < plane_count_; ++i) {
    if (AddCrtc(request, 0, 0, false) != 0) {
      return -EINVAL;
    }
  }
  for (const Plane& plane : Planes()) {
    for (const char* name : {"FB_ID", "CRTC_ID"}) {
      if (AddProperty(request, plane.id, plane.properties, name, 0) != 0) {
        report("Failed to add property for plane_id=%d\n", plane.id);
        report("Failed to tear down plane %d\n", plane.id);
        return -EINVAL;
      }
    }
  }
  return 0;
}

int MinuiBackendDrm::UpdatePlaneFB() {
  const DrmRequest request(drmModeAtomicAlloc());
  if (request == nullptr) {
    report("Atomic Alloc failed. Could not update fb_id\n");
    return -ENOMEM;
  }
  for (const Plane& plane : Planes()) {
    drmModeAtomicAddProperty(request.get(), plane.id, fb_prop_id_,
                             surfaces_[current_buffer_]->fb_id);
  }
  const int result =
      drmModeAtomicCommit(drm_fd_.get(), request.get(), DRM_MODE_ATOMIC_ALLOW_MODESET, nullptr);
  if (result != 0) {
    report("Atomic commit failed ret=%d\n", result);
  }
  return result;
}

// ---- Surfaces

GRSurfaceDrm* MinuiBackendDrm::DrmCreateSurface(int width, int height) {
  auto* surface = new (std::nothrow) GRSurfaceDrm();
  if (surface == nullptr) {
    return nullptr;
  }
  drm_mode_create_dumb create = {};
  create.width = static_cast<uint32_t>(width);
  create.height = static_cast<uint32_t>(height);
  create.bpp = 32;
  int result = drmIoctl(drm_fd_.get(), DRM_IOCTL_MODE_CREATE_DUMB, &create);
  if (result != 0) {
    report("DRM_IOCTL_MODE_CREATE_DUMB failed ret=%d\n", result);
    DrmDestroySurface(surface);
    return nullptr;
  }
  surface->handle = create.handle;
  surface->width = width;
  surface->height = height;
  surface->row_bytes = static_cast<int>(create.pitch);
  surface->pixel_bytes = 4;

  const uint32_t handles[4] = {create.handle};
  const uint32_t pitches[4] = {create.pitch};
  const uint32_t offsets[4] = {};
  result = drmModeAddFB2(drm_fd_.get(), create.width, create.height, DRM_FORMAT_XBGR8888, handles,
                         pitches, offsets, &surface->fb_id, 0);
  if (result != 0) {
    report("drmModeAddFB2 failed ret=%d\n", result);
    DrmDestroySurface(surface);
    return nullptr;
  }

  drm_mode_map_dumb map = {};
  map.handle = create.handle;
  result = drmIoctl(drm_fd_.get(), DRM_IOCTL_MODE_MAP_DUMB, &map);
  if (result != 0) {
    report("DRM_IOCTL_MODE_MAP_DUMB failed ret=%d\n", result);
    DrmDestroySurface(surface);
    return nullptr;
  }
  void* pixels =
      mmap(nullptr, static_cast<size_t>(create.pitch) * create.height, PROT_READ | PROT_WRITE,
           MAP_SHARED, drm_fd_.get(), static_cast<off_t>(map.offset));
  if (pixels == MAP_FAILED) {
    perror("mmap() failed");
    DrmDestroySurface(surface);
    return nullptr;
  }
  surface->data = static_cast<unsigned char*>(pixels);
  return surface;
}

void MinuiBackendDrm::DrmDestroySurface(GRSurfaceDrm* surface) {
  if (surface == nullptr) {
    return;
  }
  if (surface->data != nullptr) {
    munmap(surface->data,
           static_cast<size_t>(surface->row_bytes) * static_cast<size_t>(surface->height));
  }
  if (surface->fb_id != 0) {
    const int result = drmModeRmFB(drm_fd_.get(), surface->fb_id);
    if (result != 0) {
      report("drmModeRmFB failed ret=%d\n", result);
    }
  }
  if (surface->handle != 0) {
    drm_gem_close close = {};
    close.handle = surface->handle;
    const int result = drmIoctl(drm_fd_.get(), DRM_IOCTL_GEM_CLOSE, &close);
    if (result != 0) {
      report("DRM_IOCTL_GEM_CLOSE failed ret=%d\n", result);
    }
  }
  delete surface;
}

// ---- Set-up

// Keeps the first card that can show something and returns what it has; no resources when there is
// none.
MinuiBackendDrm::CardResources MinuiBackendDrm::OpenDevice() {
  for (int card = 0; card < kDrmCards; ++card) {
    char path[64];
    snprintf(path, sizeof(path), "%s/card%d", kDrmFolder, card);
    UniqueFd fd(open(path, O_RDWR | O_CLOEXEC));
    uint64_t dumb_buffers = 0;
    if (!fd.ok() || drmGetCap(fd.get(), DRM_CAP_DUMB_BUFFER, &dumb_buffers) != 0 ||
        dumb_buffers == 0) {
      continue;
    }
    DrmResources resources(drmModeGetResources(fd.get()));
    if (resources == nullptr || resources->count_crtcs == 0) {
      continue;
    }
    Items<DrmConnector> connectors;
    const auto most = static_cast<size_t>(std::max(resources->count_connectors, 0));
    connectors.items.reset(new (std::nothrow) DrmConnector[most]);
    for (size_t i = 0; connectors.items != nullptr && i < most; ++i) {
      connectors.items[connectors.count++].reset(
          drmModeGetConnector(fd.get(), resources->connectors[i]));
    }
    const std::span<DrmConnector> all = connectors.all();
    if (std::any_of(all.begin(), all.end(), is_usable)) {
      drm_fd_ = std::move(fd);
      return {std::move(resources), std::move(connectors)};
    }
  }
  return {};
}

// Of all connectors but the main one, which has been taken out of the list.
// A kernel shows "ACTIVE" to atomic clients only, and Init becomes one later: on it nothing is
// found here, and the other panels stay as they are.
void MinuiBackendDrm::DisableNonMainCrtcs(const CardResources& card) {
  const DrmRequest request(drmModeAtomicAlloc());
  if (request == nullptr) {
    return;
  }
  for (const DrmConnector& connector : card.connectors.all()) {
    if (connector == nullptr) {
      continue;
    }
    const DrmCrtc crtc = find_crtc_for_connector(drm_fd_.get(), card.all.get(), connector.get());
    if (crtc == nullptr || crtc->crtc_id == main_monitor_crtc_->crtc_id) {
      continue;
    }
    const uint32_t active = GetProperties(crtc->crtc_id, DRM_MODE_OBJECT_CRTC).Id("ACTIVE");
    if (active != 0) {
      drmModeAtomicAddProperty(request.get(), crtc->crtc_id, active, 0);
    }
  }
  // The message stands on the success path: kept as it stands.
  if (drmModeAtomicCommit(drm_fd_.get(), request.get(), DRM_MODE_ATOMIC_ALLOW_MODESET, nullptr) ==
      0) {
    report("Atomic Commit failed in DisableNonMainCrtcs\n");
  }
}

// Sets the number of layer mixers from the connector's "topology=" line.
void MinuiBackendDrm::ReadTopology() {
  static const char kKey[] = "topology=";
  for (const Property& property : connector_properties_.all()) {
    if (strcmp(property.name, "mode_properties") != 0) {
      continue;
    }
    const DrmBlob blob(
        drmModeGetPropertyBlob(drm_fd_.get(), static_cast<uint32_t>(property.value)));
    std::string_view text;
    if (blob != nullptr && blob->data != nullptr) {
      const auto* data = static_cast<const char*>(blob->data);
      text = {data, strnlen(data, blob->length)};
    }
    for (size_t start = 0; start < text.size();) {
      const size_t end = std::min(text.find('\n', start), text.size());
      const std::string_view line = text.substr(start, end - start);
      start = end + 1;
      if (line.find(kKey) == std::string_view::npos) {
        continue;
      }
      const std::string_view topology = line.substr(strlen(kKey));
      number_of_lms_ = kDefaultLayerMixers;
      for (const auto& known : kTopologies) {
        if (topology == known.topology) {
          number_of_lms_ = known.layer_mixers;
        }
      }
    }
    report("number of lms in topology %d\n", number_of_lms_);
  }
}

// False when the card has fewer planes than the topology needs.
bool MinuiBackendDrm::GetPlanes(const drmModePlaneRes* resources) {
  if (resources == nullptr || resources->count_planes < number_of_lms_) {
    return false;
  }
  for (uint32_t i = 0; i < number_of_lms_; ++i) {
    const uint32_t id = resources->planes[i];
    planes_[plane_count_++] = {id, GetProperties(id, DRM_MODE_OBJECT_PLANE)};
  }
  return true;
}

static_assert(sizeof(drmModeModeInfo) == 68, "the kernel's layout: the mode's blob is one");

GRSurface* MinuiBackendDrm::Init() {
  CardResources card = OpenDevice();
  if (card.all == nullptr) {
    perror("cannot find/open a drm device");
    return nullptr;
  }
  int mode_index = 0;
  main_monitor_connector_ = FindMainMonitor(card.connectors.all(), &mode_index);
  if (main_monitor_connector_ == nullptr) {
    report("main_monitor_connector not found\n");
    return nullptr;
  }
  main_monitor_crtc_ =
      find_crtc_for_connector(drm_fd_.get(), card.all.get(), main_monitor_connector_.get());
  if (main_monitor_crtc_ == nullptr) {
    report("main_monitor_crtc not found\n");
    return nullptr;
  }
  DisableNonMainCrtcs(card);

  main_monitor_crtc_->mode = main_monitor_connector_->modes[mode_index];
  for (GRSurfaceDrm*& surface : surfaces_) {
    surface =
        DrmCreateSurface(main_monitor_crtc_->mode.hdisplay, main_monitor_crtc_->mode.vdisplay);
    if (surface == nullptr) {
      return nullptr;
    }
  }

  drmSetClientCap(drm_fd_.get(), DRM_CLIENT_CAP_UNIVERSAL_PLANES, 1);
  drmSetClientCap(drm_fd_.get(), DRM_CLIENT_CAP_ATOMIC, 1);
  const DrmPlaneResources plane_resources(drmModeGetPlaneResources(drm_fd_.get()));
  crtc_properties_ = GetProperties(main_monitor_crtc_->crtc_id, DRM_MODE_OBJECT_CRTC);
  connector_properties_ =
      GetProperties(main_monitor_connector_->connector_id, DRM_MODE_OBJECT_CONNECTOR);
  ReadTopology();
  if (!GetPlanes(plane_resources.get())) {
    return nullptr;
  }
  if (drmModeCreatePropertyBlob(drm_fd_.get(), &main_monitor_crtc_->mode,
                                sizeof(main_monitor_crtc_->mode), &mode_blob_) != 0) {
    report("failed to create mode blob\n");
    return nullptr;
  }
  fb_prop_id_ = planes_[0].properties.Id("FB_ID");
  Blank(false);
  return surfaces_[0];
}

// ---- Showing

void MinuiBackendDrm::Blank(bool blank) {
  if (blank == current_blank_state_) {
    return;
  }
  const DrmRequest request(drmModeAtomicAlloc());
  if (request == nullptr) {
    report("Atomic Alloc failed\n");
    return;
  }
  const int result = blank ? TeardownPipeline(request.get()) : SetupPipeline(request.get());
  if (result != 0) {
    return;
  }
  const int committed =
      drmModeAtomicCommit(drm_fd_.get(), request.get(), DRM_MODE_ATOMIC_ALLOW_MODESET, nullptr);
  if (committed == 0) {
    // A success in spite of its words: kept as they stand.
    report("Atomic Commit failed, rc = %d\n", committed);
    current_blank_state_ = blank;
  }
}

GRSurface* MinuiBackendDrm::Flip() {
  UpdatePlaneFB();
  current_buffer_ = 1 - current_buffer_;
  return surfaces_[current_buffer_];
}

MinuiBackendDrm::~MinuiBackendDrm() {
  if (!drm_fd_.ok()) {
    return;
  }
  // Not by the overridable name: a destructor is past its overrides.
  MinuiBackendDrm::Blank(true);
  if (mode_blob_ != 0) {
    drmModeDestroyPropertyBlob(drm_fd_.get(), mode_blob_);
  }
  for (GRSurfaceDrm* surface : surfaces_) {
    DrmDestroySurface(surface);
  }
}
