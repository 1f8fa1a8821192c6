#include "tools/browser_peer/json_lines.h"

#include <nlohmann/json.hpp>

namespace kerrow::tools {
namespace {

// Checks syntax only: a SAX parser that keeps nothing, so no depth builds any structure.
class SyntaxCheck final : public nlohmann::json_sax<nlohmann::json> {
  public:
    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(number_integer_t) override { return true; }
    bool number_unsigned(number_unsigned_t) override { return true; }
    bool number_float(number_float_t, const string_t&) override { return true; }
    bool string(string_t&) override { return true; }
    bool binary(binary_t&) override { return true; }
    bool start_object(std::size_t) override { return true; }
    bool key(string_t&) override { return true; }
    bool end_object() override { return true; }
    bool start_array(std::size_t) override { return true; }
    bool end_array() override { return true; }
    bool parse_error(std::size_t, const std::string&,
                     const nlohmann::detail::exception& error) override {
        message = error.what();
        return false;
    }

    std::string message;
};

// "[json.exception.parse_error.101] parse error at line 1, column 7: syntax error ..." without
// the library's prefix.
std::string withoutPrefix(std::string message) {
    const auto end = message.find("] ");
    if (message.rfind("[json.exception.", 0) == 0 && end != std::string::npos) {
        message.erase(0, end + 2);
    }
    return message;
}

}  // namespace

std::optional<std::string> jsonError(std::string_view line) {
    SyntaxCheck check;
    if (nlohmann::json::sax_parse(line.begin(), line.end(), &check,
                                  nlohmann::json::input_format_t::json, true)) {
        return std::nullopt;
    }
    return "not JSON: " + withoutPrefix(check.message);
}

JsonLine jsonLine(std::string_view body) {
    if (!jsonError(body)) {
        if (body.find_first_of("\r\n") == std::string_view::npos) {
            return {std::string(body), std::nullopt};
        }
        try {
            return {nlohmann::json::parse(body).dump(),
                    "the frame's JSON spans lines; shown compact"};
        } catch (const nlohmann::json::exception&) {
            // nested too deeply to rebuild: shown as a string below
        }
    }
    const nlohmann::json text(std::string{body});
    return {text.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace),
            "the frame is not JSON; shown as a JSON string"};
}

}  // namespace kerrow::tools
