// Traffic control on one device: one socket and one device look-up for as many operations as wanted.
//
// Who may include this: the netlink, qos and monitor areas and tests. The exported functions are a session of
// one operation; who builds a whole tree keeps one. Every operation is a request of its own with its own
// answer, in the order of the calls, and means exactly what the exported function of its name means: nothing
// is cached but the socket and the device's index and MTU.
//
// Operations return 0 or a result code: -3008, -3009 (the socket, once), -3011 (no such device, unusable
// parent, refused by the kernel), -3004, -3010. A failed operation leaves the session usable.
// Threading: one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "corvosetup/tc.h"
#include "netlink/raw_socket.h"
#include "netlink/tc_message.h"

namespace corvo::tc {

class Session {
public:
    // Nothing is opened or looked up before the first operation. A null name is no device; the kernel then
    // refuses what is added.
    explicit Session(const char* device);

    int add_qdisc(const char* parent, const char* handle, const char* kind, const tc_options* options);
    int clean_qdisc(const char* parent);
    int add_class(const char* parent, const char* class_id, const char* kind, const tc_options* options);
    int add_fw_filter(const char* parent, const char* handle, const char* class_id);
    int add_u32_filter(const char* parent, const char* class_id, const U32QoSObj* match);
    int add_ingress();
    int add_ingress_filters(const char* redirect, unsigned short protocol);

    // The status of the device's root qdisc, then of its classes; `add` is called for each. False: something
    // failed on the way, and there may be less than there is.
    bool for_each_status(const std::function<void(const Report&, bool is_class)>& add);

private:
    int prepare();
    int prepare(const char* parent);
    bool look_up(const char* name, Device& device) const;
    int send();

    bool has_name_;
    std::string name_;
    std::unique_ptr<nl::RawSocket> socket_;
    Place place_;
    nl::MessageWriter message_;
};

}  // namespace corvo::tc
