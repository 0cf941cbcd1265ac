// Reading JSON that comes from outside: total accessors, one parser, one writer.
//
// Who may include this: every area. Documents, replies and datagrams are read through these and never through
// Json::Value's own [] and as*(), which throw on a type they did not expect and insert members while reading.
//
// None of these throws, whatever the value holds: a parent that is not an object (not an array), a missing or
// null member and a value that does not convert all give the default. Threading: none of these keeps state.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace corvo {

// Member `key` of `parent`, or a null value.
const Json::Value& j_member(const Json::Value& parent, const char* key);
inline const Json::Value& j_member(const Json::Value& parent, const std::string& key) {
    return j_member(parent, key.c_str());
}
bool j_has(const Json::Value& parent, const char* key);
// The member taken out of `parent`, which need not keep it.
Json::Value j_take(Json::Value& parent, const char* key);

// The member if it is an object (an array), else an empty one.
const Json::Value& j_obj(const Json::Value& parent, const char* key);
const Json::Value& j_arr(const Json::Value& parent, const char* key);

// The member converted as Json::Value converts it: numbers, booleans and (j_str only) their texts.
int j_int(const Json::Value& parent, const char* key, int fallback = 0);
unsigned j_uint(const Json::Value& parent, const char* key, unsigned fallback = 0);
std::uint64_t j_uint64(const Json::Value& parent, const char* key, std::uint64_t fallback = 0);
double j_double(const Json::Value& parent, const char* key, double fallback = 0.0);
std::string j_str(const Json::Value& parent, const char* key, const std::string& fallback = {});

// The same conversions of a value itself (an array's element).
int as_int(const Json::Value& value, int fallback = 0);
unsigned as_uint(const Json::Value& value, unsigned fallback = 0);
std::uint64_t as_uint64(const Json::Value& value, std::uint64_t fallback = 0);
double as_double(const Json::Value& value, double fallback = 0.0);
std::string as_str(const Json::Value& value, const std::string& fallback = {});

// Decimal text to number, as atoi and strtoul read it (leading blanks, sign, stop at the first other
// character) but defined for every text: out of range wraps to the low bits of the saturated value.
int text_to_int(const std::string& text);
unsigned long text_to_ulong(const std::string& text);

// Parses `text`; false (and `out` null) when it is no JSON document, nested too deeply included.
bool parse_json(std::string_view text, Json::Value& out);

// The compact form on one line; write_json ends it with the line break that the devices' own writer appends.
std::string compact_json(const Json::Value& value);
std::string write_json(const Json::Value& value);

// `text` as the inside of a JSON string literal: what is unsafe is escaped, all other bytes stand as they
// are.
std::string json_escape(std::string_view text);

}  // namespace corvo
