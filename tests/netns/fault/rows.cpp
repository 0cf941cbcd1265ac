#include "rows.h"

#include <cxxabi.h>

#include <cctype>
#include <cstdlib>
#include <memory>
#include <sstream>

namespace corvo::test {

namespace {

// "ProcNeigh::start()" becomes ProcNeigh_start.
std::string test_name(const std::string& symbol) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> plain(
        abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status), &std::free);
    std::string name = status == 0 ? plain.get() : symbol;
    if (const auto end = name.find_first_of("([", 0); end != std::string::npos) name.resize(end);
    std::string clean;
    for (const char c : name) {
        if (std::isalnum(static_cast<unsigned char>(c)) != 0)
            clean += c;
        else if (!clean.empty() && clean.back() != '_')
            clean += '_';
    }
    return clean;
}

}  // namespace

Row::Row(const std::string& names, std::function<Call(Machine&)> maker) : make(std::move(maker)) {
    std::istringstream words(names);
    for (std::string word; words >> word;) symbols.push_back(word);
    name = test_name(symbols.at(0));
}

const std::vector<Row>& all_rows() {
    static const std::vector<Row> all = [] {
        std::vector<Row> rows;
        add_foundation_rows(rows);
        add_netlink_rows(rows);
        add_tunnel_rows(rows);
        add_shaping_rows(rows);
        add_probe_rows(rows);
        return rows;
    }();
    return all;
}

}  // namespace corvo::test
