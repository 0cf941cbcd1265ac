#include "documents.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "foundation/fd.h"
#include "foundation/json.h"
#include "foundation/result.h"

namespace standin {

bool read_file(const std::string& path, std::string& out) {
    const corvo::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return false;
    out.clear();
    char part[64 << 10];
    for (;;) {
        const ssize_t got = ::read(fd.get(), part, sizeof part);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false;
        if (got == 0) return true;
        out.append(part, static_cast<std::size_t>(got));
    }
}

Documents::Documents(std::string directory) : directory_(std::move(directory)) {}

std::string Documents::locate(const std::string& path, bool anywhere) const {
    if (path.find('\0') != std::string::npos || (path + "/").find("/../") != std::string::npos) return {};
    if (path.starts_with(kDevicePrefix)) return directory_ + "/" + path.substr(kDevicePrefix.size());
    return anywhere && path.starts_with("/") ? path : std::string();
}

std::shared_ptr<const Document> Documents::load(const std::string& file, int& error) {
    struct stat now {};
    if (file.empty() || ::stat(file.c_str(), &now) != 0 || !S_ISREG(now.st_mode)) {
        cache_.erase(file);
        error = corvo::kNoConfigFile;
        return nullptr;
    }
    Entry& entry = cache_[file];
    const bool same = entry.size == now.st_size && entry.inode == now.st_ino &&
                      entry.changed.tv_sec == now.st_mtim.tv_sec &&
                      entry.changed.tv_nsec == now.st_mtim.tv_nsec;
    if (!same) {
        std::string text;
        auto document = std::make_shared<Document>();
        if (!read_file(file, text)) {
            cache_.erase(file);
            error = corvo::kNoConfigFile;
            return nullptr;
        }
        const bool parsed = corvo::parse_json(text, document->root);
        if (parsed) document->text = corvo::compact_json(document->root);
        entry = {now.st_mtim, now.st_size, now.st_ino, parsed ? std::move(document) : nullptr};
    }
    error = entry.document ? corvo::kOk : corvo::kBadReply;
    return entry.document;
}

}  // namespace standin
