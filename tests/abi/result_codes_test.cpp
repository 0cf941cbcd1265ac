// docs/result-codes.md is the catalogue, written out. After a change of the catalogue:
//
//     CORVO_WRITE_DOCS=1 build/release/tests/abi/unit_result_codes
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "foundation/result.h"

namespace {

using namespace corvo;

std::string table(ResultSource source) {
    std::string text = "| Code | Name | Meaning | Likely cause | What to do |\n|---|---|---|---|---|\n";
    for (const auto& info : result_catalogue())
        if (info.source == source)
            text += "| " + std::to_string(info.code) + " | " + info.name + " | " + info.meaning + " | " +
                    info.cause + " | " + info.remedy + " |\n";
    return text;
}

std::string document() {
    return "# Result codes\n\n"
           "Every exported function that returns a code returns 0 for success or one of these. `corvoctl "
           "explain CODE`\n"
           "prints the same texts. This file is written by a test from the catalogue in "
           "`src/foundation/result.cpp`.\n\n"
           "## The library's own\n\n" +
           table(ResultSource::kLibrary) +
           "\n## Of libnl\n\n"
           "Adding and deleting routes and rules passes libnl's codes through unchanged.\n\n" +
           table(ResultSource::kNetlink) +
           "\n## Of the hub exchange and the hub manager\n\n"
           "The UDP exchange with a hub returns these; the hub manager's own errors come through unchanged, "
           "too.\n\n" +
           table(ResultSource::kHub);
}

TEST(ResultCodes, DocumentIsTheCatalogue) {
    const std::string path = CORVO_DOCS_DIR "/result-codes.md";
    if (std::getenv("CORVO_WRITE_DOCS") != nullptr) std::ofstream(path) << document();
    std::ifstream in(path);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), document());
}

}  // namespace
