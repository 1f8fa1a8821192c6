#include "tools/common/options.h"

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

void readOptions(int argc, char** argv, std::initializer_list<::option> options,
                 const std::function<void(int id, const char* value)>& take) {
    std::vector<::option> table(options);
    table.push_back({});
    opterr = 0;  // the messages below instead of getopt's own
    optind = 1;
    // "+": stop at the first operand; ":": report a missing value apart from an unknown option.
    for (int id = 0; (id = ::getopt_long(argc, argv, "+:h", table.data(), nullptr)) != -1;) {
        if (id == ':') {
            throw UsageError("option " + refusedOption(argv, false) + " needs a value");
        }
        if (id == '?') {
            const std::string_view word = argv[optind - 1];
            const bool takesNoValue =
                optopt != 0 && word.starts_with("--") && word.find('=') != std::string_view::npos;
            const std::string option = refusedOption(argv, takesNoValue);
            throw UsageError(takesNoValue ? "option " + option + " takes no value"
                                          : "unknown option '" + option + "'");
        }
        take(id, optarg);
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
