// The exported functions, each with a call of it on the tests' machine.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "machine.h"
#include "support/fault/fault.h"

namespace corvo::test {

using Call = std::function<int()>;

// One call and what it may do. A row stands for the symbols that it names; where a function needs an object,
// `make` builds that undisturbed, and the call is repeated on the same object.
struct Row {
    Row(const std::string& symbols, std::function<Call(Machine&)> make);

    // What it returns undisturbed.
    Row& gives(int result) { return expected = result, *this; }
    // The same, and it depends on the kernel: what the first undisturbed call returns.
    Row& gives_what_it_gives() { return expected_is_learned = true, *this; }
    // It returns no code of the table but a number, a text (its length) or nothing (0).
    Row& value() { return is_code = false, *this; }
    // A failure writes an ERROR or WARNING line.
    Row& logs() { return must_log = true, *this; }
    // It is about the kernel: the state is compared.
    Row& kernel() { return touches_kernel = true, *this; }
    // Creation is exclusive, or stops where it fails and leaves what is done: what the caller does before the
    // next attempt.
    Row& undone_by(std::function<void()> step) { return undo = std::move(step), *this; }
    // The kernel must have these features (REQUIRE_KERNEL_FEATURE).
    Row& needs(std::vector<std::string> names) { return features = std::move(names), *this; }
    // The call is long: fewer of its faults are tried.
    Row& slow() { return is_slow = true, *this; }
    // It runs tools, and so takes a multiple of the time; its walk may, too.
    Row& runs_tools() { return has_tools = true, *this; }
    // The name of the test, when the function's own is taken.
    Row& called(std::string text) { return name = std::move(text), *this; }

    std::vector<std::string> symbols;
    std::function<Call(Machine&)> make;
    std::string name;
    int expected = 0;
    bool is_code = true;
    bool expected_is_learned = false;
    bool must_log = false;
    bool touches_kernel = false;
    bool is_slow = false;
    bool has_tools = false;
    std::function<void()> undo;
    std::vector<std::string> features;
};

void add_foundation_rows(std::vector<Row>& rows);
void add_netlink_rows(std::vector<Row>& rows);
void add_tunnel_rows(std::vector<Row>& rows);
void add_shaping_rows(std::vector<Row>& rows);
void add_probe_rows(std::vector<Row>& rows);

const std::vector<Row>& all_rows();

// A text argument that is made undisturbed.
inline std::string text(const char* value) {
    return fault::spared<std::string>(value);
}

// std::string in the name of a symbol.
inline const std::string kString = "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE";
inline constexpr const char* kInfo = "/etc/networkmanagement/device_info.json";

// A call that needs nothing of the machine.
template <class Function>
std::function<Call(Machine&)> plain(Function function) {
    return [function](Machine&) { return Call(function); };
}
// The same, with an undisturbed step ahead of it each time.
template <class Before, class Function>
std::function<Call(Machine&)> after(Before before, Function function) {
    return [before, function](Machine&) {
        return Call([before, function] {
            {
                const fault::Spared here;
                before();
            }
            return function();
        });
    };
}

}  // namespace corvo::test
