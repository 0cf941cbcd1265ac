#include "qos/qos_rates.h"

#include <cstdio>
#include <numeric>

#include "foundation/json.h"

namespace corvo::qos {

Percentages read_percentages(const Json::Value& document) {
    Percentages result;
    const auto missing = [&]() -> Percentages& {
        result.status = Percentages::Status::kMissing;
        return result;
    };
    if (!document.isNull() && !document.isObject()) return missing();
    const Json::Value& section = j_member(document, "QOS");
    if (!section.isNull() && !section.isObject()) return missing();
    if (!j_has(section, "RATE")) return result;
    const Json::Value& rates = j_member(section, "RATE");
    if (rates.isNull()) return missing();
    result.status = Percentages::Status::kMalformed;
    if (!rates.isArray()) return result;
    for (const Json::Value& rate : rates) {
        if (!rate.isConvertibleTo(Json::uintValue)) return result;
        result.values.push_back(as_uint(rate));
    }
    result.status = Percentages::Status::kOk;
    return result;
}

std::uint64_t sum_of(const std::vector<unsigned>& values) {
    return std::accumulate(values.begin(), values.end(), std::uint64_t{0});
}

int index_of_largest(const std::vector<unsigned>& values) {
    int index = -1;
    unsigned largest = 0;
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (largest > values[i]) continue;
        largest = values[i];
        index = static_cast<int>(i);
    }
    return index;
}

QoSObj class_of(std::uint64_t ceiling, unsigned percent, unsigned position) {
    return {percent * ceiling / kFullPercent, position, 0};
}

unsigned default_class(const Json::Value& document, std::size_t class_count) {
    const Json::Value& value = j_member(j_member(document, "QOS"), "DEFAULT_CLASS");
    unsigned result = kUsualDefaultClass;
    if (value.isString()) {
        result = static_cast<unsigned>(text_to_int(value.asString()));
    } else if (value.isUInt()) {
        result = value.asUInt();
    }
    const auto last = static_cast<unsigned>(class_count) - 1;
    return result == 0 || result > last ? last : result;
}

std::int32_t remainder_of(std::uint64_t ceiling, const std::vector<QoSObj>& classes) {
    for (const QoSObj& entry : classes) ceiling -= entry.rate;
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(ceiling));
}

int ifb_number(const std::string& dev) {
    static const std::string kSwitchPort = "swdev";
    std::string digits;
    if (const auto at = dev.find(kSwitchPort); at != std::string::npos) {
        digits = dev.substr(at + kSwitchPort.size(), 1);
    } else if (dev.find("eth") != std::string::npos) {
        digits = dev.substr(3);
    } else {
        return 0;
    }
    return static_cast<int>(static_cast<unsigned>(text_to_int(digits)) - 1);
}

unsigned shown_megabits(std::uint64_t bytes) {
    return static_cast<std::uint32_t>(bytes * 8) / 1'000'000;
}

std::string hex(unsigned value) {
    char text[12];
    std::snprintf(text, sizeof text, "%x", value);
    return text;
}

}  // namespace corvo::qos
