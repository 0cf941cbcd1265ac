#include "check/schema.h"

#include <json/reader.h>

#include <fstream>
#include <valijson/adapters/jsoncpp_adapter.hpp>
#include <valijson/schema.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validation_results.hpp>
#include <valijson/validator.hpp>

namespace check {

namespace {

// The validator's contexts are "<root>", "[member]", "[3]": here as a JSON pointer.
std::string pointer_of(const std::vector<std::string>& context) {
    std::string out;
    for (const auto& step : context) {
        if (step.size() < 2 || step.front() != '[') continue;
        out.push_back('/');
        for (const char c : step.substr(1, step.size() - 2)) {
            if (c == '~')
                out += "~0";
            else if (c == '/')
                out += "~1";
            else
                out.push_back(c);
        }
    }
    return out;
}

}  // namespace

void check_schema(const std::string& schema_file, const std::string& file, const Json::Value& root,
                  std::vector<Finding>& out) {
    std::ifstream in(schema_file);
    Json::CharReaderBuilder builder;
    Json::Value text;
    std::string errors;
    if (!in || !Json::parseFromStream(builder, in, &text, &errors)) {
        out.push_back({Severity::kWarning, file, "", "its form was not checked: no schema " + schema_file,
                       "Install the schemas, or name their directory with --schemas."});
        return;
    }
    valijson::Schema schema;
    valijson::SchemaParser parser;
    parser.populateSchema(valijson::adapters::JsonCppAdapter(text), schema);
    // Numbers and texts are kept apart: the devices read "40" and 40 differently.
    valijson::Validator validator(valijson::Validator::kStrongTypes);
    valijson::ValidationResults results;
    if (validator.validate(schema, valijson::adapters::JsonCppAdapter(root), &results)) return;
    // The last error of a place is the most general one; the innermost place comes first.
    valijson::ValidationResults::Error error;
    std::set<std::string> seen;
    std::vector<Finding> found;
    while (results.popError(error)) {
        const std::string pointer = pointer_of(error.context);
        // A member's error is repeated by each of its parents.
        bool inner = false;
        for (const auto& other : seen)
            inner =
                inner || (other.size() > pointer.size() && other.compare(0, pointer.size(), pointer) == 0);
        if (inner || !seen.insert(pointer).second) continue;
        found.push_back({Severity::kError, file, pointer, error.description,
                         "docs/documents.md describes every member."});
    }
    out.insert(out.end(), found.begin(), found.end());
}

}  // namespace check
