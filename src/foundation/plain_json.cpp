#include "foundation/plain_json.h"

namespace corvo {

namespace {

constexpr int kDeepest = 16;
constexpr int kMostDigits = 9;

}  // namespace

bool PlainJson::text(std::string_view& out) {
    if (!take('"')) return false;
    const char* const begin = at_;
    while (at_ != end_ && *at_ != '"' && *at_ != '\\') ++at_;
    if (at_ == end_ || *at_ == '\\') return false;
    out = {begin, static_cast<std::size_t>(at_ - begin)};
    ++at_;
    return true;
}

// What follows a word or a number is looked at by whoever reads on: it is a blank, a comma or an end.
bool PlainJson::word(std::string_view expected) {
    if (!std::string_view(at_, static_cast<std::size_t>(end_ - at_)).starts_with(expected)) return false;
    at_ += expected.size();
    return true;
}

bool PlainJson::number(Json::Value* out) {
    const bool negative = *at_ == '-';
    if (negative) ++at_;
    const char* const first = at_;
    Json::LargestInt number = 0;
    for (; at_ != end_ && *at_ >= '0' && *at_ <= '9' && at_ - first < kMostDigits; ++at_) {
        number = number * 10 + (*at_ - '0');
    }
    if (at_ == first || (*first == '0' && at_ - first > 1)) return false;
    if (out != nullptr) *out = negative ? -number : number;
    return true;
}

bool PlainJson::value(Json::Value* out, int depth) {
    skip_blanks();
    if (at_ == end_ || depth > kDeepest) return false;
    std::string_view read;
    switch (*at_) {
        case '{':
            return members(out, depth);
        case '[':
            return elements(out, depth);
        case '"':
            if (!text(read)) return false;
            if (out != nullptr) *out = Json::Value(read.data(), read.data() + read.size());
            return true;
        case 't':
        case 'f': {
            const bool truth = *at_ == 't';
            if (out != nullptr) *out = truth;
            return word(truth ? "true" : "false");
        }
        case 'n':
            if (out != nullptr) *out = Json::Value();
            return word("null");
        default:
            return number(out);
    }
}

bool PlainJson::members(Json::Value* out, int depth) {
    if (out != nullptr) *out = Json::Value(Json::objectValue);
    return object([&](std::string_view key) {  // of a member given twice the last one counts
        return value(out == nullptr ? nullptr : out->demand(key.data(), key.data() + key.size()), depth + 1);
    });
}

bool PlainJson::elements(Json::Value* out, int depth) {
    if (out != nullptr) *out = Json::Value(Json::arrayValue);
    return array([&] { return value(out == nullptr ? nullptr : &out->append(Json::Value()), depth + 1); });
}

}  // namespace corvo
