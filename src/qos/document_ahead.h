// Reading a document before it is needed.
//
// Who may include this: the qos area and its tests.
//
// A restart takes the tree down and builds the new one. Asking the configuration service in between would
// leave the interface unshaped for as long as the service takes, so restart() reads the document first and
// the build finds it here. Threading: what is read ahead belongs to the thread that read it.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>

namespace corvo::qos {

class DocumentAhead {
public:
    // Loads the document now; the next load() of `path` on this thread gets it. One at a time.
    explicit DocumentAhead(std::string path);
    ~DocumentAhead();
    DocumentAhead(const DocumentAhead&) = delete;
    DocumentAhead& operator=(const DocumentAhead&) = delete;

    // The document at `path`, read ahead or read now; none when it does not load.
    static std::optional<Json::Value> load(const std::string& path);

private:
    std::string path_;
    std::optional<Json::Value> document_;
};

}  // namespace corvo::qos
