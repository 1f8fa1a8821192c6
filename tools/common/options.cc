#include "tools/common/options.h"

#include <getopt.h>

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

void readOptions(int argc, char** argv, const std::vector<Option>& options) {
    // getopt_long returns 'h' for "-h" and "--help", firstIndex plus the index for the others.
    constexpr int firstIndex = 256;
    std::vector<::option> table;
    std::size_t help = options.size();
    for (std::size_t index = 0; index < options.size(); ++index) {
        const bool isHelp = std::string_view(options[index].name) == "help";
        help = isHelp ? index : help;
        table.push_back({options[index].name,
                         options[index].takesValue ? required_argument : no_argument, nullptr,
                         isHelp ? 'h' : firstIndex + static_cast<int>(index)});
    }
    table.push_back({});
    opterr = 0;  // the messages below instead of getopt's own
    optind = 1;
    // "+": stop at the first operand; ":": report a missing value apart from an unknown option.
    for (int id = 0; (id = ::getopt_long(argc, argv, "+:h", table.data(), nullptr)) != -1;) {
        if (id == ':') {
            throw UsageError("option " + refusedOption(argv, false) + " needs a value");
        }
        if (id == '?' || (id == 'h' && help == options.size())) {
            const std::string_view word = argv[optind - 1];
            const bool takesNoValue =
                optopt != 0 && word.starts_with("--") && word.find('=') != std::string_view::npos;
            const std::string option = refusedOption(argv, takesNoValue);
            throw UsageError(takesNoValue ? "option " + option + " takes no value"
                                          : "unknown option '" + option + "'");
        }
        options.at(id == 'h' ? help : static_cast<std::size_t>(id - firstIndex)).take(optarg);
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
