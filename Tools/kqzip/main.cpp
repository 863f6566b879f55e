// kqzip, the command-line tool: what it can be told, and what its exit status says.

#include <KQZip/KQZip.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "Arguments.h"
#include "Cat.h"
#include "Conform.h"
#include "Create.h"
#include "Extract.h"
#include "Interruption.h"
#include "List.h"
#include "Message.h"
#include "StandardOutput.h"
#include "System.h"
#include "Verify.h"

namespace Tool {

namespace {

constexpr char exitStatuses[] =
    "Exit status: 0 done, 1 failed (a line on standard error says why), 2 wrong usage, 130 interrupted.\n"
    "A reader that closes standard output early ends list and cat with 0.";

// What the arguments ask for.
struct Command {
  std::function<void(const std::shared_ptr<KQ::NSProgress>&)> run;
  OnInterruption onInterruption = OnInterruption::CancelWork;
};

void printText(const std::string& text) {
  StandardOutput output;
  output.write(text);
  output.flush();
}

CLI::App* addCommand(CLI::App& app, const std::string& name, const std::string& description,
                     const std::string& details) {
  CLI::App* command = app.add_subcommand(name, description);
  command->group("Commands");
  // Not -h, which means readable sizes wherever sizes are printed.
  command->set_help_flag("--help", "Print this help and exit");
  command->footer(details + "\n\n" + exitStatuses);
  return command;
}

void addQuiet(CLI::App* command, bool& quiet, const std::string& effect) {
  command->add_flag("-q,--quiet", quiet, effect);
}

void addHumanReadable(CLI::App* command, bool& isHuman, const std::string& effect) {
  command->add_flag("-h,--human-readable", isHuman, effect);
}

template <class Value>
CLI::Option* addPositional(CLI::App* command, const std::string& name, Value& value,
                           const std::string& description) {
  return unmarked(command->add_option(name, value, description)->type_name(""));
}

void defineCreate(CLI::App& app, Command& command) {
  const auto options = std::make_shared<CreateOptions>();
  CLI::App* create = addCommand(
      app, "create", "Pack a folder or files into a new archive",
      "A folder is packed with every regular file below it whose own name does not begin with \".\"; links\n"
      "and empty folders are left out. Files are packed each under its last path component; of a symbolic\n"
      "link, what it points to. An existing archive is never touched. A file that changed its length while\n"
      "it was packed is named, with exit status 1; --verify also finds one whose contents changed. The\n"
      "archive is one that other programs open, with the files' permissions, unless --exact is given.");
  addPositional(create, "ARCHIVE", options->archive, "The archive to make")->required();
  addPositional(create, "SOURCE", options->sources, "One folder, or files")->required();
  create->add_flag("-k,--keep-parent", options->keepParent,
                   "Put the folder's own name in front of all names");
  create->add_flag("--verify", options->verifies, "Then read everything back and compare it with its CRC-32");
  create->add_flag("--exact", options->exact,
                   "Leave the archive in the library's own form, which many programs call damaged");
  addQuiet(create, options->quiet, "Show no progress");
  create->callback(
      [options, &command] { command.run = [options](const auto& work) { Tool::create(*options, work); }; });
}

void defineConform(CLI::App& app, Command& command) {
  const auto options = std::make_shared<ConformOptions>();
  CLI::App* conform = addCommand(
      app, "conform", "Let other programs open an archive made with --exact",
      "The archive is changed in place: no byte moves, and kqzip reads it as before. One that is so already\n"
      "is not touched, one that KQZip did not write is refused. If it is stopped, it can be run again.");
  addPositional(conform, "ARCHIVE", options->archive, "The archive to change")->required();
  conform->callback(
      [options, &command] { command.run = [options](const auto& /*work*/) { Tool::conform(*options); }; });
}

void defineList(CLI::App& app, Command& command) {
  const auto options = std::make_shared<ListOptions>();
  CLI::App* list = addCommand(
      app, "list", "Print the names in an archive",
      "One name a line, control characters and invalid bytes as \\xNN, a backslash as \\\\. Of several\n"
      "entries with one name the last counts. Of an archive that is cut off or whose records are damaged, "
      "all\n"
      "entries whose record and length are whole are listed.");
  addPositional(list, "ARCHIVE", options->archive, "The archive to list")->required();
  list->add_flag("-l,--long", options->isLong, "With type ('-' file, 'd' folder), size in bytes and date");
  list->add_flag("-0,--null", options->endsNull, "Names as they stand, each with a NUL behind it");
  addHumanReadable(list, options->isHuman, "With --long, sizes in units, as 12 B or 1.5 MiB");
  list->add_flag("--json", options->isJson, "All there is to know, as one JSON document");
  list->callback([options, &command] {
    command.run = [options](const auto& work) { Tool::list(*options, *work); };
    command.onInterruption = OnInterruption::EndAtOnce;
  });
}

void addUnpackingOptions(CLI::App* extract, ExtractOptions& options) {
  KQZipUnpackOptions& unpacking = options.unpacking;
  unmarked(extract->add_option("-j,--jobs", unpacking.threads,
                               "How many threads work; otherwise as many as there are processors"))
      ->type_name("N")
      ->check(CLI::Range(1U, 256U));
  extract->add_flag("-v,--verbose", options.isVerbose, "Print a line for each entry, and no progress");
  extract->add_flag("--dry-run", unpacking.isDryRun, "Print the lines and do nothing");
  unmarked(extract->add_option("-x,--exclude", unpacking.excluded,
                               "Leave out what has the name, is in the folder or matches the pattern"))
      ->type_name("PATTERN")
      ->allow_extra_args(false);
  unmarked(extract->add_option("--strip-components", unpacking.strippedComponents,
                               "Take so many parts off the front of each name"))
      ->type_name("N");
  unmarked(extract->add_option("--existing", options.existing,
                               "What happens to files that are there; otherwise they are replaced"))
      ->type_name("replace|keep|newer|fail")
      ->check(CLI::IsMember({"replace", "keep", "newer", "fail"}));
  extract->add_flag("-n", options.keepsExisting, "Keep files that are there, as --existing keep does");
  extract->add_flag("--keep-damaged", unpacking.keepsDamaged,
                    "Leave files in their place whose data do not match their CRC-32");
}

void defineExtract(CLI::App& app, Command& command) {
  const auto options = std::make_shared<ExtractOptions>();
  CLI::App* extract = addCommand(
      app, "extract", "Give an archive's files back",
      "All data are compared with their CRC-32. What does not match, and what cannot be written, is left "
      "out\n"
      "and named, with exit status 1; all else is extracted, from a damaged archive too. A file that is "
      "there\n"
      "is replaced in one step when the new one is whole. Dates are set, permissions as far as the mask\n"
      "(umask) lets new files have them. An archive with a name that is absolute, is empty or has a \"..\"\n"
      "component is refused. Nothing is written through a symbolic link, and a link that leads out of the\n"
      "folder is not made. In a pattern, * stands for any characters, ? for one and [a-z] for one of a set;\n"
      "all match \"/\" too. A PATH that is a name is that name, whatever it looks like.");
  addPositional(extract, "ARCHIVE", options->archive, "The archive to read; - for standard input")
      ->required();
  addPositional(extract, "PATH", options->unpacking.paths,
                "What to extract: names, folders with all below them, or patterns; otherwise all");
  unmarked(extract->add_option("-C,--directory", options->directory,
                               "The folder to extract to, made if missing; otherwise the current one"))
      ->type_name("DIR");
  addUnpackingOptions(extract, *options);
  extract->add_flag("--unsafe-paths", options->unpacking.takesNamesAsTheyStand,
                    "Take names and links as they stand");
  addQuiet(extract, options->quiet, "Show no progress");
  extract->callback(
      [options, &command] { command.run = [options](const auto& work) { Tool::extract(*options, work); }; });
}

void defineCat(CLI::App& app, Command& command) {
  const auto options = std::make_shared<CatOptions>();
  CLI::App* cat =
      addCommand(app, "cat", "Write an entry's bytes to standard output",
                 "They are compared with their CRC-32 as they pass: where they do not match, the\n"
                 "exit status is 1, and the bytes are written by then. What else is wrong with the\n"
                 "archive does not matter.");
  addPositional(cat, "ARCHIVE", options->archive, "The archive to read; - for standard input")->required();
  addPositional(cat, "PATH", options->path, "The entry's name")->required();
  cat->callback([options, &command] {
    command.run = [options](const auto& work) { Tool::cat(*options, *work); };
    command.onInterruption = OnInterruption::EndAtOnce;
  });
}

void defineVerify(CLI::App& app, Command& command) {
  const auto options = std::make_shared<VerifyOptions>();
  CLI::App* verify = addCommand(
      app, "verify", "Check an archive",
      "Compares CRC-32 and length of every entry with its header, and the entries with the central\n"
      "directory. Prints a line for each thing that is wrong, and fails if there is any.");
  addPositional(verify, "ARCHIVE", options->archive, "The archive to check")->required();
  addQuiet(verify, options->quiet, "Show no progress, and print nothing when all is right");
  addHumanReadable(verify, options->isHuman, "Sizes in units, as 12 B or 1.5 MiB");
  verify->add_flag("--json", options->isJson, "Always print one JSON document instead");
  verify->callback(
      [options, &command] { command.run = [options](const auto& work) { Tool::verify(*options, work); }; });
}

// CLI11's help in the words of this program.
CLI::Formatter wording() {
  CLI::Formatter formatter;
  formatter.label("Positionals", "Arguments");
  formatter.label("REQUIRED", "");
  formatter.label("SUBCOMMAND", "COMMAND");
  return formatter;
}

// The help of a command, or with no name the tool's own.
std::string helpText(const CLI::App& app, const std::string& name) {
  if (name.empty()) return wording().make_help(&app, "kqzip", CLI::AppFormatMode::Normal);
  const auto commands =
      app.get_subcommands([&name](const CLI::App* each) { return each->get_name() == name; });
  if (commands.empty()) throw Failure("there is no command " + inQuotes(name), WrongUsage);
  return wording().make_help(commands.front(), "kqzip " + name, CLI::AppFormatMode::Normal);
}

void defineHelp(CLI::App& app, Command& command) {
  const auto name = std::make_shared<std::string>();
  CLI::App* help = addCommand(app, "help", "Print the help of a command",
                              "The same text as that of kqzip COMMAND --help.");
  addPositional(help, "COMMAND", *name, "The command to explain; otherwise the tool");
  help->callback([&app, name, &command] {
    command.run = [&app, name](const auto&) { printText(helpText(app, *name)); };
    command.onInterruption = OnInterruption::EndAtOnce;
  });
}

void defineAll(CLI::App& app, Command& command) {
  app.name("kqzip");
  app.formatter(std::make_shared<CLI::Formatter>(wording()));
  app.set_help_flag("-h,--help", "Print this help and exit");
  app.set_version_flag("--version", "kqzip " KQZIP_VERSION, "Print the version and exit");
  app.footer(exitStatuses);
  app.require_subcommand(1);
  defineCreate(app, command);
  defineConform(app, command);
  defineList(app, command);
  defineExtract(app, command);
  defineCat(app, command);
  defineVerify(app, command);
  defineHelp(app, command);
}

// The message, and how to do better: the usage of the command where one was named.
ExitStatus reportWrongUsage(const CLI::App& app, const std::string& text) {
  printMessage(text);
  const auto chosen = app.get_subcommands();
  const CLI::App& named = chosen.empty() ? app : *chosen.front();
  const std::string name = chosen.empty() ? "kqzip" : "kqzip " + named.get_name();
  const std::string usage = wording().make_usage(&named, name) + "Try " + name + " --help.\n";
  printToStandardError(usage);
  return WrongUsage;
}

// CLI11's texts know commands only as subcommands.
std::string mistakeIn(const CLI::App& app, const CLI::ParseError& end) {
  const auto chosen = app.get_subcommands();
  const std::vector<std::string> rest = chosen.empty() ? app.remaining() : chosen.front()->remaining();
  if (!chosen.empty() && std::find(rest.begin(), rest.end(), "-h") != rest.end())
    return "there is no option \"-h\" (--help prints the help)";
  if (!chosen.empty()) return withoutMarks(end.what());
  return rest.empty() ? "a command is required"
                      : "there is no command or option " + inQuotes(withoutMarks(rest.front()));
}

// Help, version or a mistake: CLI11 reports all of them as errors.
ExitStatus endOfParsing(const CLI::App& app, const CLI::ParseError& end) {
  if (end.get_exit_code() != 0) return reportWrongUsage(app, mistakeIn(app, end));
  std::ostringstream text;
  app.exit(end, text, text);
  printText(text.str());
  return Done;
}

void runCommand(const Command& command) {
  const auto work = KQ::NSProgress::progressWithTotalUnitCount(1);
  work->becomeCurrentWithPendingUnitCount(1);
  const InterruptionWatch watch(work, command.onInterruption);
  command.run(work);
}

ExitStatus parseAndRun(int count, const char* const* arguments) {
  CLI::App app("Packs files into ZIP archives, stored without compression, and gives them back.");
  Command command;
  defineAll(app, command);
  try {
    app.parse(markedArguments(count, arguments));
    runCommand(command);
  } catch (const CLI::ParseError& end) {
    return endOfParsing(app, end);
  } catch (const Failure& failure) {
    if (failure.status() != WrongUsage) throw;
    return reportWrongUsage(app, failure.what());
  }
  return Done;
}

ExitStatus run(int count, const char* const* arguments) {
  try {
    return parseAndRun(count, arguments);
  } catch (const Failure& failure) {
    printMessage(failure.what());
    return failure.status();
  } catch (const OutputClosed&) {
    return Done;
  } catch (const std::bad_alloc&) {
    printMessage("not enough memory");
  } catch (const std::exception& failure) {
    printMessage(failure.what());
  }
  return Failed;
}

void prepareProcess() {
  System::nameTimeZone();
  System::holdStandardStreams();
  System::blockInterruptions();
  System::ignoreFatalWrites();
  // Failures are told in one line; the library's log would tell them twice.
  KQ::NSSetLogSink([](const std::string&) {});
}

}  // namespace

}  // namespace Tool

int main(int count, char** arguments) {
  try {
    Tool::prepareProcess();
    return Tool::run(count, arguments);
  } catch (...) {
    // Not even a message could be made.
    return Tool::Failed;
  }
}
