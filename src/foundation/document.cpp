#include "foundation/document.h"

#include <fcntl.h>
#include <json/reader.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "foundation/fd.h"
#include "foundation/guard.h"
#include "foundation/json.h"
#include "foundation/log_line.h"
#include "foundation/result.h"
#include "foundation/service_call.h"

namespace corvo {

namespace {

constexpr ServiceMethod kReadJson{"vesta", "read_json", 5, true};

// The text of an open file, as far as it can be read (a directory reads as nothing).
std::string text_of(int fd) {
    std::string text;
    struct stat info {};
    if (::fstat(fd, &info) == 0 && info.st_size > 0) text.reserve(static_cast<std::size_t>(info.st_size));
    char piece[16384];
    for (;;) {
        const ssize_t got = ::read(fd, piece, sizeof piece);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return text;
        text.append(piece, static_cast<std::size_t>(got));
    }
}

int ask_service(const std::string& path, Json::Value& document,
                const std::function<bool(std::string_view reply)>& take) {
    const std::string detail = " path=" + path;
    ServiceCall call(kReadJson, detail);
    if (!call.has_buffer()) return kNoCallBuffer;
    log::debug("Load config from VESTA: ", path);
    vx_io_printf(call.io(), "{\"path\": \"%s\"}", json_escape(path).c_str());
    std::string_view text;
    if (const int rc = call.exchange_text(text); rc != kOk) return rc;
    if (take && take(text)) return kOk;
    Json::Value reply;
    if (const int rc = call.parse(text, reply); rc != kOk) return rc;
    if (const int error = ServiceCall::error_of(reply); error != 0) {
        call.report_error(error);
        return kBadReply;
    }
    document = j_take(reply, "data");
    return kOk;
}

int read_file(const std::string& path, std::string& text) {
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) {
        log::error("Config file: [", path, "] does not exist.\n");
        return kNoConfigFile;
    }
    log::debug("Load config from FILE: ", path);
    text = text_of(file.get());
    return kOk;
}

int parse(const std::string& text, Json::Value& document) {
    try {
        // As jsoncpp reads a stream, without its two copies of the text.
        const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        std::string words;
        if (!reader->parse(text.data(), text.data() + text.size(), &document, &words)) {
            throw Json::RuntimeError(words);
        }
        return kOk;
    } catch (const std::exception& failure) {
        log::error("File loaded Json ERROR: ", failure.what());
        document = Json::Value();
        return kBadReply;
    }
}

}  // namespace

int document_from_service(const std::string& path, Json::Value& document,
                          const std::function<bool(std::string_view reply)>& take) {
    return guarded([&] { return ask_service(path, document, take); });
}

int text_of_document(const std::string& path, std::string& text) {
    return guarded([&] { return read_file(path, text); });
}

int parse_document(const std::string& text, Json::Value& document) {
    return guarded([&] { return parse(text, document); });
}

}  // namespace corvo
