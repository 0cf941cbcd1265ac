#include "support/real_root.h"

#include <sys/stat.h>

namespace corvo::test {

namespace detail {
std::string real_usr;
}

std::string merged(const std::string& path) {
    for (const char* folder : {"/sbin/", "/bin/"}) {
        struct stat info {};
        const std::string link = std::string(folder).substr(0, std::string(folder).size() - 1);
        if (path.starts_with(folder) && ::lstat(link.c_str(), &info) == 0 && S_ISLNK(info.st_mode))
            return "/usr" + path;
    }
    return path;
}

std::string untouched(const std::string& path) {
    const std::string full = merged(path);
    if (detail::real_usr.empty() || !full.starts_with("/usr/")) return full;
    return detail::real_usr + full.substr(4);
}

}  // namespace corvo::test
