// korvane-log: looks into, plays back, annotates and cuts log files from the shell.
//
// This file wires the command line to the verbs in Commands.h and turns every failure into one
// line on stderr. Exit codes: 0 success, 1 the work failed, 2 the command line was wrong.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <functional>
#include <iostream>
#include <memory>
#include <string>

#include "Commands.h"
#include "view/ViewCommands.h"

namespace {

using namespace KorvaneLog;

constexpr int exitFailure = 1;
constexpr int exitUsage = 2;

// The verb chosen on the command line, and the file its failures are about.
struct ChosenVerb {
    std::function<int()> run;
    std::function<std::string()> subject;
};

// Adds a verb whose options live in `options` and which runs `run` when it is chosen; failures
// that do not name a file of their own are reported against `options.*subject`.
template <typename Options>
CLI::App* addVerb(CLI::App& app, ChosenVerb& chosen, const std::string& name,
                  const std::shared_ptr<Options>& options, int (*run)(const Options&),
                  std::string Options::*subject) {
    CLI::App* verb = app.add_subcommand(name);
    verb->callback([&chosen, options, run, subject] {
        chosen.run = [options, run] { return run(*options); };
        chosen.subject = [options, subject] { return (*options).*subject; };
    });
    return verb;
}

// Adds a sub-action such as `meta FILE set`: choosing it stores `name` in `options.action`.
template <typename Options>
CLI::App* addAction(CLI::App* verb, const std::string& name, const std::string& description,
                    const std::shared_ptr<Options>& options) {
    verb->require_subcommand(0, 1);
    CLI::App* action = verb->add_subcommand(name, description);
    action->callback([options, name] { options->action = name; });
    return action;
}

// A check that a number is at least `minimum`, or above it when `strictly` is set.
CLI::Validator numberFrom(double minimum, bool strictly = false) {
    const std::string bound =
        std::string(strictly ? "above " : "at least ") + CLI::detail::to_string(minimum);
    return CLI::Validator(
        [minimum, strictly, bound](std::string& text) -> std::string {
            double value = 0;
            const bool parsed = CLI::detail::lexical_cast(text, value);
            if (parsed && (strictly ? value > minimum : value >= minimum)) {
                return {};
            }
            return "'" + text + "' is not a number " + bound;
        },
        "");
}

// A repeatable option that takes one value per use: `--type 1 --type 2`.
template <typename T>
CLI::Option* addRepeated(CLI::App* verb, const std::string& name, std::vector<T>& values,
                         const std::string& description) {
    return verb->add_option(name, values, description)->allow_extra_args(false);
}

void addInfo(CLI::App& app, ChosenVerb& chosen) {
    auto options = std::make_shared<InfoOptions>();
    CLI::App* verb = addVerb(app, chosen, "info", options, runInfo, &InfoOptions::file);
    verb->description("Summarise a log file: identity, time span, sources, resources, metadata");
    verb->add_option("FILE", options->file, "Log file")->required();
    verb->add_flag("--json", options->json, "Print one JSON object");
}

void addCat(CLI::App& app, ChosenVerb& chosen) {
    auto options = std::make_shared<CatOptions>();
    CLI::App* verb = addVerb(app, chosen, "cat", options, runCat, &CatOptions::file);
    verb->description("Print entries as a table, JSON lines, a hex dump or raw payload bytes");
    verb->add_option("FILE", options->file, "Log file")->required();
    verb->add_option("--from", options->from, "First entry id")->check(numberFrom(0));
    verb->add_option("--to", options->to, "Last entry id")->check(numberFrom(0));
    verb->add_option("--limit", options->limit, "At most N entries")->check(numberFrom(0));
    addRepeated(verb, "--type", options->types, "Only entries of this data type");
    addRepeated(verb, "--source", options->sources, "Only entries of this source (name or id)");
    addRepeated(verb, "--source-type", options->sourceTypes, "Only sources of this type");
    verb->add_option("--format", options->format, "table (the default), json, hex or raw")
        ->check(CLI::IsMember({"table", "json", "hex", "raw"}));
}

void addTail(CLI::App& app, ChosenVerb& chosen) {
    auto options = std::make_shared<TailOptions>();
    CLI::App* verb = addVerb(app, chosen, "tail", options, runTail, &TailOptions::file);
    verb->description("Print the entries of a file, then each new one as it is recorded");
    verb->add_option("FILE", options->file, "Log file")->required();
    verb->add_option("-n,--lines", options->lines,
                     "Begin with the last N entries already there (0: only new ones)")
        ->check(numberFrom(0));
    addRepeated(verb, "--source", options->sources, "Only entries of this source (name or id)");
    verb->add_option("--format", options->format, "table (the default) or json")
        ->check(CLI::IsMember({"table", "json"}));
    verb->footer("Follows the file until Ctrl-C; fails if the file is removed or replaced.");
}

void addIdentityOptions(CLI::App* verb, NewFileIdentity& identity) {
    verb->add_option("--app", identity.applicationName, "Application name of the new file");
    verb->add_option("--app-version", identity.applicationVersion, "Its version");
    verb->add_option("--level", identity.compressionLevel, "Compression level, -1 to 9 (0: none)")
        ->check(CLI::Range(-1, 9));
}

void addRecord(CLI::App& app, ChosenVerb& chosen) {
    auto options = std::make_shared<RecordOptions>();
    CLI::App* verb = addVerb(app, chosen, "record", options, runRecord, &RecordOptions::output);
    verb->description("Record JSON lines from stdin into a new log file");
    verb->add_option("OUT", options->output, "New log file")->required();
    addIdentityOptions(verb, options->identity);
    verb->footer(
        "Each line: {\"source\": NAME, \"sourceType\": N, \"type\": N, "
        "\"timestamp\": MS, \"data\": BASE64}");
}

void addMeta(CLI::App& app, ChosenVerb& chosen) {
    auto options = std::make_shared<MetaOptions>();
    CLI::App* verb = addVerb(app, chosen, "meta", options, runMeta, &MetaOptions::file);
    verb->description("List metadata, or add a key");
    verb->add_option("FILE", options->file, "Log file")->required();
    CLI::App* set = addAction(verb, "set", "Add KEY with VALUE (keys cannot be changed)", options);
    set->add_option("KEY", options->key, "Key")->required();
    set->add_option("VALUE", options->value, "Value")->required();
    std::vector<CLI::Option*> kinds;
    for (const char* kind : {"int", "double", "string"}) {
        kinds.push_back(set->add_flag_function(
            std::string("--") + kind, [options, kind](std::int64_t) { options->kind = kind; },
            std::string("Store VALUE as ") + kind + (kind[0] == 's' ? " (the default)" : "")));
    }
    for (CLI::Option* kind : kinds) {
        for (CLI::Option* other : kinds) {
            if (kind != other) {
                kind->excludes(other);
            }
        }
    }
}

void addBookmarks(CLI::App& app, ChosenVerb& chosen) {
    auto options = std::make_shared<BookmarkOptions>();
    CLI::App* verb =
        addVerb(app, chosen, "bookmarks", options, runBookmarks, &BookmarkOptions::file);
    verb->description("List, add, update or remove bookmarks");
    verb->add_option("FILE", options->file, "Log file")->required();
    for (const char* name : {"add", "update"}) {
        const std::string description =
            name[0] == 'a' ? "Add a bookmark to an entry" : "Change the bookmark of an entry";
        CLI::App* action = addAction(verb, name, description, options);
        action->add_option("ID", options->entryId, "Entry id")->required();
        action->add_option("TITLE", options->title, "Title")->required();
        action->add_option("COMMENT", options->comment, "Comment");
    }
    CLI::App* remove = addAction(verb, "remove", "Remove the bookmarks of an entry", options);
    remove->add_option("ID", options->entryId, "Entry id")->required();
}

void addResources(CLI::App& app, ChosenVerb& chosen) {
    auto options = std::make_shared<ResourceOptions>();
    CLI::App* verb =
        addVerb(app, chosen, "resources", options, runResources, &ResourceOptions::file);
    verb->description("List, extract or add named resources");
    verb->add_option("FILE", options->file, "Log file")->required();
    CLI::App* get = addAction(verb, "get", "Write a resource to stdout or a file", options);
    get->add_option("NAME", options->name, "Resource name")->required();
    get->add_option("-o,--output", options->output, "New file to write (default: stdout)");
    CLI::App* add = addAction(verb, "add", "Add the content of PATH as resource NAME", options);
    add->add_option("NAME", options->name, "Resource name")->required();
    add->add_option("PATH", options->path, "File to add")->required();
}

void addThumbnail(CLI::App& app, ChosenVerb& chosen) {
    auto options = std::make_shared<ThumbnailOptions>();
    CLI::App* verb =
        addVerb(app, chosen, "thumbnail", options, runThumbnail, &ThumbnailOptions::file);
    verb->description("Show, extract or set the thumbnail");
    verb->add_option("FILE", options->file, "Log file")->required();
    CLI::App* get = addAction(verb, "get", "Write the thumbnail to stdout or a file", options);
    get->add_option("-o,--output", options->output, "New file to write (default: stdout)");
    CLI::App* set = addAction(verb, "set", "Set the thumbnail to the content of PATH", options);
    set->add_option("PATH", options->path, "Image file")->required();
}

void addDerivedFileOptions(CLI::App* verb, DeriveOptions& options) {
    verb->add_option("-o,--output", options.output, "New log file");
    verb->add_option_function<std::string>(
        "--app", [&options](const std::string& name) { options.applicationName = name; },
        "Application name of the new file (default: the source's)");
    verb->add_option_function<std::string>(
        "--app-version", [&options](const std::string& v) { options.applicationVersion = v; },
        "Its version (default: the source's)");
    verb->add_option_function<int>(
            "--level", [&options](int level) { options.compressionLevel = level; },
            "Compression level, -1 to 9 (default: the source's)")
        ->check(CLI::Range(-1, 9));
}

void addSliceAndClone(CLI::App& app, ChosenVerb& chosen) {
    auto slice = std::make_shared<DeriveOptions>();
    CLI::App* verb = addVerb(app, chosen, "slice", slice, runDerive, &DeriveOptions::file);
    verb->description("Write entries FIRST to LAST into a new log file");
    verb->add_option("FILE", slice->file, "Log file")->required();
    verb->add_option("FIRST", slice->first, "First entry id")->required();
    verb->add_option("LAST", slice->last, "Last entry id, included")->required();
    addDerivedFileOptions(verb, *slice);

    auto clone = std::make_shared<DeriveOptions>();
    clone->wholeFile = true;
    verb = addVerb(app, chosen, "clone", clone, runDerive, &DeriveOptions::file);
    verb->description("Copy a log file, possibly with another compression level or identity");
    verb->add_option("FILE", clone->file, "Log file")->required();
    addDerivedFileOptions(verb, *clone);
}

void addPlay(CLI::App& app, ChosenVerb& chosen) {
    auto options = std::make_shared<PlayOptions>();
    CLI::App* verb = addVerb(app, chosen, "play", options, runPlay, &PlayOptions::file);
    verb->description("Play entries back in real time; Ctrl-C stops");
    verb->add_option("FILE", options->file, "Log file")->required();
    verb->add_option("--speed", options->speed, "Speed multiplier (default 1)")
        ->check(numberFrom(0, true));
    verb->add_flag("--loop", options->loop, "Start over after the last frame");
    verb->add_option("--max-gap", options->maxGapMs,
                     "Wait at most MS between frames (default 5000; 0: no waits)")
        ->check(numberFrom(0));
    addRepeated(verb, "--source-type", options->sourceTypes, "Only sources of this type");
    verb->add_option("--seek", options->seekFrame, "Start at this frame")->check(numberFrom(0));
    verb->add_option("--duration", options->durationMs, "Stop after MS of recorded time")
        ->check(numberFrom(0));
    verb->add_option("--timing", options->timing,
                     "timeline (default): keep to the recorded schedule to the nanosecond; "
                     "ms: wait in whole milliseconds")
        ->check(CLI::IsMember({"timeline", "ms"}));
}

void addCheckAndRecover(CLI::App& app, ChosenVerb& chosen) {
    auto check = std::make_shared<CheckOptions>();
    CLI::App* verb = addVerb(app, chosen, "check", check, runCheck, &CheckOptions::file);
    verb->description("Look for damage: integrity, references, every row and payload");
    verb->add_option("FILE", check->file, "Log file (only read)")->required();

    auto recover = std::make_shared<RecoverOptions>();
    verb = addVerb(app, chosen, "recover", recover, runRecover, &RecoverOptions::file);
    verb->description("Save what can still be read of a damaged log file into a new one");
    verb->add_option("DAMAGED", recover->file, "Damaged log file (only read)")->required();
    verb->add_option("OUT", recover->output, "New log file")->required();
    verb->add_option_function<std::string>(
        "--app", [recover](const std::string& name) { recover->applicationName = name; },
        "Application name of the new file (default: the damaged file's)");
    verb->add_option_function<std::string>(
        "--app-version", [recover](const std::string& v) { recover->applicationVersion = v; },
        "Its version (default: the damaged file's)");
    verb->add_option_function<int>(
            "--level", [recover](int level) { recover->compressionLevel = level; },
            "Compression level, -1 to 9 (default: the damaged file's)")
        ->check(CLI::Range(-1, 9));
}

void addDemo(CLI::App& app, ChosenVerb& chosen) {
    auto options = std::make_shared<DemoOptions>();
    CLI::App* verb = addVerb(app, chosen, "demo", options, runDemo, &DemoOptions::directory);
    verb->description("Record a synthetic session and show what the tool does with it");
    verb->add_option("DIR", options->directory,
                     "New folder for the files (default: a temporary "
                     "one)");
}

void addView(CLI::App& app, ChosenVerb& chosen) {
    auto options = std::make_shared<ViewOptions>();
    CLI::App* verb = addVerb(app, chosen, "view", options, runView, &ViewOptions::file);
    verb->description("Show a log file in the browser: a timeline of every source, live");
    verb->add_option("FILE", options->file, "Log file (only read)")->required();
    verb->add_option("--port", options->port, "Port to listen on (default: a free one)")
        ->check(CLI::Range(0, 65535));
    verb->add_option("--bind", options->bind,
                     "Address to listen on (default 127.0.0.1, this machine only)");
    verb->add_flag("--no-open", options->noOpen, "Only print the address; open no browser");
    verb->footer(
        "Serves one page for FILE and prints its address, http://127.0.0.1:PORT/, then opens\n"
        "it with xdg-open when a display is there. The page shows the file's identity and\n"
        "thumbnail; a lane per source with the density of its entries over time, its gaps\n"
        "(pauses of more than 4 times its usual interval, 100 ms at least) and the bookmarks;\n"
        "entries/s and bytes/s per source; the entries around a clicked point, with their\n"
        "payloads as hex, text or image; metadata, source properties and resources. Wheel or\n"
        "drag over the time axis to zoom, drag the lanes to pan. While another process\n"
        "records into FILE, the page follows it within a second. Everything the page needs is\n"
        "inside the tool: it works without a network. Bytes are counted as the file stores\n"
        "them, after compression. Ctrl-C stops the server.");
}

void addReport(CLI::App& app, ChosenVerb& chosen) {
    auto options = std::make_shared<ReportOptions>();
    CLI::App* verb = addVerb(app, chosen, "report", options, runReport, &ReportOptions::file);
    verb->description("Write the page of `view` into one HTML file that works offline");
    verb->add_option("FILE", options->file, "Log file (only read)")->required();
    verb->add_option("-o,--output", options->output, "New HTML file")->required();
    verb->footer(
        "The report holds the timeline, gaps, rates, identity, thumbnail and tables of FILE,\n"
        "but no payloads, in one file with its scripts inside: open it in any browser, offline,\n"
        "or attach it to a ticket. It zooms down to 1/8192 of the recording's span.");
}

// Error texts of the library and of the system may span lines; ours must not.
std::string oneLine(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

// What was wrong with the command line, in words for the person who typed it. `first` is the
// first argument, null when there is none.
std::string usageProblem(const CLI::App& app, const CLI::ParseError& error, const char* first) {
    // Before a verb is recognised, CLI11 can only say that one is missing.
    if (!app.get_subcommands().empty()) {
        return oneLine(error.what());
    }
    std::string verbs;
    for (const CLI::App* verb : app.get_subcommands({})) {
        verbs += (verbs.empty() ? "" : ", ") + verb->get_name();
    }
    if (first == nullptr) {
        return "a verb is needed: " + verbs;
    }
    const std::string argument = first;
    return first[0] == '-' ? "unknown option '" + argument + "'; options follow the verb"
                           : "unknown verb '" + argument + "'; the verbs are " + verbs;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Looks into, plays back, annotates and cuts korvane log files.", "korvane-log");
    app.set_version_flag("--version", KORVANE_LOG_VERSION);
    app.require_subcommand(1);
    app.get_formatter()->label("SUBCOMMAND", "VERB");
    app.get_formatter()->label("Subcommands", "Verbs");
    app.footer(
        "'korvane-log VERB --help' tells the options of a verb; 'korvane-log demo' shows "
        "the verbs at work.");
    ChosenVerb chosen;
    addInfo(app, chosen);
    addCat(app, chosen);
    addTail(app, chosen);
    addPlay(app, chosen);
    addSliceAndClone(app, chosen);
    addMeta(app, chosen);
    addBookmarks(app, chosen);
    addResources(app, chosen);
    addThumbnail(app, chosen);
    addRecord(app, chosen);
    addCheckAndRecover(app, chosen);
    addDemo(app, chosen);
    addView(app, chosen);
    addReport(app, chosen);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return app.exit(error);  // --help and --version
        }
        std::cerr << "korvane-log: " << usageProblem(app, error, argc > 1 ? argv[1] : nullptr)
                  << " (see korvane-log --help)\n";
        return exitUsage;
    }

    try {
        return chosen.run();
    } catch (const UsageError& error) {
        std::cerr << "korvane-log: " << oneLine(error.what()) << '\n';
        return exitUsage;
    } catch (const ToolError& error) {
        std::cerr << "korvane-log: " << oneLine(error.what()) << '\n';
    } catch (const std::exception& error) {
        std::cerr << "korvane-log: " << chosen.subject() << ": " << oneLine(error.what()) << '\n';
    }
    return exitFailure;
}
