// The record of what was asked of the stand-in.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <deque>
#include <string>

#include "foundation/fd.h"

namespace standin {

// Each call becomes one line of JSON, written with one write() to a file opened for appending, so that
// several programs may share it and a reader never sees half a line; the last ones are also kept in memory.
class Journal {
public:
    void open(const std::string& file);  // throws std::system_error

    void add(Json::Value entry);  // adds "seq", counted from 1

    // The entries after `since`, oldest first, as an array; at most the last kKept.
    Json::Value after(std::uint64_t since) const;
    void clear() { kept_.clear(); }

    static constexpr std::size_t kKept = 4096;

private:
    corvo::UniqueFd fd_;
    std::uint64_t count_ = 0;
    std::deque<Json::Value> kept_;
};

}  // namespace standin
