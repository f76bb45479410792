// Font, colour, fill and flip; see graphics.h.

#include "display/graphics.h"

#include <string.h>

#include <algorithm>
#include <new>

#include "core/log.h"
#include "display/font.h"
#include "display/minui_backend_drm.h"

struct GRFont {
  GRSurface* texture;  // 96 characters in a row
  int char_width;
  int char_height;
};

static constexpr int kFontCharacters = 96;
static constexpr int kFontRows = 2;  // of a font resource: normal and bold
static constexpr int kNotOneChannel = -7;

static GRFont* gr_font = nullptr;  // made once, kept for the life of the process
static MinuiBackendDrm* gr_backend = nullptr;
static GRSurface* gr_draw = nullptr;
// The size of the first surface. Nothing reads it: kept as it stands.
static int overscan_width = 0;
static int overscan_height = 0;
static uint32_t gr_current = 0xffffffff;  // bytes in memory order red, green, blue, alpha

int res_create_alpha_surface(const char* /*name*/, GRSurface** surface) {
  *surface = nullptr;
  return kNotOneChannel;
}

// Each byte of the table is a run: its length in the low seven bits, ink when the highest is set. A
// zero byte ends it.
static void unpack_font(const unsigned char* runs, unsigned char* pixels, size_t size) {
  size_t used = 0;
  for (; *runs != 0; ++runs) {
    const size_t length = *runs & 0x7fU;
    if (length > size - used) {
      return;
    }
    memset(pixels + used, (*runs & 0x80U) != 0 ? 255 : 0, length);
    used += length;
  }
}

static GRSurface* built_in_font() {
  static unsigned char pixels[kBuiltInFontWidth * kBuiltInFontHeight];
  static GRSurface texture = {.width = kBuiltInFontWidth,
                              .height = kBuiltInFontHeight,
                              .row_bytes = kBuiltInFontWidth,
                              .pixel_bytes = 1,
                              .data = pixels};
  unpack_font(kBuiltInFontRuns, pixels, sizeof(pixels));
  return &texture;
}

static void init_font() {
  static GRFont font;
  const int result = res_create_alpha_surface("font", &font.texture);
  if (result == 0) {
    font.char_width = font.texture->width / kFontCharacters;
    font.char_height = font.texture->height / kFontRows;
  } else {
    FTM_LOGE("qlmfailed to read font: res=%d\n", result);
    font.texture = built_in_font();
    font.char_width = kBuiltInFontWidth / kFontCharacters;
    font.char_height = kBuiltInFontHeight;
  }
  gr_font = &font;
}

void gr_exit() {
  delete gr_backend;
  gr_backend = nullptr;
  gr_draw = nullptr;
}

int gr_init() {
  init_font();
  // An open without a close first gives up the display of the one before, which a second backend
  // would have to share.
  gr_exit();
  gr_backend = new (std::nothrow) MinuiBackendDrm;
  if (gr_backend == nullptr) {
    return -1;
  }
  gr_draw = gr_backend->Init();
  if (gr_draw == nullptr) {
    gr_exit();
    return -1;
  }
  overscan_width = gr_draw->width;
  overscan_height = gr_draw->height;
  gr_flip();
  gr_flip();
  if (gr_draw->pixel_bytes != 4) {
    FTM_LOGE("qlmgr_init: Only 4-byte pixel formats supported\n");
  }
  return 0;
}

void gr_flip() {
  if (gr_backend != nullptr) {
    gr_draw = gr_backend->Flip();
  }
}

void gr_fb_blank(bool blank) {
  if (gr_backend != nullptr) {
    gr_backend->Blank(blank);
  }
}

void gr_color(unsigned char red, unsigned char green, unsigned char blue, unsigned char alpha) {
  const unsigned char bytes[] = {red, green, blue, alpha};
  memcpy(&gr_current, bytes, sizeof(gr_current));
}

void gr_clear() {
  if (gr_draw == nullptr) {
    return;
  }
  unsigned char bytes[4];
  memcpy(bytes, &gr_current, sizeof(bytes));
  const bool one_byte = bytes[0] == bytes[1] && bytes[0] == bytes[2] && bytes[0] == bytes[3];
  if (one_byte && gr_draw->row_bytes == gr_draw->width * gr_draw->pixel_bytes) {
    memset(gr_draw->data, bytes[0],
           static_cast<size_t>(gr_draw->height) * static_cast<size_t>(gr_draw->row_bytes));
    return;
  }
  // Height stands before width: the text is kept as it stands.
  FTM_LOGE("qlmgr_clear size=%dx%d\n", gr_draw->height, gr_draw->width);
  // Copies: the compiler cannot know that no pixel is one of these.
  const GRSurface surface = *gr_draw;
  const uint32_t colour = gr_current;
  auto* row = reinterpret_cast<uint32_t*>(surface.data);
  for (int y = 0; y < surface.height; ++y) {
    std::fill_n(row, surface.width, colour);
    row += surface.row_bytes / surface.pixel_bytes;
  }
}
