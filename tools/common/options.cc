#include "tools/common/options.h"

#include <getopt.h>

#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "tools/common/text.h"

namespace kerrow::tools {
namespace {

// The option that getopt_long just refused, as typed ("--bogus" for "--bogus=1").
std::string refusedOption(char** argv, bool takesNoValue) {
    const std::string_view word = argv[optind - 1];
    if (!word.starts_with("--") && optopt != 0 && !takesNoValue) {
        return std::string("-") + static_cast<char>(optopt);
    }
    return std::string(word.substr(0, word.find('=')));
}

}  // namespace

void readOptions(int argc, char** argv, std::string_view help, std::string_view version,
                 const std::vector<Option>& options) {
    // getopt_long returns 'h' for "-h" and "--help", 'V' for "--version", and firstIndex plus
    // the index for the others.
    constexpr int firstIndex = 256;
    std::vector<::option> table{{"help", no_argument, nullptr, 'h'},
                                {"version", no_argument, nullptr, 'V'}};
    for (const Option& option : options) {
        table.push_back({option.name, option.takesValue ? required_argument : no_argument, nullptr,
                         firstIndex + static_cast<int>(table.size()) - 2});
    }
    table.push_back({});
    opterr = 0;  // the messages below instead of getopt's own
    optind = 1;
    // "+": stop at the first operand; ":": report a missing value apart from an unknown option.
    for (int id = 0; (id = ::getopt_long(argc, argv, "+:h", table.data(), nullptr)) != -1;) {
        if (id == ':') {
            throw UsageError("option " + refusedOption(argv, false) + " needs a value");
        }
        if (id == 'h' || id == 'V') {
            std::cout << (id == 'h' ? help : version) << (id == 'h' ? "" : "\n");
            std::exit(0);
        }
        if (id == '?') {
            const std::string_view word = argv[optind - 1];
            const bool takesNoValue =
                optopt != 0 && word.starts_with("--") && word.find('=') != std::string_view::npos;
            const std::string option = refusedOption(argv, takesNoValue);
            throw UsageError(takesNoValue ? "option " + option + " takes no value"
                                          : "unknown option '" + option + "'");
        }
        options.at(static_cast<std::size_t>(id - firstIndex)).take(optarg);
    }
    if (optind < argc) {
        throw UsageError("unexpected argument '" + std::string(argv[optind]) + "'");
    }
}

double secondsOption(std::string_view option, const char* text, double maximum) {
    const auto parsed = parseSeconds(text);
    if (!parsed || *parsed <= 0 || *parsed > maximum) {
        throw UsageError("option " + std::string(option) +
                         " takes a number of seconds above 0 and up to " +
                         std::to_string(static_cast<long>(maximum)) + ", not '" + text + "'");
    }
    return *parsed;
}

}  // namespace kerrow::tools
