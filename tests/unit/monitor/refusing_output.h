// A standard output that fails at first.
#pragma once

#include <iostream>
#include <sstream>
#include <stdexcept>

namespace corvo::test {

// While it lives, the first writing to std::cout throws "no paper"; what is written after that is text().
class RefusingOutput {
public:
    RefusingOutput() : before_(std::cout.rdbuf(&paper_)) { std::cout.exceptions(std::ios::badbit); }
    ~RefusingOutput() {
        std::cout.exceptions(std::ios::goodbit);
        std::cout.clear();
        std::cout.rdbuf(before_);
    }
    RefusingOutput(const RefusingOutput&) = delete;
    RefusingOutput& operator=(const RefusingOutput&) = delete;

    std::string text() const { return paper_.str(); }

private:
    class Paper : public std::stringbuf {
        std::streamsize xsputn(const char* text, std::streamsize size) override {
            if (refused_) return std::stringbuf::xsputn(text, size);
            refused_ = true;
            throw std::runtime_error("no paper");
        }
        bool refused_ = false;
    };

    Paper paper_;
    std::streambuf* before_;
};

}  // namespace corvo::test
