// The options and what they say of themselves; see options.h.

#include "handset/console/options.h"

#include <CLI/CLI.hpp>
#include <iostream>

namespace handset {

static const char kPurpose[] =
    "A simulated handset that runs the unchanged factory-test daemon. Without --serve it runs the\n"
    "given lines, those of standard input, or what is typed at the terminal: AT commands, and dot\n"
    "commands that look into the phone or break it (\".help\" lists them).";

static const char kStatus[] =
    "Status: 0; 1 when a line could not be carried out; 2 when the options are wrong or no phone\n"
    "could be started; 128 + n when signal n ended the lines.";

constexpr int kMostPhones = 256;

static void add_options(CLI::App* app, Options* options) {
  app->add_option("LINE", options->lines, "lines to run, one an argument")
      ->type_name("")
      ->expected(1)
      ->allow_extra_args(false);
  app->allow_extras();  // the other lines; a list of the library's own would take "[a,b]" apart
  app->option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  auto* const serve =
      app->add_flag("--serve", options->serve,
                    "run until SIGTERM or Ctrl-C, for other programs; prints a ready line");
  app->add_option("--line", options->line, "keep a symbolic link to the serial line's tty at PATH")
      ->type_name("PATH");
  app->add_option("--control", options->control,
                  "take lines of other programs at the Unix socket PATH")
      ->type_name("PATH");
  auto* const web =
      app->add_option("--web", options->web,
                      "serve, and show the phone to browsers of this machine at PORT (0: any that "
                      "is free), or to all that reach ADDRESS")
          ->type_name("[ADDRESS:]PORT");
  app->add_option("--count", options->count,
                  "start N phones; %d in a path is the number of each, from 1")
      ->type_name("N")
      ->check(CLI::Range(1, kMostPhones));
  app->add_option("--profile", options->profile,
                  "break the phone as \".broken\" does: the name of a broken phone, or a folder")
      ->type_name("NAME|DIR");
  auto* const tty = app->add_option("--tty", options->tty, "the settings of the phone's tty")
                        ->type_name("KIND")
                        ->check(CLI::IsMember({"raw", "canonical", "default", "uart"}));
  app->add_option("--speed", options->speed, "bits per second of a uart tty")
      ->type_name("N")
      ->check(CLI::Range(1, 4000000))
      ->needs(tty);
  app->add_option("--waits", options->waits,
                  "what part of its time each wait of the daemon takes: 1 all, 0 none")
      ->type_name("FACTOR")
      ->check(CLI::Range(0.0, 100.0));
  app->add_option("--daemon", options->daemon, "the daemon to run instead of the handset's own")
      ->type_name("PATH")
      ->check(CLI::ExistingFile);
  app->add_option("--log", options->log, "write the daemon's log to FILE")->type_name("FILE");
  app->add_option("--journal", options->journal, "write all that the daemon does to FILE")
      ->type_name("FILE");
  app->add_flag("--demo", options->demo, "walk every command of the healthy phone once")
      ->excludes(serve)
      ->excludes(web);
}

// The lines behind the first one. Throws CLI::ExtrasError when an unknown option is among them.
static void add_lines(const std::vector<std::string>& arguments, std::vector<std::string>* lines) {
  for (const std::string& argument : arguments) {
    if (argument.starts_with("-")) {
      throw CLI::ExtrasError({argument});
    }
    lines->push_back(argument);
  }
}

// What the options say one by one, but not together; empty when all is well.
static std::string contradiction(const Options& options) {
  if (options.demo && !options.lines.empty()) {
    return "--demo has lines of its own";
  }
  if (!options.serve && !options.control.empty()) {
    return "--control requires --serve or --web";
  }
  if (!options.serve && options.count > 1) {
    return "--count requires --serve or --web";
  }
  const bool numbered = options.count == 1;
  for (const std::string* path :
       {&options.line, &options.control, &options.log, &options.journal}) {
    if (!numbered && !path->empty() && path->find("%d") == std::string::npos) {
      return "several phones need %d in " + *path;
    }
  }
  return "";
}

CommandLine parse_command_line(int argc, char** argv) {
  constexpr int kWrong = 2;
  CommandLine parsed;
  CLI::App app(kPurpose, "handset");
  app.footer(kStatus);
  app.set_version_flag("--version", "handset " FTM_VERSION);
  app.get_formatter()->column_width(26);
  add_options(&app, &parsed.options);
  try {
    app.parse(argc, argv);
    add_lines(app.remaining(), &parsed.options.lines);
    parsed.options.serve = parsed.options.serve || !parsed.options.web.empty();
  } catch (const CLI::Success& asked) {
    parsed.status = app.exit(asked);
  } catch (const CLI::ParseError& error) {
    std::cerr << "handset: " << error.what() << "; --help lists the options\n";
    parsed.status = kWrong;
  }
  if (const std::string why = contradiction(parsed.options); !parsed.status && !why.empty()) {
    std::cerr << "handset: " << why << "\n";
    parsed.status = kWrong;
  }
  return parsed;
}

std::string numbered(const std::string& path, int number) {
  const size_t place = path.find("%d");
  return place == std::string::npos ? path
                                    : path.substr(0, place) + std::to_string(number) +
                                          numbered(path.substr(place + 2), number);
}

}  // namespace handset
