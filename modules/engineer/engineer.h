// The command handlers of the engineer module: engineer configuration, records on the reserve
// partition, secrecy lock. engineer.cpp lists them as rows; each family is a file of its own. All
// run on the command thread.

#pragma once

#include "core/log.h"

#define TAG "[FTM-ENGINEER]"

// engineer_adb.cpp
int at_enable_engineermode_adb(const char* argument);

// encrypt_state.cpp
int at_check_encrypt_state(const char* argument);

// secrecy_commands.cpp
int at_secrecy_lock_status(const char* argument);
int at_get_secrecy_imei(const char* argument);
int at_unlock_secrecy(const char* argument);

// backcover_color.cpp
int at_set_backcover_color(const char* argument);
int at_get_backcover_color(const char* argument);

// engineer_mark.cpp
int at_reset_engineermode_mark(const char* argument);

// product_info.cpp
int at_set_product_info(const char* argument);
int at_get_product_info(const char* argument);
int at_reset_product_info(const char* argument);

// config_commands.cpp
int at_query_aging_cfg(const char* argument);
int at_update_aging_cfg(const char* argument);
int at_remove_aging_cfg(const char* argument);
int at_query_test_cfg(const char* argument);
int at_update_test_cfg(const char* argument);
int at_remove_test_cfg(const char* argument);
