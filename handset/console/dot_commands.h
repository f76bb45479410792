// The phone script language's dot commands: they act on the phone or look into it. The console, the
// transcripts and whoever writes a script use the same ones.

#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "handset/handset.h"

namespace handset {

// Runs a line that begins with a dot and prints what it has to say. False when the line is none
// that can be carried out; out then has one line that says why.
bool run_dot_command(Handset* phone, const std::string& line, std::ostream& out);

// The same in two steps, for those who do something else meanwhile: what the line waits for, true
// once that is there or its time is over, and then the line itself. Most lines wait for nothing.
std::function<bool()> dot_command_wait(Handset* phone, const std::string& line);
bool finish_dot_command(Handset* phone, const std::string& line, std::ostream& out);

// The commands' names, and the list of them that ".help" prints.
std::vector<std::string> dot_command_names();
void print_dot_commands(std::ostream& out);

// What a line of a script sends: "> AT^SN" and "AT^SN" the text with a line feed behind it,
// ">> AT^SN\r" exactly the bytes that its escapes stand for. Throws std::invalid_argument on an
// escape that is none.
std::string sent_bytes(const std::string& line);

// The bytes that a text with the escapes of visible() stands for.
std::string unescaped(std::string_view text);

}  // namespace handset
