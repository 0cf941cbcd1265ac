// A service-call library that plays a script: every operation can fail, and what was asked is kept.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace fake_vx {

struct Call {
    std::string service;
    std::string method;
    std::string request;
    int limit;
    int minus_one;
    bool operator==(const Call&) const = default;
};

// What happens to one call.
struct Answer {
    std::string reply;       // what vx_io_read gives
    int rc = 0;              // what vx_call gives
    bool null_text = false;  // vx_io_read gives a null pointer (and a length)
    bool int_length = true;  // the vendor writes an int; else a size_t
    long length = -1;        // the length that is told, when not the reply's
};

struct State {
    bool refuse_create = false;
    std::vector<Answer> answers;  // one per call in order; the last one stays
    std::function<void()> during_call;

    std::vector<Call> calls;
    std::vector<std::string> formats;  // as given to vx_io_printf
    int created = 0;
    int freed = 0;
    int reallocs = 0;
    int cancel_state_in_call = -1;
};

State& state();
void reset();

// The usual case: every call gets this reply.
void reply(const std::string& text);

}  // namespace fake_vx
