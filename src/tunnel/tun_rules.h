// The rules of the IPv4 family. Who may include this: this area.
#pragma once

#include "tunnel/numbering.h"
#include "tunnel/rules.h"

namespace corvo::tunnel {

// Packets with the link's mark look in the site-to-site table and, at the same priority, fall through to the
// static one. The last rule, the link's default table, is for tunnels of a WAN link only.
inline constexpr RuleSpec kTunRules[] = {
    {kS2sBase, kS2sBase, Selects::kMark, "setup site-to-site fwmark rule failed.\n",
     "delete site-to-site fwmark rule failed.\n"},
    {kS2sBase, kStaticBase, Selects::kMark, "setup static route fwmark rule failed.\n",
     "delete static route fwmark rule failed.\n"},
    {kMptcpBase, kMptcpBase, Selects::kSource, "setup mptcp source first rule failed.\n",
     "delete mptcp first rule failed.\n"},
    {kMptcpBase, kMptcpBase, Selects::kDevice, "setup mptcp second rule failed.\n",
     "delete mptcp second rule failed.\n"},
    {kDefaultBase, kDefaultBase, Selects::kAll, "setup mptcp default rule failed.\n",
     "delete mptcp defult rule failed.\n"},
};
inline constexpr std::span<const RuleSpec> kPrivateRules{kTunRules, 4};

}  // namespace corvo::tunnel
