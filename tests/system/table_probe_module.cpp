// A module of the whole daemon that prints the command table: text and short name of each row, a
// tab between them.

#include <stdio.h>

#include "core/at.h"

static void print_table() {
  for (const AtCommand* row = at_command_table.next; row != &at_command_table; row = row->next) {
    printf("%s\t%s\n", static_cast<const char*>(row->command), row->short_name);
  }
  fflush(stdout);
}

// Without a priority of its own this runs behind the modules' constructors, so that the function is
// the last one of the last level: all rows are there.
__attribute__((constructor)) static void register_table_probe() {
  at_module_init_register(print_table, kModuleLevels - 1);
}
