// The engineer module's registration: its seventeen rows in their order. Nothing is opened or kept
// between commands.

#include "modules/engineer/engineer.h"

#include "core/at.h"

static AtCommand rows[] = {
    // The doubled g is kept as it stands.
    {.short_name = "enable enginggermode adb",
     .command = "AT^ENABLE_ENG_ADB",
     .handler = at_enable_engineermode_adb},
    {.short_name = "check encrypt state",
     .command = "AT^CHECK_ENCRYPT_STATE",
     .handler = at_check_encrypt_state},
    {.short_name = "get secrecy lock status",
     .command = "AT^SECRECY_LOCK_STATUS",
     .handler = at_secrecy_lock_status},
    {.short_name = "get secrecy imei",
     .command = "AT^SECRECY_IMEI",
     .handler = at_get_secrecy_imei},
    {.short_name = "secrecy unlock",
     .command = "AT^WITH_ARGS_SECRECY_UNLOCK",
     .handler = at_unlock_secrecy},
    {.short_name = "set backcover color",
     .command = "AT^WITH_ARGS_BACKCOVER_COLOR",
     .handler = at_set_backcover_color},
    {.short_name = "get backcover color",
     .command = "AT^GET_BACKCOVER_COLOR",
     .handler = at_get_backcover_color},
    {.short_name = "reset engineermode mark",
     .command = "AT^RESET_ENG_MARK",
     .handler = at_reset_engineermode_mark},
    {.short_name = "set special product info",
     .command = "AT^WITH_ARGS_PRODUCT_INFO",
     .handler = at_set_product_info},
    {.short_name = "get special product info",
     .command = "AT^GET_PRODUCT_INFO",
     .handler = at_get_product_info},
    {.short_name = "reset special product info",
     .command = "AT^RESET_PRODUCT_INFO",
     .handler = at_reset_product_info},
    {.short_name = "query aging cfg item",
     .command = "AT^WITH_ARGS_QAC",
     .handler = at_query_aging_cfg},
    {.short_name = "update aging cfg item",
     .command = "AT^WITH_ARGS_UAC",
     .handler = at_update_aging_cfg},
    {.short_name = "remove aging cfg file",
     .command = "AT^REMOVE_AGING_CONFIG",
     .handler = at_remove_aging_cfg},
    {.short_name = "query test cfg item",
     .command = "AT^WITH_ARGS_QTC",
     .handler = at_query_test_cfg},
    {.short_name = "update test cfg item",
     .command = "AT^WITH_ARGS_UTC",
     .handler = at_update_test_cfg},
    {.short_name = "remove test cfg file",
     .command = "AT^REMOVE_TEST_CONFIG",
     .handler = at_remove_test_cfg},
};

FTM_PLAIN_MODULE(engineer, 4, TAG, rows)
