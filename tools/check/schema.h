// Validation against a JSON Schema (draft 7).
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "check/check.h"

namespace check {

// Appends a finding for each place of `root` that breaks the schema.
void check_schema(const std::string& schema_file, const std::string& file, const Json::Value& root,
                  std::vector<Finding>& out);

}  // namespace check
