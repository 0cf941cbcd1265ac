// The datagrams of the UDP probe: one JSON object each way.
//
// Who may include this: nexthop.
//
// Nothing here touches a socket. What arrives comes from anybody on the network: the parsers take exactly the
// bytes received, throw nothing whatever these are, and give 0 (-1 for a result) for members of another type.
// Threading: none of these keeps state.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "nexthop/load_figures.h"

namespace corvo {

inline constexpr int kProbePort = 7788;                 // of the answering side
inline constexpr std::size_t kProbeDatagramSize = 256;  // what is longer is cut

struct ProbeRequest {
    int sender = 0;
    int receiver = 0;
    int wan = 0;  // the asker's number of WANs, 0 when it did not tell
};

struct ProbeReply {
    int sender = 0;
    int receiver = 0;
    int connections = 0;
    double cpu = 0;
    double memory = 0;
    int result = -1;  // 0: accepted
};

// False: not a JSON object.
bool parse_probe_request(std::string_view datagram, ProbeRequest& out);
bool parse_probe_reply(std::string_view datagram, ProbeReply& out);

// A request made from the template's members; "Wan" is left as the template has it unless `wans` is given.
// A template that is no JSON object counts as an empty one.
std::string build_probe_request(std::string_view message_template, int own, int receiver,
                                std::optional<int> wans);

// The answer of device `own` to `asker`: exactly seven members, figures that are not finite as 0.
std::string build_probe_answer(int own, int asker, const LoadFigures& load);

}  // namespace corvo
