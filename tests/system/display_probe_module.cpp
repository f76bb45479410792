// Draws what no real command draws: two colours side by side, a mixed colour, a blank asked for
// twice, all of it without memory, a plane whose properties are refused. Linked into a daemon of
// its own; takes the place of the display module.

#include <dlfcn.h>
#include <errno.h>
#include <string.h>

#include <memory>

#include "core/at.h"
#include "display/graphics.h"
#include "display/minui_backend_drm.h"

static std::unique_ptr<MinuiBackendDrm> backend;
static bool no_memory = false;
static uint32_t refused_object = 0;

// This and the next one stand before the library's own.
extern "C" drmModeAtomicReqPtr drmModeAtomicAlloc() {
  static const auto real =
      reinterpret_cast<drmModeAtomicReqPtr (*)()>(dlsym(RTLD_NEXT, "drmModeAtomicAlloc"));
  return no_memory ? nullptr : real();
}

extern "C" int drmModeAtomicAddProperty(drmModeAtomicReqPtr request, uint32_t object,
                                        uint32_t property, uint64_t value) {
  static const auto real =
      reinterpret_cast<int (*)(drmModeAtomicReqPtr, uint32_t, uint32_t, uint64_t)>(
          dlsym(RTLD_NEXT, "drmModeAtomicAddProperty"));
  return object == refused_object ? -ENOMEM : real(request, object, property, value);
}

// Left half red, right half blue, in the buffer that is not shown.
static int at_draw_halves(const char*) {
  backend = std::make_unique<MinuiBackendDrm>();
  if (backend->Init() == nullptr) {
    at_send_result("no display");
    return 0;
  }
  const GRSurface* surface = backend->Flip();
  static const unsigned char kRed[] = {255, 0, 0, 255};
  static const unsigned char kBlue[] = {0, 0, 255, 255};
  for (int y = 0; y < surface->height; ++y) {
    for (int x = 0; x < surface->width; ++x) {
      memcpy(surface->data + y * surface->row_bytes + x * 4, x < surface->width / 2 ? kRed : kBlue,
             4);
    }
  }
  at_send_result("drawn");
  return 0;
}

static int at_flip(const char*) {
  backend->Flip();
  at_send_result("flipped");
  return 0;
}

static int at_blank_twice(const char*) {
  backend->Blank(true);
  backend->Blank(true);
  at_send_result("blanked");
  return 0;
}

static int at_without_memory(const char*) {
  no_memory = true;
  backend->Flip();
  backend->Blank(true);
  no_memory = false;
  at_send_result("tried");
  return 0;
}

static int at_refuse_plane(const char*) {
  constexpr uint32_t kFirstPlane = 400;
  refused_object = kFirstPlane;
  backend->Blank(true);
  refused_object = 0;
  at_send_result("tried");
  return 0;
}

static int at_fill(const char*) {
  gr_init();
  gr_color(10, 20, 30, 255);
  gr_clear();
  gr_flip();
  at_send_result("filled");
  return 0;
}

static AtCommand rows[] = {
    {.short_name = "halves", .command = "AT+HALVES", .handler = at_draw_halves},
    {.short_name = "flip", .command = "AT+FLIP", .handler = at_flip},
    {.short_name = "blank_twice", .command = "AT+BLANK", .handler = at_blank_twice},
    {.short_name = "without_memory", .command = "AT+NOMEM", .handler = at_without_memory},
    {.short_name = "refuse_plane", .command = "AT+REFUSE", .handler = at_refuse_plane},
    {.short_name = "fill", .command = "AT+FILL", .handler = at_fill},
};

FTM_PLAIN_MODULE(lcd_display, 4, "[FTM-PROBE]", rows)
