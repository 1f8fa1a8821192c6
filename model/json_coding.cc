#include "model/json_coding.h"

#include <charconv>
#include <limits>

#include "model/json_text.h"

namespace kerrow::json_coding {

namespace {

const nlohmann::json* findMember(const nlohmann::json& object, std::string_view key) {
    const auto member = object.find(key);
    return member == object.end() ? nullptr : &*member;
}

}  // namespace

void appendKey(std::string& out, std::string_view key) {
    out.push_back('"');
    out.append(key);
    out.append("\":");
}

void appendInteger(std::string& out, std::int64_t value) {
    char digits[24];
    const auto result = std::to_chars(digits, digits + sizeof digits, value);
    out.append(digits, result.ptr);
}

bool appendStringArray(std::string& out, const std::vector<std::string>& texts) {
    out.push_back('[');
    for (std::size_t index = 0; index < texts.size(); ++index) {
        if (index != 0) {
            out.push_back(',');
        }
        if (!appendJSONString(out, texts[index])) {
            return false;
        }
    }
    out.push_back(']');
    return true;
}

const nlohmann::json* readObject(const nlohmann::json& object, std::string_view key) {
    const nlohmann::json* member = findMember(object, key);
    return member != nullptr && member->is_object() ? member : nullptr;
}

const nlohmann::json* readArray(const nlohmann::json& object, std::string_view key) {
    const nlohmann::json* member = findMember(object, key);
    return member != nullptr && member->is_array() ? member : nullptr;
}

std::optional<std::string> readString(const nlohmann::json& object, std::string_view key) {
    const nlohmann::json* member = findMember(object, key);
    if (member == nullptr || !member->is_string()) {
        return std::nullopt;
    }
    return member->get_ref<const std::string&>();
}

std::optional<std::int64_t> readInt64(const nlohmann::json& object, std::string_view key) {
    const nlohmann::json* member = findMember(object, key);
    if (member == nullptr) {
        return std::nullopt;
    }
    // The parser stores non-negative integers as unsigned and anything with a fraction or an
    // exponent, or beyond 64 bits, as a float.
    if (member->is_number_unsigned()) {
        const auto value = member->get_ref<const nlohmann::json::number_unsigned_t&>();
        if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            return std::nullopt;
        }
        return static_cast<std::int64_t>(value);
    }
    if (member->is_number_integer()) {
        return member->get_ref<const nlohmann::json::number_integer_t&>();
    }
    return std::nullopt;
}

std::optional<std::vector<std::string>> readStringArray(const nlohmann::json& object,
                                                        std::string_view key) {
    const nlohmann::json* member = readArray(object, key);
    if (member == nullptr) {
        return std::nullopt;
    }
    std::vector<std::string> texts;
    texts.reserve(member->size());
    for (const nlohmann::json& element : *member) {
        if (!element.is_string()) {
            return std::nullopt;
        }
        texts.push_back(element.get_ref<const std::string&>());
    }
    return texts;
}

bool nestsDeeperThan(std::string_view text, int limit) {
    int depth = 0;
    bool inString = false;
    bool escaped = false;
    for (const char character : text) {
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (character == '\\') {
                escaped = true;
            } else if (character == '"') {
                inString = false;
            }
            continue;
        }
        switch (character) {
            case '"':
                inString = true;
                break;
            case '[':
            case '{':
                if (++depth > limit) {
                    return true;
                }
                break;
            case ']':
            case '}':
                --depth;
                break;
            default:
                break;
        }
    }
    return false;
}

}  // namespace kerrow::json_coding
