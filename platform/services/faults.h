// Telling a method of the stand-in to misbehave.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <chrono>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace standin {

// One fault, as JSON: {"kind": KIND, ...}. Every kind may have "delay_ms" (the answer comes late), "skip" (so
// many calls pass first) and "times" (so many calls are hit; missing: all that follow).
//   "error"        {"error": "value"}, value given as "value" (default -3001)
//   "reply"        the JSON of "reply", or the text of "text", as the whole answer
//   "garbage"      bytes that are no JSON
//   "wrong_types"  "error" 0 and "data" of a type that no method answers with
//   "empty"        an empty answer
//   "huge"         JSON of "size" bytes; without "size": more than a message may hold
//   "half"         half of the proper answer, then the connection closes
//   "close"        the connection closes without an answer
//   "hang"         no answer
//   "die"          the service goes away (its socket file stays, as after a crash), until it is revived
//   "kill"         the whole program is killed
//   "none"         the proper answer; for "delay_ms"
struct Fault {
    std::string kind = "none";
    Json::Value spec;
    std::chrono::milliseconds delay{0};
    long skip = 0;
    long times = -1;  // -1: for ever

    static std::optional<Fault> parse(const Json::Value& spec);  // nothing: not an object, or an unknown kind
};

// Faults by target: "service.method", "service.*" or "*", the most particular one first.
class Faults {
public:
    // Takes the faults of a document {"target": fault, ...}; a bad entry is left out. Replaces what it took
    // before; faults set by hand stay and come first.
    void load(const Json::Value& document);
    // The same from a file, when it has changed since; a file that is gone has no faults.
    void refresh(const std::string& file);

    bool set(const std::string& target, const Json::Value& spec);  // false: no such fault
    void clear(const std::string& target);                         // empty: all, those of the document too

    // The fault that hits this call, if one does; counts the call.
    std::optional<Fault> take(std::string_view service, std::string_view method);

private:
    using Map = std::map<std::string, Fault, std::less<>>;

    Map by_hand_;
    Map from_document_;
    timespec changed_{};
    off_t size_ = -1;
    ino_t inode_ = 0;
};

}  // namespace standin
