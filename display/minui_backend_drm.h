// The display through DRM atomic mode setting: one connector, one CRTC, one or two planes that show
// the halves of two dumb buffers in turns. Made and owned by graphics.cpp. Its messages go to
// standard output, not to the log.

#pragma once

#include <xf86drmMode.h>

#include <memory>
#include <span>

#include "core/unique.h"
#include "display/surface.h"

struct GRSurfaceDrm : GRSurface {
  uint32_t fb_id;
  uint32_t handle;  // of the dumb buffer
};

// Owners of what libdrm hands out.
template <auto Free>
struct DrmFree {
  template <typename T>
  void operator()(T* object) const {
    Free(object);
  }
};
using DrmResources = std::unique_ptr<drmModeRes, DrmFree<drmModeFreeResources>>;
using DrmConnector = std::unique_ptr<drmModeConnector, DrmFree<drmModeFreeConnector>>;
using DrmEncoder = std::unique_ptr<drmModeEncoder, DrmFree<drmModeFreeEncoder>>;
using DrmCrtc = std::unique_ptr<drmModeCrtc, DrmFree<drmModeFreeCrtc>>;
using DrmPlaneResources = std::unique_ptr<drmModePlaneRes, DrmFree<drmModeFreePlaneResources>>;
using DrmObjectProperties =
    std::unique_ptr<drmModeObjectProperties, DrmFree<drmModeFreeObjectProperties>>;
using DrmProperty = std::unique_ptr<drmModePropertyRes, DrmFree<drmModeFreeProperty>>;
using DrmBlob = std::unique_ptr<drmModePropertyBlobRes, DrmFree<drmModeFreePropertyBlob>>;
using DrmRequest = std::unique_ptr<drmModeAtomicReq, DrmFree<drmModeAtomicFree>>;

class MinuiBackendDrm {
 public:
  MinuiBackendDrm() = default;
  MinuiBackendDrm(const MinuiBackendDrm&) = delete;
  MinuiBackendDrm& operator=(const MinuiBackendDrm&) = delete;

  // Opens and sets up the display. Returns the first draw surface, which this object owns, or null.
  virtual GRSurface* Init();
  // Shows the current draw buffer and returns the other one.
  virtual GRSurface* Flip();
  // Tears the pipeline down (true) or sets it up (false); nothing when it is in that state already.
  virtual void Blank(bool blank);
  virtual ~MinuiBackendDrm();

 private:
  // A list whose memory may not be had: it is then empty.
  template <typename Item>
  struct Items {
    std::unique_ptr<Item[]> items;
    size_t count = 0;
    std::span<Item> all() const {
      return {items.get(), count};
    }
  };
  // The properties of one object, by name.
  struct Property {
    char name[DRM_PROP_NAME_LEN + 1];
    uint32_t id;
    uint64_t value;
  };
  struct Properties : Items<Property> {
    uint32_t Id(const char* name) const;  // 0 when the object has no such property
  };
  // What a card has. Its connectors are probed once, in the card's order; one that cannot be read
  // is null.
  struct CardResources {
    DrmResources all;
    Items<DrmConnector> connectors;
  };
  struct Plane {
    uint32_t id = 0;
    Properties properties;
  };
  static constexpr uint32_t kMostLayerMixers = 2;

  std::span<const Plane> Planes() const {
    return {planes_, plane_count_};
  }

  CardResources OpenDevice();
  Properties GetProperties(uint32_t object, uint32_t type) const;
  void DisableNonMainCrtcs(const CardResources& card);
  void ReadTopology();
  bool GetPlanes(const drmModePlaneRes* resources);
  GRSurfaceDrm* DrmCreateSurface(int width, int height);
  void DrmDestroySurface(GRSurfaceDrm* surface);
  int AddProperty(drmModeAtomicReq* request, uint32_t object, const Properties& properties,
                  const char* name, uint64_t value) const;
  int AddCrtc(drmModeAtomicReq* request, uint32_t crtc_id, uint32_t mode_blob, bool active) const;
  int AtomicPopulatePlane(size_t index, drmModeAtomicReq* request) const;
  int SetupPipeline(drmModeAtomicReq* request) const;
  int TeardownPipeline(drmModeAtomicReq* request) const;
  int UpdatePlaneFB();

  GRSurfaceDrm* surfaces_[2] = {};
  int current_buffer_ = 0;
  DrmCrtc main_monitor_crtc_;
  DrmConnector main_monitor_connector_;
  UniqueFd drm_fd_;
  uint32_t fb_prop_id_ = 0;
  Properties connector_properties_;
  Properties crtc_properties_;
  uint32_t mode_blob_ = 0;
  Plane planes_[kMostLayerMixers];
  size_t plane_count_ = 0;
  uint32_t number_of_lms_ = kMostLayerMixers;  // layer mixers, each with a plane of its own
  bool current_blank_state_ = true;
};
