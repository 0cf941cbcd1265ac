// Loading configuration documents, step by step.
//
// Who may include this: areas that read documents too large to be copied; all others use CfgFile, which takes
// these steps: the service, and when that fails the file. Every step that fails writes its one line;
// nothing throws.
#pragma once

#include <json/value.h>

#include <functional>
#include <string>
#include <string_view>

namespace corvo {

// The document as the configuration service knows it. 0, or a result code and `document` as it was. `take`
// may take the text of the whole reply instead, if it finds in it that the service succeeded; false leaves
// it.
int document_from_service(const std::string& path, Json::Value& document,
                          const std::function<bool(std::string_view reply)>& take = {});

// The text of the file: 0, or -3015 when it cannot be opened. What can be opened and not read is empty.
int text_of_document(const std::string& path, std::string& text);

// Parses a file's text: 0, or -3019 and `document` null.
int parse_document(const std::string& text, Json::Value& document);

}  // namespace corvo
