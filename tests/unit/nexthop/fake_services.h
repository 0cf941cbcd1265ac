// The device's services, in the process: the executable's own vx_ operations take the library's place.
#pragma once

#include <json/value.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace corvo::test {

class FakeServices {
public:
    using Method = std::function<std::string(const std::string& request)>;

    FakeServices();
    ~FakeServices();
    FakeServices(const FakeServices&) = delete;
    FakeServices& operator=(const FakeServices&) = delete;

    // Methods by "service.method"; calls of others fail. To begin with the device id is 10 and the hub
    // manager and the log forwarder accept everything. Set before threads run.
    std::map<std::string, Method> methods;

    void answer(const std::string& method, const std::string& reply);
    void device_id(int id);
    void site(const Json::Value& sites);  // the member SITE_INFO of the site document

    // "service.method request" of the calls made, without the queries of vesta.
    std::vector<std::string> calls();

    // Used by the replaced operations.
    static FakeServices* current();
    bool call(const std::string& method, std::string& io);

private:
    std::mutex lock_;
    std::vector<std::string> calls_;
};

}  // namespace corvo::test
