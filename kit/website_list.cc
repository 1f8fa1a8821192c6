#include "kit/website_list.h"

#include <nlohmann/json.hpp>

namespace kerrow {
namespace {

using Json = nlohmann::json;

// Hostile nesting cannot exhaust memory or the stack: nothing may happen inside more than this
// many open arrays and objects.
constexpr int maximumDepth = 16;

// Follows the parser's events and keeps only what a WebsiteList needs. The top-level members are
// judged as they end, the last of a repeated member counting; the websites go to the sink.
class ListReader {
  public:
    explicit ListReader(WebsiteList::WebsiteSink& sink, std::string* name)
        : sink_(sink), name_(name) {}

    [[nodiscard]] std::optional<WebsiteList::ListType> result() const {
        if (!nameValid_ || websites_ != Websites::valid || !listType_) {
            return std::nullopt;
        }
        return listType_;
    }

    // The parser's event interface (json::sax_parse); returning false stops the parse.
    bool null() { return scalar(); }
    bool boolean(bool /*value*/) { return scalar(); }
    bool number_integer(Json::number_integer_t /*value*/) { return scalar(); }  // negative
    bool number_unsigned(Json::number_unsigned_t value) {
        if (depth_ == 1 && member_ == Member::listType && value <= 255) {
            const bool accepted = scalar();
            listType_ = static_cast<WebsiteList::ListType>(value);
            return accepted;
        }
        return scalar();
    }
    bool number_float(Json::number_float_t /*value*/, const Json::string_t& /*text*/) {
        return scalar();
    }
    bool string(Json::string_t& value) {
        if (depth_ == 1 && member_ == Member::name) {
            const bool accepted = scalar();
            nameValid_ = true;
            if (name_ != nullptr) {
                *name_ = std::move(value);
            }
            return accepted;
        }
        if (depth_ == 2 && member_ == Member::websites && websites_ == Websites::open) {
            sink_.add(value);
            return depth_ <= maximumDepth;
        }
        return scalar();
    }
    bool binary(Json::binary_t& /*value*/) { return false; }
    bool start_object(std::size_t /*elements*/) { return open(false); }
    bool start_array(std::size_t /*elements*/) { return open(true); }
    bool end_object() { return close(); }
    bool end_array() { return close(); }
    bool key(Json::string_t& key) {
        if (depth_ != 1) {
            return depth_ <= maximumDepth;
        }
        if (key == "name") {
            member_ = Member::name;
            nameValid_ = false;
        } else if (key == "websites") {
            member_ = Member::websites;
            websites_ = Websites::invalid;
            sink_.restart();
        } else if (key == "listType") {
            member_ = Member::listType;
            listType_.reset();
        } else {
            member_ = Member::other;
        }
        return true;
    }
    bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                     const nlohmann::detail::exception& /*error*/) {
        return false;
    }

  private:
    enum class Member : std::uint8_t { other, name, websites, listType };
    enum class Websites : std::uint8_t { invalid, open, valid };

    // A value other than a website: it spoils the websites array it is an element of.
    bool scalar() {
        if (depth_ == 2 && member_ == Member::websites) {
            websites_ = Websites::invalid;
        }
        return depth_ != 0 && depth_ <= maximumDepth;  // the whole text must be an object
    }

    bool open(bool isArray) {
        if (depth_ == 0 && isArray) {
            return false;
        }
        if (depth_ == 1 && member_ == Member::websites && isArray) {
            websites_ = Websites::open;
        } else if (depth_ == 2 && member_ == Member::websites) {
            websites_ = Websites::invalid;
        }
        ++depth_;
        return depth_ <= maximumDepth + 1;
    }

    bool close() {
        --depth_;
        if (depth_ == 1 && member_ == Member::websites && websites_ == Websites::open) {
            websites_ = Websites::valid;
        }
        return true;
    }

    WebsiteList::WebsiteSink& sink_;
    std::string* name_;  // where the name goes; none to drop it
    int depth_ = 0;      // arrays and objects open
    Member member_ = Member::other;
    bool nameValid_ = false;
    Websites websites_ = Websites::invalid;
    std::optional<WebsiteList::ListType> listType_;
};

class CollectingSink : public WebsiteList::WebsiteSink {
  public:
    explicit CollectingSink(std::vector<std::string>& websites) : websites_(websites) {}
    void restart() override { websites_.clear(); }
    void add(std::string_view website) override { websites_.emplace_back(website); }

  private:
    std::vector<std::string>& websites_;
};

std::optional<WebsiteList::ListType> read(std::span<const std::uint8_t> json,
                                          WebsiteList::WebsiteSink& sink, std::string* name) {
    ListReader reader(sink, name);
    try {
        if (!Json::sax_parse(json.begin(), json.end(), &reader)) {
            return std::nullopt;
        }
    } catch (const std::exception&) {
        return std::nullopt;  // out of memory for one text
    }
    return reader.result();
}

}  // namespace

std::optional<WebsiteList> WebsiteList::decode(std::span<const std::uint8_t> json) {
    WebsiteList list;
    CollectingSink sink(list.websites);
    const auto listType = read(json, sink, &list.name);
    if (!listType) {
        return std::nullopt;
    }
    list.listType = *listType;
    return list;
}

std::optional<WebsiteList::ListType> WebsiteList::decode(std::span<const std::uint8_t> json,
                                                         WebsiteSink& sink) {
    return read(json, sink, nullptr);
}

}  // namespace kerrow
