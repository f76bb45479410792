// The registry on its own: order of the lists, refused levels, release.

#include "core/registry.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "core/at.h"
#include "core/reply.h"
#include "core/serial.h"
#include "tests/unit/log_capture.h"

static bool no_memory = false;

// What the linker takes for the registry's malloc (--wrap).
extern "C" {
void* __real_malloc(size_t size);
void* __wrap_malloc(size_t size) {
  return no_memory ? nullptr : __real_malloc(size);
}
}

static std::string order;

static void first() {
  order += '1';
}
static void second() {
  order += '2';
}
static void leaving() {
  order += 'x';
}

static void expect_empty(const AtModule* lists) {
  for (uint32_t level = 0; level < kModuleLevels; ++level) {
    EXPECT_EQ(lists[level].next, &lists[level]);
    EXPECT_EQ(lists[level].prev, &lists[level]);
  }
}

TEST(Registry, RunsLevelsUpwardsAndEachInOrderOfRegistration) {
  LogCapture log;
  at_module_init_register(first, 6);
  at_module_init_register(second, 0);
  at_module_init_register(first, 0);
  at_module_init_register(first, 0);  // twice registered runs twice
  at_module_exit_register(leaving, 6);
  const auto* entry =
      reinterpret_cast<const AtModule*>(at_module_exit_register(second, 3));  // NOLINT
  EXPECT_EQ(entry, at_exit_list[3].next);
  EXPECT_EQ(entry->level, 3U);
  EXPECT_EQ(log.take(), std::vector<LogCapture::Line>{});

  ftm_at_init();
  EXPECT_EQ(std::exchange(order, ""), "2111");
  EXPECT_EQ(log.take(), (std::vector<LogCapture::Line>{debug_line("[FTM-AT]ftm_at_init start\n"),
                                                       debug_line("[FTM-AT]ftm_at_init end\n")}));
  ftm_at_deinit();
  EXPECT_EQ(std::exchange(order, ""), "2x");
  expect_empty(at_init_list);
  expect_empty(at_exit_list);
}

TEST(Registry, RefusesLevelsWithoutAListAndAllWithoutMemory) {
  LogCapture log;
  no_memory = true;
  at_module_init_register(first, 0);
  at_module_exit_register(first, 0);
  no_memory = false;
  EXPECT_EQ(log.take(), (std::vector<LogCapture::Line>{
                            debug_line("[FTM-AT]at_module_init_register : malloc is error\n"),
                            debug_line("[FTM-AT]at_module_exit_register : malloc is error\n")}));
  for (const uint32_t level : {7U, 8U, 4294967295U}) {
    at_module_init_register(first, level);
    at_module_exit_register(first, level);
    const std::string shown = std::to_string(static_cast<int32_t>(level)) + "\n";
    EXPECT_EQ(log.take(),
              (std::vector<LogCapture::Line>{
                  debug_line("[FTM-AT]at_module_init_register : level is error : " + shown),
                  debug_line("[FTM-AT]at_module_exit_register : level is error : " + shown)}));
  }
  expect_empty(at_init_list);
  expect_empty(at_exit_list);
}

static int shorter(const char*) {
  order += 's';
  return 0;
}
static int longer(const char*) {
  order += 'l';
  return 0;
}

TEST(Registry, TheFirstRowWhoseTextBeginsTheLineIsRun) {
  LogCapture log;
  AtCommand rows[] = {
      {.short_name = "shorter", .command = "AT+SHOW", .handler = shorter},
      {.short_name = "longer", .command = "AT+SHOWN", .handler = longer},
  };
  at_register_rows(rows);
  at_parse("AT+SHOWN");
  EXPECT_EQ(std::exchange(order, ""), "s");
  at_command_table.next = at_command_table.prev = &at_command_table;
}

// Sends a text and keeps the result.
static int sent_at_exit = -1;
static void replying() {
  sent_at_exit = at_send_result("too late");
}

TEST(Registry, AnExitFunctionsReplyReachesNoPort) {
  LogCapture log;
  const int null = open("/dev/null", O_WRONLY);
  reply_set_port(null);
  at_module_exit_register(replying, 2);
  ftm_at_deinit();
  EXPECT_EQ(sent_at_exit, 0);
  EXPECT_EQ(log.take(), (std::vector<LogCapture::Line>{
                            debug_line("[FTM-AT]ftm_at_deinit start\n"),
                            debug_line("[FTM-AT]at_send_result : result is : too late\n"),
                            debug_line("[FTM-AT]at_send_result : serial_port_fd is : -1\n"),
                            debug_line("[FTM-AT]ftm_at_deinit end\n")}));
  EXPECT_EQ(close(null), 0);  // the port is not closed
}
