// What every probe socket of the library has in common.
//
// Who may include this: nexthop and monitor.
#pragma once

namespace corvo {

// The management mark: the shaping tree of a WAN sends what carries it to the class reserved for management,
// and policy routing keeps it on the link under test (socket(7), SO_MARK).
inline constexpr int kManagementMark = 0x3c0;

// Sets SO_MARK to the management mark; false when the kernel refuses (no CAP_NET_ADMIN).
bool set_management_mark(int fd);

}  // namespace corvo
