// A module for the core's own tests: its rows show what handlers are given and send replies of
// sizes that no real command has. Linked into a daemon of its own; takes the place of one real
// module.

#include <string.h>

#include "core/at.h"

#define TAG "[FTM-PROBE]"

static int reply_of(size_t size) {
  static char text[8193];
  memset(text, 'r', size);
  text[size] = '\0';
  return at_send_result(text);
}

static int at_reply_8191(const char*) {
  at_send_result(reply_of(8191) == 1 ? "sent" : "not sent");
  return 0;
}

static int at_reply_8192(const char*) {
  return reply_of(8192);
}

static int at_reply_null(const char*) {
  at_send_result(at_send_result(nullptr) == 0 ? "0" : "1");
  return 0;
}

static int at_reply_empty(const char*) {
  at_send_result(at_send_result("") == 1 ? "1" : "0");
  return 0;
}

static int at_show_argument(const char* argument) {
  at_send_result(argument == nullptr ? "(null)" : argument);
  return 0;
}

static AtCommand rows[] = {
    {.short_name = "reply_8191", .command = "AT+REPLY=8191", .handler = at_reply_8191},
    {.short_name = "reply_8192", .command = "AT+REPLY=8192", .handler = at_reply_8192},
    {.short_name = "reply_null", .command = "AT+REPLY=NULL", .handler = at_reply_null},
    {.short_name = "reply_empty", .command = "AT+REPLY=EMPTY", .handler = at_reply_empty},
    {.short_name = "no_argument", .command = "AT+SHOW", .handler = at_show_argument},
    {.short_name = "argument", .command = "AT^WITH_ARGS_SHOW", .handler = at_show_argument},
};

static void at_gps_init() {
  at_register_rows(rows);
}

static void at_gps_exit() {}

FTM_MODULE(gps, 4, TAG)
