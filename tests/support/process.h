// Running tools from a test.
//
// These are the tests' own means, independent of the library's. A tool that is replaced by a recorder (see
// recorder.h) is still reached here: names without a slash mean the machine's real tool.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

namespace corvo::test {

struct ToolResult {
    int status = -1;  // exit status; 128+N when signal N ended it; 127 when it could not be started
    std::string out;
    std::string err;

    bool ok() const { return status == 0; }
};

// Runs argv[0] (a path, or the name of a real tool) in the network namespace of the calling thread and waits
// for it. `input` becomes its standard input.
ToolResult run_tool(const std::vector<std::string>& argv, const std::string& input = {});

// The same for one line of words separated by blanks: run_line("ip link add a type dummy").
ToolResult run_line(const std::string& line);

// The same, and throws std::runtime_error with the tool's own words when it fails. Gives standard output.
std::string must_run(const std::string& line);

// The file of the real tool `name`, recorded or not; empty when the machine does not have it.
std::string real_tool(const std::string& name);

// What "ip -j WORDS" (with -d and -s when `flags` names them) and "tc -j WORDS" print, parsed; an empty array
// when they print nothing. Throws when the tool fails or prints no JSON.
//
//     ip_json("route show table 100")[0]["dst"]      ip_json("link show dev a", "-d")
Json::Value ip_json(const std::string& words, const std::string& flags = {});
Json::Value tc_json(const std::string& words, const std::string& flags = {});

// Several ip commands in one process ("link add ..." without the leading "ip"); throws when one fails.
void ip_batch(const std::vector<std::string>& commands);

}  // namespace corvo::test
