// A quick reader of JSON as programs write it, for documents of a hundred thousand elements.
//
// Who may include this: every area. Building jsoncpp's tree of a large document costs more than what the
// kernel does with its contents, so this walks over the text and makes the values that are asked for, one
// after the other. Plain are all values without comments, without escapes in texts, without numbers other
// than whole ones of at most nine digits and without deep nesting; they read here exactly as jsoncpp reads
// them. Everything else is refused: it may be right or wrong, and jsoncpp is to say which and with what
// words.
//
//     PlainJson json(text);
//     bool plain = json.object([&](std::string_view key) { return json.value(wanted(key) ? &out : nullptr);
//     }); plain = plain && json.at_end();
//
// Every function reads on from where the one before stopped. False: not plain; the place is then anywhere.
// Threading: a value, one owner. Memory: none of its own; texts point into the document.
#pragma once

#include <json/value.h>

#include <string_view>

namespace corvo {

class PlainJson {
public:
    explicit PlainJson(std::string_view text) : at_(text.data()), end_(text.data() + text.size()) {}

    // A value, made into `out` unless that is null.
    bool value(Json::Value* out) { return value(out, 0); }

    // An object (an array): `read` is called at the value of each member (at each element) and reads it.
    template <class Read>
    bool object(Read&& read) {
        return list('{', '}', [&] {
            std::string_view key;
            return text(key) && take(':') && read(key);
        });
    }
    template <class Read>
    bool array(Read&& read) {
        return list('[', ']', read);
    }

    // Whether only blanks are left.
    bool at_end() {
        skip_blanks();
        return at_ == end_;
    }

    // Where the next value starts: together with a later place() that is the value's text.
    const char* place() {
        skip_blanks();
        return at_;
    }

private:
    void skip_blanks() {
        while (at_ != end_ && (*at_ == ' ' || *at_ == '\n' || *at_ == '\t' || *at_ == '\r')) ++at_;
    }
    bool take(char wanted) {
        skip_blanks();
        if (at_ == end_ || *at_ != wanted) return false;
        ++at_;
        return true;
    }
    template <class Read>
    bool list(char first, char last, Read&& read) {
        if (!take(first)) return false;
        if (take(last)) return true;
        do {
            if (!read()) return false;
        } while (take(','));
        return take(last);
    }

    bool text(std::string_view& out);
    bool word(std::string_view expected);
    bool number(Json::Value* out);
    bool value(Json::Value* out, int depth);
    bool members(Json::Value* out, int depth);
    bool elements(Json::Value* out, int depth);

    const char* at_;
    const char* end_;
};

}  // namespace corvo
