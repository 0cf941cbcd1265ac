// Any bytes as a configuration document, from the service and from a file, read in every way the library
// reads.
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "corvosetup/cfg_file.h"
#include "corvosetup/log.h"
#include "fake_vx.h"
#include "foundation/json.h"
#include "foundation/plain_json.h"

namespace {

void must(bool holds) {
    if (!holds) std::abort();
}

std::size_t read_all_ways(const Json::Value& value, const char* key) {
    using namespace corvo;
    std::size_t sum = j_has(value, key);
    sum += static_cast<std::size_t>(j_int(value, key, 1)) + j_uint(value, key, 1) + j_uint64(value, key, 1);
    sum += std::isnan(j_double(value, key, 1)) + j_str(value, key, "d").size();
    must(j_obj(value, key).isObject() && j_arr(value, key).isArray());
    sum += text_to_ulong(j_str(value, key)) + static_cast<std::size_t>(text_to_int(j_str(value, key)));
    return sum;
}

void walk(const Json::Value& value, int depth) {
    for (const char* key : {"ifname", "del", "add", "", "data"}) read_all_ways(value, key);
    if (depth > 50) return;
    if (value.isObject())
        for (const auto& name : value.getMemberNames()) {
            read_all_ways(value, name.c_str());
            walk(corvo::j_member(value, name), depth + 1);
        }
    else if (value.isArray())
        for (const Json::Value& element : value) walk(element, depth + 1);
}

// A file of memory that can be opened by its path.
class MemoryFile {
public:
    MemoryFile() : fd_(::memfd_create("document", MFD_CLOEXEC)) {}
    std::string fill(const std::uint8_t* data, std::size_t size) const {
        must(::ftruncate(fd_, 0) == 0 && ::pwrite(fd_, data, size, 0) == static_cast<ssize_t>(size));
        return "/proc/self/fd/" + std::to_string(fd_);
    }

private:
    int fd_;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    reopen_setup_logger("/dev/null");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const MemoryFile memory;
    const std::string path = memory.fill(data, size);
    const std::string text(reinterpret_cast<const char*>(data), size);

    fake_vx::call_rc = -1;
    CfgFile from_file(path);
    Json::Value document = "untouched";
    from_file >> document;
    must(from_file.get_cfg_flag() == 2 || (!from_file.good() && document.isNull()));
    walk(document, 0);

    // What the quick reader takes is what jsoncpp reads.
    Json::Value quick;
    if (corvo::PlainJson plain(text); plain.value(&quick) && plain.at_end()) {
        must(from_file.good() && quick == document);
    }

    fake_vx::call_rc = 0;
    fake_vx::reply = "{\"error\":0,\"data\":" + text + "}";
    CfgFile from_service(path);
    from_service >> document;
    walk(document, 0);
    fake_vx::reply = text;
    CfgFile whole_reply(path);
    must(fake_vx::buffers == 0);

    // What is written can be read again and is the same text from then on. (Names of bytes that are no UTF-8
    // are replaced as they are written first, and may sort elsewhere.)
    Json::Value parsed;
    std::string before;
    for (int round = 0; corvo::parse_json(round == 0 ? text : before, parsed) && round < 3; ++round) {
        const std::string compact = corvo::compact_json(parsed);
        must(round < 2 || compact == before);
        before = compact;
    }
    return 0;
}
