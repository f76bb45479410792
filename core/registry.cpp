// Module registry and command table; see registry.h.

#include "core/registry.h"

#include <stdlib.h>

#include "core/log.h"
#include "core/reply.h"

#define TAG "[FTM-AT]"

AtCommand at_command_table = {.next = &at_command_table, .prev = &at_command_table};
AtModule at_init_list[kModuleLevels];
AtModule at_exit_list[kModuleLevels];
static bool init_lists_made = false;
static bool exit_lists_made = false;

template <typename Node>
static void append(Node* head, Node* node) {
  node->next = head;
  node->prev = head->prev;
  head->prev->next = node;
  head->prev = node;
}

// The heads are made by the first registration: it happens in a constructor, when nothing else of
// the program may have run yet.
static void make_empty_once(AtModule* lists, bool* made) {
  if (*made) {
    return;
  }
  for (uint32_t level = 0; level < kModuleLevels; ++level) {
    lists[level].next = &lists[level];
    lists[level].prev = &lists[level];
  }
  *made = true;
}

static intptr_t add_module(AtModule* lists, const char* caller, void (*function)(),
                           uint32_t level) {
  auto* module = static_cast<AtModule*>(malloc(sizeof(AtModule)));
  if (module == nullptr) {
    return FTM_LOGD(TAG "%s : malloc is error\n", caller);
  }
  module->function = function;
  module->level = level;
  append(&lists[level], module);
  return reinterpret_cast<intptr_t>(module);
}

intptr_t at_module_init_register(void (*function)(), uint32_t level) {
  make_empty_once(at_init_list, &init_lists_made);
  // The two range tests differ on purpose: 8 here, 7 for exits. Level 7 has no list and is refused
  // like level 8.
  if (level >= 8 || level == kModuleLevels) {
    return FTM_LOGD(TAG "%s : level is error : %d\n", __func__, level);
  }
  return add_module(at_init_list, __func__, function, level);
}

intptr_t at_module_exit_register(void (*function)(), uint32_t level) {
  make_empty_once(at_exit_list, &exit_lists_made);
  if (level >= kModuleLevels) {
    return FTM_LOGD(TAG "%s : level is error : %d\n", __func__, level);
  }
  return add_module(at_exit_list, __func__, function, level);
}

void at_register(AtCommand* row) {
  append(&at_command_table, row);
}

static void run_all(AtModule* lists) {
  for (uint32_t level = 0; level < kModuleLevels; ++level) {
    for (AtModule* module = lists[level].next; module != &lists[level]; module = module->next) {
      module->function();
    }
  }
}

static void free_all(AtModule* head) {
  AtModule* module = head->next;
  while (module != head) {
    AtModule* next = module->next;
    free(module);
    module = next;
  }
  head->next = head;
  head->prev = head;
}

void ftm_at_init() {
  FTM_LOGD(TAG "%s start\n", __func__);
  make_empty_once(at_init_list, &init_lists_made);  // a daemon without modules has registered none
  run_all(at_init_list);
  FTM_LOGD(TAG "%s end\n", __func__);
}

void ftm_at_deinit() {
  FTM_LOGD(TAG "%s start\n", __func__);
  reply_set_port(-1);
  make_empty_once(at_init_list, &init_lists_made);
  make_empty_once(at_exit_list, &exit_lists_made);
  run_all(at_exit_list);
  for (uint32_t level = 0; level < kModuleLevels; ++level) {
    free_all(&at_init_list[level]);
    free_all(&at_exit_list[level]);
  }
  FTM_LOGD(TAG "%s end\n", __func__);
}
