#include "tools/common/arguments.h"

#include <utility>

#include "tools/common/text.h"

namespace kerrow::tools {

std::optional<std::string> Arguments::nextOption() {
    inlineValue_.reset();
    if (next_ >= words_.size()) {
        return std::nullopt;
    }
    const std::string& word = words_[next_];
    if (word == "--") {
        ++next_;
        return std::nullopt;
    }
    if (word.size() < 2 || word[0] != '-') {
        return std::nullopt;
    }
    ++next_;
    const auto equals = word.find('=');
    if (word.rfind("--", 0) == 0 && equals != std::string::npos) {
        option_ = word.substr(0, equals);
        inlineValue_ = word.substr(equals + 1);
    } else {
        option_ = word;
    }
    return option_;
}

std::string Arguments::value() {
    if (inlineValue_) {
        return *std::exchange(inlineValue_, std::nullopt);
    }
    if (next_ >= words_.size()) {
        throw UsageError("option " + option_ + " needs a value");
    }
    return words_[next_++];
}

double Arguments::seconds(double maximum) {
    const std::string text = value();
    const auto parsed = parseSeconds(text);
    if (!parsed || *parsed <= 0 || *parsed > maximum) {
        throw UsageError("option " + option_ + " takes a number of seconds above 0 and up to " +
                         std::to_string(static_cast<long>(maximum)) + ", not '" + text + "'");
    }
    return *parsed;
}

void Arguments::noValue() {
    if (inlineValue_) {
        throw UsageError("option " + option_ + " takes no value");
    }
}

std::vector<std::string> Arguments::operands() const {
    return {words_.begin() + static_cast<std::ptrdiff_t>(next_), words_.end()};
}

}  // namespace kerrow::tools
