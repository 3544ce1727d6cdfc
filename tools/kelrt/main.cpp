// kelrt: runs operator contexts on the simulated accelerator, from a job file or straight from the shell.
// Exit codes: 0 all well, 1 a context failed or differs, 2 bad input.
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <map>
#include <new>

#include "audit.h"
#include "bad_input.h"
#include "endings.h"
#include "kelRt.h"
#include "kelRt_platform.h"
#include "number.h"
#include "operators.h"
#include "replay.h"
#include "run.h"
#include "shell.h"

namespace {

const std::map<std::string, int32_t> kLogLevels = {{"debug", 0}, {"warn", 2}, {"err", 3}, {"off", 4}};

constexpr const char* kRunHelp = R"(
A job is a JSON object (all numbers may be bit patterns, "0x3F000000"; negative integers only so):
  "memories": {NAME: {"npy": FILE} or {"dtype": "f4", "shape": [2, 3], "values": [...]},
               and "kind": "accelerator" or "cpu"}     ids are 0, 1, ... in this order
  "sram":     {"base": ADDRESS, and "npy" or "dtype" and "shape" as for a memory}
  "contexts": [{"op": NAME or ID, "args": [{"mem": NAME, "offset": 0}, {"mem": null}, 4, {"flt": 0.5}],
                and "label": any text}]     args may also be an object of arguments by name
  "outputs":  [NAME, ...]
With --unchecked nothing is compared with the catalogue, and a context may also have
  "raw": [[TYPE, OFFSET, VALUE], ...] instead of op and args: all records, arguments 0 and 1 included; VALUE
         may be {"mem": NAME}
  "target", "num_args": what the context says instead of 1 and the number of records
  "null": true alone: a call without a context
The library trusts sizes: an unchecked context that reaches a kernel can bring the tool down.
)";

constexpr const char* kOpHelp = R"(
Each argument of the operator (see kelrt ops NAME) is given as NAME=VALUE:
  integer   4 or 0xFFFFFFFF
  float     0.5 or its bits, 0x3F000000
  memory    FILE.npy, f4[2,3] (zeros), f4[3]:1,2,3, @NAME (the memory of that argument), none (no memory);
            with NAME.offset=BYTES and NAME.kind=cpu
Some shells want words with brackets quoted: 'a=f4[3]:1,2,3'.
Outputs can be left out; they are then what the operator makes. SRAM operators take sram= and sram.base= too.
)";

// Plainly a number, or nothing.
std::optional<uint32_t> read_repetitions(const std::string& text) {
    const auto number = tool::read_number(text);
    const int64_t* const integer = number ? std::get_if<int64_t>(&*number) : nullptr;
    if (!integer || *integer < 1 || *integer > 1000000)
        return std::nullopt;
    return static_cast<uint32_t>(*integer);
}

void add_report_options(CLI::App& command, tool::Options& options) {
    const auto not_empty = [](const std::string& text) {
        return text.empty() ? "the name of a file is wanted" : "";
    };
    command.add_option("--report", options.report, "JSON file for everything that the text shows")
        ->check(not_empty);
}

// What a run and a replay have in common.
void add_measuring_options(CLI::App& command, tool::Options& options) {
    add_report_options(command, options);
    command.add_flag("--quiet", options.quiet, "show what failed, and nothing else")->disable_flag_override();
    command
        .add_flag("--profile", options.profile,
                  "show by operator how often, how long, how many bytes; in the report too")
        ->disable_flag_override();
    command.add_option("--trace", options.trace, "file for the calls one by one, as trace viewers read them")
        ->check([](const std::string& text) { return text.empty() ? "the name of a file is wanted" : ""; });
    const auto repetitions = [](const std::string& text) {
        return read_repetitions(text) ? "" : "'" + text + "' is not a whole number from 1 to 1000000";
    };
    command
        .add_option_function<std::string>(
            "--repeat", [&](const std::string& text) { options.repeat = *read_repetitions(text); },
            "how often, from the same start")
        ->check(repetitions)
        ->default_str("1");
}

void add_log_option(CLI::App& command, std::string& log) {
    command.add_option("--log", log, "the library's log: debug, warn, err or off")
        ->check(CLI::IsMember({"debug", "warn", "err", "off"}))
        ->capture_default_str();
}

void add_run_options(CLI::App& command, tool::Options& options, std::string& log) {
    const auto not_empty = [](const std::string& text) {
        return text.empty() ? "the name of a folder is wanted" : "";
    };
    command
        .add_option("--out", options.out,
                    "folder for the outputs, as NAME.npy; without it they are only shown")
        ->check(not_empty);
    add_log_option(command, log);
    add_measuring_options(command, options);
}

void add_replay_options(CLI::App& command, tool::ReplayOptions& options, std::string& log) {
    add_measuring_options(command, options);
    add_log_option(command, log);
    command.add_option("--only", options.only, "only records of this operator, by name or id");
    command.add_option("--dump", options.dump, "folder for the records as jobs and .npy files")
        ->check([](const std::string& text) { return text.empty() ? "the name of a folder is wanted" : ""; });
    const auto index = [](const std::string& text) {
        const auto number = tool::read_number(text);
        return number && tool::to_u32(*number) ? "" : "'" + text + "' is not the number of a record";
    };
    command
        .add_option_function<std::string>(
            "--index",
            [&](const std::string& text) { options.index = *tool::to_u32(*tool::read_number(text)); },
            "only the record of this number in its file, from 0")
        ->check(index);
}

void refuse_one_file_for_two(const tool::Options& options) {
    if (!options.report.empty() && options.report == options.trace)
        throw tool::BadInput("--trace " + options.trace + ": the report goes into this file");
}

int list_operators(const std::string& name) {
    if (name.empty()) {
        tool::print_operators();
        return 0;
    }
    const tool::Operator* const op = tool::find_operator(name);
    if (!op)
        throw tool::BadInput(name + ": there is no such operator (see kelrt ops)");
    tool::print_operator(*op);
    return 0;
}

// The exit code of what ends with being asked for: --help, --version.
std::optional<int> parse(CLI::App& app, int argc, char** argv) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ArgumentMismatch& error) {
        const std::string what = error.what();
        const bool of_flag = what.find("flag override") != what.npos;
        throw tool::BadInput(of_flag ? "--" + what.substr(0, what.find(' ')) + " takes no value" : what);
    } catch (const CLI::ParseError& error) {
        if (app.get_subcommands().empty() && !app.remaining().empty())
            throw tool::BadInput(app.remaining().front() +
                                 ": there is no such command; there are ops, run, op, replay and check");
        throw tool::BadInput(error.what());
    }
    return std::nullopt;
}

int run(int argc, char** argv) {
    CLI::App app("Runs operator contexts on the simulated accelerator.", "kelrt");
    app.require_subcommand(1);
    app.set_version_flag("--version", "kelrt " KEL_RT_VERSION_STRING);

    std::string operator_name, job_file, log = "warn";
    std::vector<std::string> words;
    tool::Options options;
    bool unchecked = false;

    CLI::App* const ops = app.add_subcommand("ops", "List the operators, or show the arguments of one");
    ops->add_option("NAME", operator_name, "name or id");

    CLI::App* const run = app.add_subcommand("run", "Run the contexts of a job file");
    run->add_option("JOB", job_file, "job file, JSON")->required();
    add_run_options(*run, options, log);
    run->add_flag("--unchecked", unchecked, "admit contexts that the library refuses, to replay them")
        ->disable_flag_override();
    run->footer(kRunHelp);

    CLI::App* const op = app.add_subcommand("op", "Run one operator on arguments given here");
    op->add_option("NAME", operator_name, "name or id")->required();
    op->add_option("ARGUMENTS", words, "NAME=VALUE ...");
    add_run_options(*op, options, log);
    op->footer(kOpHelp);

    std::vector<std::string> record_files;
    tool::ReplayOptions replay_options;
    std::string replay_log = "off";
    CLI::App* const replay = app.add_subcommand("replay", "Run recorded calls again and compare the results");
    replay->add_option("FILE", record_files, "files of records, of the recorder")->required();
    add_replay_options(*replay, replay_options, replay_log);

    std::string checked_file;
    tool::Options check_options;
    CLI::App* const check =
        app.add_subcommand("check", "Say all that is wrong with a job or records, running nothing");
    check->add_option("FILE", checked_file, "job file or file of records")->required();
    add_report_options(*check, check_options);

    if (const auto code = parse(app, argc, argv))
        return *code;
    refuse_one_file_for_two(replay->parsed() ? replay_options : options);
    g_log_lvl = kLogLevels.at(replay->parsed() ? replay_log : log);
    if (check->parsed())
        return tool::check_file(checked_file, check_options.report);
    if (replay->parsed())
        return tool::replay(record_files, replay_options);
    if (ops->parsed())
        return list_operators(operator_name);
    return tool::run_job(
        op->parsed() ? tool::job_from_words(operator_name, words) : tool::read_job(job_file, unchecked),
        options);
}

int complain(const char* sentence) {
    std::fprintf(stderr, "kelrt: %s\n", sentence);
    return 2;
}

// A file that is opened must not become standard output because that was closed. Writing to what stands in
// for it fails, as it should, also by the name /dev/stdout.
void occupy_standard_files() {
    for (int fd = 0; fd < 3; ++fd) {
        if (::fcntl(fd, F_GETFD) < 0)
            ::open(fd == STDIN_FILENO ? "/dev/null" : "/dev/full", O_RDONLY);
    }
}

}  // namespace

int main(int argc, char** argv) {
    occupy_standard_files();
    tool::prepare_endings();
    // A line at a time, so that what was reported is not lost with a context that crashes.
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    try {
        const int code = run(argc, argv);
        tool::finish_report();
        return code;
    } catch (const tool::BadInput& error) {
        return complain(error.what());
    } catch (const std::bad_alloc&) {  // a size that no heap has
        tool::end_out_of_memory();
    } catch (const std::length_error&) {
        tool::end_out_of_memory();
    }
}
