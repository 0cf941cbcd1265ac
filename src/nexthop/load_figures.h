// What a hub tells those who ask how loaded it is.
//
// Who may include this: nexthop.
#pragma once

namespace corvo {

struct LoadFigures {
    int tunnels = 0;   // installed IPsec child SAs
    int wans = 0;      // entries of the device's WAN_PORT section
    float cpu = 0;     // busy percent
    float memory = 0;  // used percent
};

// The device's figures. Collecting them runs four pipelines of the system's tools, so figures younger than a
// second are handed out again, to all responders of the process. Threading: any thread; those that need new
// figures at the same moment wait for the one that collects, and on a Worker end that wait (and their own
// collecting) when asked to stop; what is returned then is not current.
LoadFigures current_load();

}  // namespace corvo
