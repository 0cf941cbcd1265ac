// The live view's text, apart from the terminal it is shown on.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

namespace corvoctl {

struct Screen {
    std::size_t columns = 80;
    std::size_t rows = 24;
};

// The screen for one status document. `routes` are the default routes as the kernel holds them, for the
// weights; no line is longer than the screen is wide, and there are no more lines than it has rows.
std::vector<std::string> compose(const Json::Value& state, const std::vector<std::string>& routes, long now,
                                 Screen screen);

}  // namespace corvoctl
