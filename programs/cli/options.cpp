#include "programs/cli/options.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <iostream>
#include <system_error>
#include <tuple>
#include <vector>

namespace vesk_cli {

namespace {

constexpr char kFooter[] =
    "Exit status: 0 done; 1 a file could not be read or written; 2 a setting or the command line "
    "is\n"
    "wrong; 128 + N ended by signal N. A copy appears under its name only once it is complete and\n"
    "safe on storage.";

constexpr char kStores[] =
    "A store is a backend (auto, posix, uring, memory), then what stands in front of it, from the\n"
    "inside out: latency=2ms[:jitter=1ms][:bandwidth=100M], fault=OPERATIONS:ERROR[:every=N]... "
    "and\n"
    "retry, as in --store posix,latency=2ms,fault=write:EIO:every=100,retry (docs/operating.md).";

constexpr char kReplayFooter[] =
    "TRACE is what a program has logged with log-levels all: as text, as JSON (which tells most),\n"
    "out of the system log, or the history of a failed check. Other lines are passed over. What\n"
    "lines do not tell is shown as ?, valid bytes that may have grown since with a +; a block "
    "that\n"
    "went without a line stays listed. With --whole, for a log in which no file was renamed, a\n"
    "block that no line has made is a contradiction, and less is left open.\n"
    "\n"
    "Exit status: 0 consistent; 1 a check failed or a line contradicts the others; 2 the trace or\n"
    "the command line cannot be read, or there is nothing to show (docs/replay.md).";

// What is wrong with the number of a line; empty: nothing.
std::string NotALine(const std::string& text) {
  std::size_t line = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, line);
  if (error == std::errc() && stop == end && line > 0) return "";
  return vesk::QuotedText(text) + " is not a line: they are counted from 1";
}

// What options that are right by themselves are wrong together; empty: nothing.
std::string Conflict(const Options::Replay& replay) {
  if (!replay.file.empty() && replay.at == 0 && !replay.steps)
    return "--file needs --at or --steps";
  if (replay.to != 0 && replay.to < replay.from) return "--to is a line before --from";
  return "";
}

void AddReplay(CLI::App* command, Options* options) {
  Options::Replay& replay = options->replay;
  command->add_option("TRACE", options->source, "The log to replay; -: standard input")->required();
  CLI::Option* const at =
      command->add_option("--at", replay.at, "Show what the cache held behind this line")
          ->type_name("LINE")
          ->check(NotALine);
  CLI::Option* const steps =
      command->add_flag("--steps", replay.steps, "Show each line of the cache and what it changed")
          ->excludes(at);
  for (const auto& [name, line, what] :
       {std::tuple("--from", &replay.from, "With --steps: begin at this line"),
        std::tuple("--to", &replay.to, "With --steps: end with this line")}) {
    command->add_option(name, *line, what)->type_name("LINE")->check(NotALine)->needs(steps);
  }
  command->add_option("--file", replay.file, "With --at and --steps: of this file alone")
      ->type_name("NAME");
  command->add_flag("--whole", replay.whole, "The trace begins with the program (see below)");
  command->footer(kReplayFooter);
}

}  // namespace

void PrintUsageError(const std::string& message, const std::string& where) {
  std::cerr << "vesk: " << message << " (see " << where << " --help)\n";
}

bool EndOutput() {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return true;
  std::cerr << "vesk: cannot write to 'standard output': " << std::generic_category().message(errno)
            << '\n';
  return false;
}

std::string CommandName(const Options& options) {
  switch (options.command) {
    case Options::Command::kCat: return "vesk cat";
    case Options::Command::kCopy: return "vesk cp";
    case Options::Command::kStat: return "vesk stat";
    case Options::Command::kReplay: return "vesk replay";
    case Options::Command::kSettings: return "vesk settings";
  }
  return "vesk";
}

bool ParseOptions(int argc, char** argv, Options* options, vesk::Settings* settings, int* status) {
  CLI::App app("Reads and copies files through the Vesk block cache.", "vesk");
  app.footer(kFooter);
  app.set_version_flag("--version", "vesk " VESK_VERSION);
  app.require_subcommand(1);

  CLI::App* const cat = app.add_subcommand("cat", "Write a file to standard output");
  cat->add_option("FILE", options->source, "The file to read")->required();
  CLI::App* const copy = app.add_subcommand("cp", "Copy a file");
  copy->add_option("SRC", options->source, "The file to copy")->required();
  copy->add_option("DST", options->destination, "The name of the copy; replaced when it exists")
      ->required();
  copy->add_option("--progress", options->progress,
                   "Show on standard error how far the copy is; auto: when that is a terminal")
      ->check(CLI::IsMember({"auto", "always", "never"}))
      ->capture_default_str();
  for (CLI::App* const command : {cat, copy}) {
    command->add_flag("--stats", options->stats, "Tell on standard error what the cache did");
  }
  CLI::App* const stat = app.add_subcommand("stat", "Tell what the cache knows of a file");
  stat->add_option("FILE", options->source, "The file to ask about")->required();
  CLI::App* const table =
      app.add_subcommand("settings", "List all settings, as a configuration file");
  table->add_flag("--markdown", options->markdown, "As tables for a documentation page");
  CLI::App* const replay = app.add_subcommand("replay", "Rebuild from a log what the cache held");
  AddReplay(replay, options);
  for (CLI::App* const command : {cat, copy, stat, table}) {
    vesk::AddSettings(command, &options->settings_source);
    command->footer(vesk::SettingsFooter() + "\n\n" + kStores);
  }

  try {
    app.parse(vesk::CommandLineWords(app, argc, argv));
  } catch (const CLI::CallForHelp&) {
    const std::vector<CLI::App*> commands = app.get_subcommands();
    std::cout << (commands.empty() ? app.help() : commands.front()->help("vesk"));
    if (!EndOutput()) *status = kExitFailed;
    return false;
  } catch (const CLI::CallForVersion& version) {
    std::cout << version.what() << '\n';
    if (!EndOutput()) *status = kExitFailed;
    return false;
  } catch (const CLI::ParseError& error) {
    const bool unknown = app.get_subcommands().empty() && argc > 1 && argv[1][0] != '-';
    std::string where = "vesk";
    for (const CLI::App* const command : app.get_subcommands()) where += ' ' + command->get_name();
    PrintUsageError(unknown ? "There is no command " + vesk::QuotedText(argv[1]) +
                                  ", only cat, cp, stat, replay and settings"
                            : vesk::ParseErrorText(app, error),
                    where);
    *status = kExitUsage;
    return false;
  }
  if (copy->parsed()) options->command = Options::Command::kCopy;
  if (stat->parsed()) options->command = Options::Command::kStat;
  if (table->parsed()) options->command = Options::Command::kSettings;
  if (replay->parsed()) options->command = Options::Command::kReplay;
  const std::string refusal =
      replay->parsed() ? Conflict(options->replay) : options->settings_source.Load(settings);
  if (refusal.empty()) return true;
  PrintUsageError(refusal, CommandName(*options));
  *status = kExitUsage;
  return false;
}

}  // namespace vesk_cli
