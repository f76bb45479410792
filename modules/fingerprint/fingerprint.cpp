// The fingerprint sensor's QR code, which the system publishes as a property.

#include "core/at.h"
#include "core/bounded.h"
#include "core/log.h"
#include "core/properties.h"

#define TAG "[FTM-FP]"

static const char kQrCodeProperty[] = "norva.fingerprint.qrcode.value";
static char reply[1024];

static int at_test_fp(const char*) {
  char qrcode[PROP_VALUE_MAX] = {};
  const int length = property_get(kQrCodeProperty, qrcode, "NULL");
  bounded_format(reply, sizeof(reply), "FINGER_QR_CODE: %s\n", qrcode);
  FTM_LOGD(TAG "%s qrcode=%s \n", __func__, qrcode);
  at_send_result(reply);
  // With the fallback in place an unset property counts as success too; the station sees its NULL.
  at_send_result(length > 0 ? "OK\r\n" : "ERROR\n");
  return 0;
}

static AtCommand rows[] = {
    {.short_name = "fp_test", .command = "AT^FINGER_QR_CODE_GET", .handler = at_test_fp},
};

static void at_fp_test_init() {
  FTM_LOGD(TAG "%s start\n", __func__);
  at_register_rows(rows);
  FTM_LOGD(TAG "%s end\n", __func__);
}

// The init function is the exit function too: shut-down registers the row once more.
FTM_MODULE_EXIT_IS_INIT(fp_test, 5, TAG)
