// The amplifiers' revision: the control tool marks the recognised one with ">OK".

#include <stdio.h>
#include <string.h>

#include "core/at.h"
#include "core/log.h"
#include "core/unique.h"

#define TAG "[FTM-AUDIO]"

static void reply_revision(const char* command, const char* caller) {
  const UniquePipe tool(popen(command, "re"));
  if (tool == nullptr) {
    FTM_LOGD(TAG "%s popen failed\n", caller);
    at_send_result("ERROR\n");
    return;
  }
  char line[256] = {};
  if (fgets(line, sizeof(line), tool.get()) == nullptr) {
    line[0] = '\0';
  }
  FTM_LOGD(TAG "%s buffer:%s\n", caller, line);
  at_send_result(strstr(line, ">OK") != nullptr ? "OK\r\n" : "ERROR\n");
}

static int get_spk_pa(const char*) {
  FTM_LOGD(TAG "get_spk_pa 111 %s\n", __func__);
  reply_revision("/system/bin/tinymix 'SPK_Pa Revision'", __func__);
  return 0;
}

static int get_hp_pa(const char*) {
  FTM_LOGD(TAG "get_hp_pa  222 %s\n", __func__);
  reply_revision("/system/bin/tinymix 'HP_Pa Revision'", __func__);
  return 0;
}

static AtCommand rows[] = {
    {.short_name = "spk_pa", .command = "AT+CODEC_SPK", .handler = get_spk_pa},
    {.short_name = "hp_pa", .command = "AT+CODEC_HP", .handler = get_hp_pa},
};

FTM_PLAIN_MODULE(pa, 4, TAG, rows)
