// The checked-in lists of exported symbols, and what a tool says about the library that was built.
#pragma once

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>

inline std::string output_of(const std::string& command) {
    std::string text;
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), ::pclose);
    char piece[4096];
    while (const std::size_t got = std::fread(piece, 1, sizeof piece, pipe.get())) text.append(piece, got);
    return text;
}

inline std::set<std::string> listed_symbols() {
    std::set<std::string> symbols;
    for (const auto& file : std::filesystem::directory_iterator(CORVO_ABI_DIR)) {
        if (file.path().extension() != ".symbols") continue;
        std::ifstream in(file.path());
        for (std::string line; std::getline(in, line);)
            if (!line.empty() && line[0] != '#') symbols.insert(line);
    }
    return symbols;
}

inline std::set<std::string> built_symbols() {
    std::set<std::string> symbols;
    std::istringstream lines(
        output_of("nm -D --defined-only --without-symbol-versions -- '" CORVO_LIBRARY "'"));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string value;
        std::string type;
        std::string name;
        words >> value >> type >> name;
        if (type != "A") symbols.insert(name);  // the name of the version itself is absolute
    }
    return symbols;
}
