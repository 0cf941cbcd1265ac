// How the percentages of the shaping document become class rates.
//
// Who may include this: the qos area and its tests. Pure computation: nothing here reads a document from
// disk, logs or touches the kernel. Rates are bytes per second.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

#include "corvosetup/qos.h"

namespace corvo::qos {

inline constexpr std::uint64_t kFullPercent = 100;
inline constexpr unsigned kUsualDefaultClass = 3;

// What stands in "RATE".
struct Percentages {
    enum class Status { kOk, kMissing, kMalformed };
    Status status = Status::kOk;
    std::vector<unsigned> values;
};

// "QOS"/"RATE" of the document; no "QOS" or no "RATE" is an empty list, a null one is kMissing. So is a "QOS"
// (or a whole document) that is no object. Entries convert as JSON numbers do (true is 1, 50.9 is 50); one
// that does not (a text, a negative number) makes the list kMalformed.
Percentages read_percentages(const Json::Value& document);

std::uint64_t sum_of(const std::vector<unsigned>& values);

// The index of the largest value, the last one of several; -1 for an empty list.
int index_of_largest(const std::vector<unsigned>& values);

// The class of one percentage: rate = value x ceiling / 100 in 64 bits.
QoSObj class_of(std::uint64_t ceiling, unsigned percent, unsigned position);

// "QOS"/"DEFAULT_CLASS": a number or a decimal text, 3 for everything else. 0 and what is above
// `class_count` - 1 become `class_count` - 1.
unsigned default_class(const Json::Value& document, std::size_t class_count);

// What the classes leave of the ceiling. Devices have always seen this as a signed 32-bit figure: above 2^31
// bytes per second it is misjudged, and stays so.
std::int32_t remainder_of(std::uint64_t ceiling, const std::vector<QoSObj>& classes);

// The number of the ifb device that takes the ingress traffic of `dev`: behind "swdev" the one digit minus 1;
// with an "eth" anywhere what stands from the fourth character on, minus 1; 0 for every other name.
int ifb_number(const std::string& dev);

// Megabits per second as `show` prints them: the product in 32 bits.
unsigned shown_megabits(std::uint64_t bytes);

// `value` in lower-case hexadecimal.
std::string hex(unsigned value);

}  // namespace corvo::qos
