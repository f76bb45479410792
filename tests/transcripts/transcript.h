// Transcripts: scenarios of a station and a phone with everything that each line brings about. A
// file holds several; a person reads them as the phone's documentation, the runner replays each on
// a phone of its own.
//
//   == The vibrator runs and stops                 a scenario and its title
//   # Any other words about it.
//   .node /sys/class/leds/vibrator/activate 0      before the first sent line: prepares the phone
//   > AT+EDFT=6,1                                  sends a line, with \n behind it
//   write /sys/class/leds/vibrator/duration 5000\n the journal of it, reply, writes, waits, log ...
//   wait 100 ms x2                                 ... the same entry twice
//   < OK\r\n
//   | text                                         what a dot command prints
//   1: wait 10 ms                                  an entry of another thread
//   * 1: wait 10 ms                                any number of these, none included
//   ... 1: wait 10 ms                              anything of that thread, then this
//   --                                             what stands above came before what stands below
//   :: the panel is opened                         the entries of that block
//
// {*} in an entry stands for any text, but only "..." passes over replies: behind the last one "*
// {*}" says that no more come. A block is what often comes together: ":: its name" and its lines up
// to an empty one, at the head of a file, or in common.blocks for all files. A {word} in its name
// stands for what a line that names it has there, in all its lines. A block may name others, and
// may hold whole steps; such a one is named where a step would stand.

#pragma once

#include <string>
#include <vector>

#include "handset/journal.h"

struct ExpectedEntry {
  std::string stream;
  std::string text;
  bool any_number = false;
  bool replies = false;      // {*} at its beginning stands for a reply, too
  bool after_break = false;  // a line "--" stands before it
  std::string block = {};    // the line that names the block it comes from, and that line's number
  int block_line = 0;
};

struct Step {
  std::string action;  // "> ..." or ". ..."; empty for what comes before the first
  std::vector<std::string> source = {};  // its lines in the file, comments too
  bool in_block = false;                 // the file has them in a block
  std::vector<std::string> prints = {};
  std::vector<ExpectedEntry> entries = {};
  int line = 0;
};

struct Scenario {
  std::string title;
  std::vector<std::string> head;  // the file's lines up to its first step
  std::vector<Step> steps;
  int line = 0;
};

// Throws std::runtime_error with file and line of what cannot be read.
std::vector<Scenario> read_transcript(const std::string& file);

// What stands in the file before its first scenario.
std::string transcript_head(const std::string& file);

// What a line of a transcript stands for: one entry for each of its "x3", and before it, for "...",
// one of any number.
std::vector<ExpectedEntry> parse_entry(const std::string& line);

// Whether a pattern stands for the text: {*} takes any part of it.
bool fits(const std::string& pattern, const std::string& text);

// Whether an entry does, as above.
bool stands_for(const ExpectedEntry& entry, const std::string& text);

enum class Match { kComplete, kMoreToCome, kDifferent };

// Compares stream by stream; between streams only breaks are looked at. Nothing more is to come
// from a worker that has handled its line.
Match match(const std::vector<ExpectedEntry>& expected,
            const std::vector<handset::Journal::Entry>& actual, bool worker_done = false);
