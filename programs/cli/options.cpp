#include "programs/cli/options.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <limits>

namespace vesk_cli {

namespace {

constexpr char kFooter[] =
    "Exit status: 0 done; 1 a file could not be read or written; 2 the command line is wrong;\n"
    "128 + N ended by signal N. A copy appears under its name only once it is complete and safe\n"
    "on storage.";

void AddOptions(CLI::App* app, Options* options) {
  vesk::CacheShape& shape = options->shape;
  // The bounds are checked on the plain number: what is added last is applied first.
  app->add_option("--block-size", shape.block_size, "Bytes of a cache block (suffixes K, M)")
      ->check(CLI::Range(1u, vesk::CacheShape::kMaxBlockSize))
      ->transform(CLI::AsSizeValue(false))
      ->type_name("SIZE")
      ->default_str("256K");
  app->add_option("--max-blocks", shape.max_blocks, "Blocks kept in memory per file")
      ->check(CLI::Range(1u, 1000000u))
      ->type_name("COUNT")
      ->capture_default_str();
  app->add_option("--read-ahead", shape.read_ahead,
                  "Blocks fetched ahead of a sequential reader; 0: off")
      ->check(CLI::Range(0u, vesk::CacheShape::kMaxReadAhead))
      ->type_name("COUNT")
      ->capture_default_str();
  app->add_option("--refresh", options->refresh_seconds,
                  "Seconds before a cached block is fetched again; 0: never, and no read-ahead")
      ->check(CLI::Range(0, std::numeric_limits<int>::max()))
      ->type_name("SECONDS")
      ->capture_default_str();
  app->add_option("--trace", options->trace, "Log lines of this level and above on standard error")
      ->check(CLI::IsMember({"off", "error", "dump", "info", "trace", "debug"}))
      ->type_name("LEVEL")
      ->capture_default_str();
  app->add_flag("--stats", options->stats, "Tell on standard error what the cache did");
}

}  // namespace

bool ParseOptions(int argc, char** argv, Options* options, int* status) {
  CLI::App app("Reads and copies files through the Vesk block cache.", "vesk");
  app.footer(kFooter);
  app.require_subcommand(1);

  CLI::App* const cat = app.add_subcommand("cat", "Write a file to standard output");
  cat->add_option("FILE", options->source, "The file to read")->required();
  CLI::App* const copy = app.add_subcommand("cp", "Copy a file");
  copy->add_option("SRC", options->source, "The file to copy")->required();
  copy->add_option("DST", options->destination, "The name of the copy; replaced when it exists")
      ->required();
  for (CLI::App* const command : {cat, copy}) AddOptions(command, options);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    for (const CLI::App* const command : app.get_subcommands()) {
      std::cout << command->help("vesk");
      return false;
    }
    std::cout << app.help("", CLI::AppFormatMode::All);
    return false;
  } catch (const CLI::ParseError& error) {
    const bool unknown = app.get_subcommands().empty() && argc > 1 && argv[1][0] != '-';
    std::cerr << "vesk: "
              << (unknown ? std::string("There is no command '") + argv[1] + "', only cat and cp"
                          : error.what())
              << " (see vesk --help)\n";
    *status = kExitUsage;
    return false;
  }
  options->command = copy->parsed() ? Options::Command::kCopy : Options::Command::kCat;
  return true;
}

}  // namespace vesk_cli
