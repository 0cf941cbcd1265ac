// The directory of documents that the stand-in answers from.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace standin {

struct Document {
    Json::Value root;
    std::string text;  // compact, on one line, without the line break
};

// Reads documents by the names that callers use; a document is parsed again only when its file has changed.
class Documents {
public:
    static constexpr std::string_view kDevicePrefix = "/etc/networkmanagement/";

    explicit Documents(std::string directory);

    // The file behind a caller's path: what lies under /etc/networkmanagement/ is looked up in the directory.
    // Empty for a path that leaves it ("..") or, unless `anywhere`, for one that lies elsewhere.
    std::string locate(const std::string& path, bool anywhere) const;

    // Null when the file cannot be read (`error` = -3015) or is no JSON document (-3019).
    std::shared_ptr<const Document> load(const std::string& file, int& error);

    const std::string& directory() const { return directory_; }

private:
    struct Entry {
        timespec changed{};
        off_t size = -1;
        ino_t inode = 0;
        std::shared_ptr<const Document> document;
    };

    std::string directory_;
    std::map<std::string, Entry> cache_;
};

// The whole file; false when it cannot be read.
bool read_file(const std::string& path, std::string& out);

}  // namespace standin
