// kerrow-bench-driver: measures one figure of one program (several for the footprint) and prints
// one JSON line per program on standard output. bench/run.py calls it, interleaving programs.
//
// clang-format off
//   kerrow-bench-driver relay     --program PROGRAM --size BYTES --frames N [--regime R]
//   kerrow-bench-driver commands  --program PROGRAM --command closeTab|websiteList --count N [--sites N] [--regime R]
//   kerrow-bench-driver latency   --program PROGRAM --rate PER_S --count N [--warm-up N]
//   kerrow-bench-driver startup   --program PROGRAM
//   kerrow-bench-driver footprint --program PROGRAM [--program PROGRAM ...] --frames N --window-ms MS
// clang-format on
// Common: --wrapper argv0,argv1,... (prefixed to each program), --timeout-ms MS; footprint:
// --memory-maps DIR keeps each program's /proc/<pid>/smaps after start-up and after the relay.
// PROGRAM is name=kind:argv0,argv1,... with kind host, floor, typical or bare. R, the feeder of
// relay and commands: streamed (many frames per write, the default) or paced (one per write);
// for commands also burst (streamed, and standard output drained in bulk, see figures.h).
#include <getopt.h>
#include <sys/prctl.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "bench/driver/figures.h"

namespace {

using kerrow::bench::BenchError;

struct Arguments {
    std::string figure;
    std::multimap<std::string, std::string> options;

    [[nodiscard]] std::string text(const std::string& name,
                                   const std::string& fallback = "") const {
        const auto found = options.find(name);
        if (found != options.end()) {
            return found->second;
        }
        if (fallback.empty()) {
            throw BenchError("missing --" + name);
        }
        return fallback;
    }
    [[nodiscard]] std::size_t number(const std::string& name,
                                     const std::string& fallback = "") const {
        return std::stoull(text(name, fallback));
    }
};

// Every option takes a value; --program may be given more than once.
constexpr std::array<option, 14> longOptions{{
    {"program", required_argument, nullptr, 0},
    {"size", required_argument, nullptr, 0},
    {"frames", required_argument, nullptr, 0},
    {"regime", required_argument, nullptr, 0},
    {"command", required_argument, nullptr, 0},
    {"count", required_argument, nullptr, 0},
    {"sites", required_argument, nullptr, 0},
    {"rate", required_argument, nullptr, 0},
    {"warm-up", required_argument, nullptr, 0},
    {"window-ms", required_argument, nullptr, 0},
    {"wrapper", required_argument, nullptr, 0},
    {"timeout-ms", required_argument, nullptr, 0},
    {"memory-maps", required_argument, nullptr, 0},
    {nullptr, 0, nullptr, 0},
}};

Arguments parse(int argc, char** argv) {
    if (argc < 2 || argv[1][0] == '-') {
        throw BenchError("usage: kerrow-bench-driver FIGURE --option value ...");
    }
    Arguments arguments{argv[1], {}};
    // The figure stands where getopt_long expects the program's name.
    const int count = argc - 1;
    char** const words = argv + 1;
    ::opterr = 0;
    ::optind = 1;
    for (int index = 0;;) {
        const int found = ::getopt_long(count, words, "", longOptions.data(), &index);
        if (found == -1) {
            break;
        }
        if (found != 0) {
            throw BenchError(std::string("unknown option or missing value: ") +
                             words[::optind - 1]);
        }
        arguments.options.emplace(longOptions.at(static_cast<std::size_t>(index)).name, ::optarg);
    }
    if (::optind < count) {
        throw BenchError(std::string("unexpected argument: ") + words[::optind]);
    }
    return arguments;
}

std::vector<kerrow::bench::JsonLine> run(const Arguments& arguments) {
    using namespace kerrow::bench;
    RunSettings settings;
    if (arguments.options.contains("regime")) {
        const std::string regime = arguments.text("regime");
        const auto found = regimeNamed(regime);
        if (!found || (*found == Regime::burst && arguments.figure != "commands")) {
            throw BenchError("--regime is streamed or paced (or burst, for commands), not " +
                             regime);
        }
        settings.regime = *found;
    }
    if (arguments.options.contains("wrapper")) {
        settings.wrapper = splitCommas(arguments.text("wrapper"));
    }
    settings.timeout = std::chrono::milliseconds(arguments.number("timeout-ms", "60000"));
    if (arguments.options.contains("memory-maps")) {
        settings.memoryMaps = arguments.text("memory-maps");
    }
    std::vector<Program> programs;
    const auto [first, last] = arguments.options.equal_range("program");
    for (auto it = first; it != last; ++it) {
        programs.push_back(parseProgram(it->second));
    }
    if (programs.empty()) {
        throw BenchError("missing --program");
    }
    const Program& program = programs.front();
    const std::string& figure = arguments.figure;
    if (figure == "relay") {
        return {
            measureRelay(program, arguments.number("size"), arguments.number("frames"), settings)};
    }
    if (figure == "commands") {
        return {measureCommands(program, arguments.text("command"), arguments.number("count"),
                                arguments.number("sites", "1000"), settings)};
    }
    if (figure == "latency") {
        return {measureLatency(program, std::stod(arguments.text("rate")),
                               arguments.number("count"), arguments.number("warm-up", "0"),
                               settings)};
    }
    if (figure == "startup") {
        return {measureStartup(program, settings)};
    }
    if (figure == "footprint") {
        return measureFootprint(programs, arguments.number("frames"),
                                std::chrono::milliseconds(arguments.number("window-ms")), settings);
    }
    throw BenchError("unknown figure: " + figure);
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    // Paced sends wake within microseconds of their time, not the default 50 µs slack later.
    ::prctl(PR_SET_TIMERSLACK, 1UL);
    try {
        for (const auto& line : run(parse(argc, argv))) {
            std::cout << line.text() << std::endl;
        }
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "kerrow-bench-driver: " << error.what() << std::endl;
        return 1;
    }
}
