// Handles, parents and class ids of traffic control, as text and as number.
//
// Who may include this: the netlink area and its tests.
//
// The number forms are read and written here and not by libnl: its name tables are process-wide and without a
// lock. Only a text that is no number reaches libnl, one at a time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace corvo::tc {

enum class HandleStatus {
    kOk,
    kNotFound,  // could be a class name, but no such name is known
    kInvalid,   // neither number nor name
};

// "root", "none", "ingress", "X:", "X:Y", ":Y" and "XY", all numbers hexadecimal: what strtoul takes, so with
// leading blanks, a sign and "0x" too. Anything else is kNotFound. `handle` is left alone unless kOk.
HandleStatus parse_number(const char* text, std::uint32_t& handle);

// parse_number, and for what is left the names of the system's class id file ("NAME", "NAME:Y").
// Threading: any thread; name look-ups are serialised.
HandleStatus parse_handle(const char* text, std::uint32_t& handle);

// parse_handle; a name that is unknown gets a new id under `parent`, which libnl enters into the class id
// file. False: the text can be neither converted nor entered (a text with a colon never is, and only
// [A-Za-z0-9._-] can stand in the file).
bool parse_or_generate(const char* text, std::uint32_t parent, std::uint32_t& handle);

// "root", "none", "ingress", ":Y", "X:" or "X:Y".
std::string format_handle(std::uint32_t handle);

}  // namespace corvo::tc
