// Replies to the station: the line's descriptor and the one function that writes to it.

#pragma once

// Writes text to the serial line in one write call, exactly as it stands: nothing is added. Returns
// 1 when all of it was written, 0 otherwise (null text, no port, short write). The text must be
// shorter than 8192 bytes; a longer one aborts the process. Callable from any thread; replies do
// not mix.
int at_send_result(const char* text);

// Folds the bytes a to z of a terminated string to upper case in place and returns the same
// pointer.
char* strupr(char* text);

// The line's descriptor, -1 from the start and again at shut-down: replies are then dropped.
void reply_set_port(int fd);
int reply_port();
