#include "foundation/json.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

// Reader and FastWriter are what the devices' documents and log lines were made with: what they accept
// (comments, a bare scalar as document) and how they write is kept by using them.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace corvo {

namespace {

// Made at first use and never destroyed: initialisers of other files read JSON before ours may have run, and
// threads may still do so at exit.
const Json::Value& empty_of(Json::ValueType type) {
    static const auto* const null = new Json::Value(Json::nullValue);
    static const auto* const object = new Json::Value(Json::objectValue);
    static const auto* const array = new Json::Value(Json::arrayValue);
    return type == Json::objectValue ? *object : type == Json::arrayValue ? *array : *null;
}

template <class T, class Convert>
T converted(const Json::Value& value, const T& fallback, Convert&& convert) {
    if (value.isNull()) return fallback;
    try {
        return convert(value);
    } catch (const Json::Exception&) {
        return fallback;
    }
}

}  // namespace

const Json::Value& j_member(const Json::Value& parent, const char* key) {
    if (!parent.isObject()) return empty_of(Json::nullValue);
    const Json::Value* found = parent.find(key, key + std::char_traits<char>::length(key));
    return found != nullptr ? *found : empty_of(Json::nullValue);
}

bool j_has(const Json::Value& parent, const char* key) {
    return parent.isObject() && parent.find(key, key + std::char_traits<char>::length(key)) != nullptr;
}

Json::Value j_take(Json::Value& parent, const char* key) {
    Json::Value taken;
    if (parent.isObject()) parent.removeMember(key, &taken);
    return taken;
}

const Json::Value& j_obj(const Json::Value& parent, const char* key) {
    const Json::Value& value = j_member(parent, key);
    return value.isObject() ? value : empty_of(Json::objectValue);
}

const Json::Value& j_arr(const Json::Value& parent, const char* key) {
    const Json::Value& value = j_member(parent, key);
    return value.isArray() ? value : empty_of(Json::arrayValue);
}

int as_int(const Json::Value& value, int fallback) {
    return converted(value, fallback, [](const Json::Value& v) { return v.asInt(); });
}
unsigned as_uint(const Json::Value& value, unsigned fallback) {
    return converted(value, fallback, [](const Json::Value& v) { return v.asUInt(); });
}
std::uint64_t as_uint64(const Json::Value& value, std::uint64_t fallback) {
    return converted(value, fallback, [](const Json::Value& v) { return std::uint64_t{v.asUInt64()}; });
}
double as_double(const Json::Value& value, double fallback) {
    return converted(value, fallback, [](const Json::Value& v) { return v.asDouble(); });
}
std::string as_str(const Json::Value& value, const std::string& fallback) {
    return converted(value, fallback, [](const Json::Value& v) { return v.asString(); });
}

int j_int(const Json::Value& parent, const char* key, int fallback) {
    return as_int(j_member(parent, key), fallback);
}
unsigned j_uint(const Json::Value& parent, const char* key, unsigned fallback) {
    return as_uint(j_member(parent, key), fallback);
}
std::uint64_t j_uint64(const Json::Value& parent, const char* key, std::uint64_t fallback) {
    return as_uint64(j_member(parent, key), fallback);
}
double j_double(const Json::Value& parent, const char* key, double fallback) {
    return as_double(j_member(parent, key), fallback);
}
std::string j_str(const Json::Value& parent, const char* key, const std::string& fallback) {
    return as_str(j_member(parent, key), fallback);
}

int text_to_int(const std::string& text) {
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}
unsigned long text_to_ulong(const std::string& text) {
    return std::strtoul(text.c_str(), nullptr, 10);
}

bool parse_json(std::string_view text, Json::Value& out) {
    out = Json::Value();
    try {
        Json::Reader reader;
        Json::Value parsed;
        if (!reader.parse(text.data(), text.data() + text.size(), parsed, false)) return false;
        out = std::move(parsed);
        return true;
    } catch (const Json::Exception&) {
        return false;
    }
}

std::string write_json(const Json::Value& value) {
    Json::FastWriter writer;
    return writer.write(value);
}

std::string compact_json(const Json::Value& value) {
    Json::FastWriter writer;
    writer.omitEndingLineFeed();
    return writer.write(value);
}

std::string json_escape(std::string_view text) {
    static const char* const kHex = "0123456789abcdef";
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out.push_back('\\');
            out.push_back(c);
        } else if (byte < 0x20) {
            out.append("\\u00").push_back(kHex[byte >> 4]);
            out.push_back(kHex[byte & 0xf]);
        } else {
            out.push_back(c);
        }
    }
    return out;
}

}  // namespace corvo
