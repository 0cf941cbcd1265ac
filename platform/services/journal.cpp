#include "journal.h"

#include <fcntl.h>

#include <cerrno>
#include <system_error>

#include "foundation/json.h"

namespace standin {

void Journal::open(const std::string& file) {
    fd_.reset(::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
    if (!fd_) throw std::system_error(errno, std::generic_category(), file);
}

void Journal::add(Json::Value entry) {
    entry["seq"] = Json::UInt64(++count_);
    if (fd_) {
        const std::string line = corvo::compact_json(entry) + "\n";
        // A full disk must not stop the services; what is lost is a line of the record.
        [[maybe_unused]] const auto written = ::write(fd_.get(), line.data(), line.size());
    }
    kept_.push_back(std::move(entry));
    if (kept_.size() > kKept) kept_.pop_front();
}

Json::Value Journal::after(std::uint64_t since) const {
    Json::Value out(Json::arrayValue);
    for (const Json::Value& entry : kept_) {
        if (entry["seq"].asUInt64() > since) out.append(entry);
    }
    return out;
}

}  // namespace standin
