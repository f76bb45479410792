// The factory serial line and the command loop. Called by main; modules reply through core/reply.h.

#pragma once

#include <pthread.h>

// Opens the serial line for reading and writing, with blocking reads and whatever speed and framing
// the tty already has. Returns the descriptor, which the command loop and the replies then use, or
// -1 (logged; the daemon goes on without a line).
int at_open_port();

// Starts the command worker as a joinable thread. Returns pthread_create's result, 0 for started.
int ftm_at_create_thread(pthread_t* thread);

// The command worker: one read of the line is one command, handled to its end before the next read.
[[noreturn]] void at_command_thread();

// Runs the handler of the first row whose command text begins the upper-cased line, or replies
// "UNDEFINED COMMAND\n". An argument line ("AT^WITH_ARGS...") hands the handler the text behind its
// first colon, other lines hand it null. Always returns 0.
int at_parse(const char* line);
