#include "corvosetup/cfg_file.h"

#include <fcntl.h>
#include <json/reader.h>

#include <cerrno>
#include <optional>
#include <sstream>

#include "foundation/fd.h"
#include "foundation/guard.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "foundation/service_call.h"

namespace {

using corvo::ServiceCall;

constexpr corvo::ServiceMethod kReadJson{"vesta", "read_json", 5, true};

enum Source { kNone = 0, kService = 1, kFile = 2 };

// The text of an open file, as far as it can be read (a directory reads as nothing).
std::string text_of(int fd) {
    std::string text;
    char piece[16384];
    for (;;) {
        const ssize_t got = ::read(fd, piece, sizeof piece);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return text;
        text.append(piece, static_cast<std::size_t>(got));
    }
}

}  // namespace

CfgFile::CfgFile(std::string path) : cfg_flag(kNone), path(std::move(path)) {
    if (vesta_to_json() != 0) file_to_json();
}

CfgFile::~CfgFile() = default;

bool CfgFile::good() {
    return cfg_flag != kNone;
}

int CfgFile::get_cfg_flag() {
    return cfg_flag;
}

void CfgFile::operator>>(Json::Value& out) {
    corvo::guarded_void([&] { out = root; });
}

int CfgFile::vesta_to_json() {
    return corvo::guarded([&]() -> int {
        const std::string detail = " path=" + path;
        ServiceCall call(kReadJson, detail);
        if (!call.has_buffer()) return corvo::kNoCallBuffer;
        corvo::log::debug("Load config from VESTA: ", path);
        vx_io_printf(call.io(), "{\"path\": \"%s\"}", corvo::json_escape(path).c_str());
        Json::Value reply;
        if (const int rc = call.exchange(reply); rc != corvo::kOk) return rc;
        if (const int error = ServiceCall::error_of(reply); error != 0) {
            call.report_error(error);
            return corvo::kBadReply;
        }
        root = corvo::j_member(reply, "data");
        cfg_flag = kService;
        return corvo::kOk;
    });
}

int CfgFile::file_to_json() {
    return corvo::guarded([&]() -> int {
        const corvo::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!file) {
            corvo::log::error("Config file: [", path, "] does not exist.\n");
            return corvo::kNoConfigFile;
        }
        corvo::log::debug("Load config from FILE: ", path);
        try {
            std::istringstream text(text_of(file.get()));
            text >> root;
        } catch (const std::exception& failure) {
            corvo::log::error("File loaded Json ERROR: ", failure.what());
            root = Json::Value();
            return corvo::kBadReply;
        }
        cfg_flag = kFile;
        return corvo::kOk;
    });
}
