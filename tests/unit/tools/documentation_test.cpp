// What the documentation shows as a document is one: a fence that begins with "```json NAME" holds a document
// of that name, and the fences of one page belong together.
#include <gmock/gmock.h>
#include <json/reader.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "check/check.h"

namespace {

namespace fs = std::filesystem;

using Examples = std::map<std::string, std::string>;  // name: text

// The man page shows one too, as the only literal block that begins with a brace.
Examples examples_of(const fs::path& page) {
    Examples out;
    std::ifstream in(page);
    std::string line;
    std::string name;
    bool inside = false;
    while (std::getline(in, line)) {
        if (line.rfind("```", 0) != 0) {
            if (inside && !name.empty()) out[name] += line + "\n";
            continue;
        }
        inside = !inside;
        name.clear();
        if (!inside) continue;
        if (line.rfind("```json ", 0) == 0) name = line.substr(8);
        if (page.extension() == ".scd" && line == "```") name = "device_info.json";
    }
    return out;
}

std::vector<fs::path> pages() {
    std::vector<fs::path> out{fs::path(PROJECT) / "README.md",
                              fs::path(PROJECT) / "packaging/man/corvo-documents.5.scd"};
    for (const auto& entry : fs::directory_iterator(fs::path(PROJECT) / "docs"))
        if (entry.path().extension() == ".md") out.push_back(entry.path());
    return out;
}

std::vector<check::Finding> findings_of(const Examples& examples) {
    check::Options options;
    options.schema_directory = SCHEMAS;
    options.kernel_interfaces.clear();
    check::Checker checker(options);
    for (const auto& [name, text] : examples) {
        Json::Value root;
        std::istringstream in(text);
        std::string errors;
        EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &errors))
            << name << ": " << errors;
        check::Kind kind{};
        if (check::kind_of_file(name, kind))
            checker.add_document(kind, name, root);
        else
            ADD_FAILURE() << name << " is no document's name";
    }
    return checker.run();
}

TEST(Documentation, ShowsDocumentsThatPassTheCheck) {
    std::set<std::string> shown;
    for (const auto& page : pages()) {
        const auto examples = examples_of(page);
        for (const auto& [name, text] : examples) shown.insert(name);
        for (const auto& finding : findings_of(examples))
            ADD_FAILURE() << page << ": " << finding.file << "#" << finding.pointer << ": " << finding.text;
    }
    EXPECT_THAT(shown, testing::IsSupersetOf({"device_info.json", "site.json", "qos.json", "lan_qos.json",
                                              "routes/s2s.json", "routes/s2s6.json",
                                              "routes/private_s2s.json", "routes/regional.json"}));
}

TEST(Documentation, WouldNotPassWithAMistake) {
    auto examples = examples_of(fs::path(PROJECT) / "docs/documents.md");
    ASSERT_EQ(examples.count("qos.json"), 1U);
    auto& text = examples["qos.json"];
    text.replace(text.find("40"), 2, "90");
    EXPECT_TRUE(check::has_errors(findings_of(examples)));
}

}  // namespace
