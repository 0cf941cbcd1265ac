// Route tables of IPv4 links: what tunnels of a WAN link and private links do alike.
//
// Who may include this: this area.
#pragma once

#include <functional>
#include <string>

#include "tunnel/numbering.h"
#include "tunnel/route_document.h"

namespace corvo::tunnel {

// Flushes the table of every type whose bit is in `mask`, in ascending bit order, for the device `dev`.
// `table_of` gives the table. Failures are logged and the rest goes on.
void flush_route_tables(const std::string& dev, int mask,
                        const std::function<int(const RouteType&)>& table_of);

// Operation `op` on the default table `table` of the device `dev`: 2 flushes it, 0, 1, 3 and 4 do nothing
// (the table is filled from documents), any other is -3004.
int edit_default_table(int op, int table, const std::string& dev);

// A link that routes are to be installed for.
struct RouteTarget {
    std::string dev;
    int ifindex;
    std::string local;
    std::string slave;
};

// The checks ahead of every route document. Runs `install` with the type's table base when the link is there
// and has an address, else 0; -3003 without a document name, -3004 for an unknown type bit.
int setup_link_routes(const RouteTarget& link, int type_bit, const std::string& conf,
                      const std::function<int(int table_base)>& install);

// Reads the document `conf` and applies its lists; -3004 for an unknown table base, -3016 for a document that
// cannot be read, -3011 when an element of "add" failed.
int route_from_document(int table_base, const std::string& conf,
                        const std::function<int(int op, const RouteList& list)>& apply);

}  // namespace corvo::tunnel
