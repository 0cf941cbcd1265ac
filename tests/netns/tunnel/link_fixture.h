// A device whose tunnel devices are veths: routes, rules and tables are real, only the encapsulation is not.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "foundation/json.h"
#include "support/sandbox.h"
#include "support/services.h"

namespace corvo::test {

class LinkTest : public testing::Test {
protected:
    LinkTest() {
        Json::Value id;
        id["error"] = 0;
        id["data"] = 7;
        services.answer("vesta.get_devid", id);
        // Documents come from their files.
        services.fault("vesta.read_json", R"({"kind": "error", "value": -1})");
    }

    void list(const std::string& method, const std::string& elements) {
        Json::Value reply;
        parse_json(R"({"error": 0, "data": [)" + elements + "]}", reply);
        services.answer("TarnService." + method, reply);
    }
    void wans(const std::string& elements) { list("Get_available_wan_info", elements); }
    void privates(const std::string& elements) { list("Get_available_private_info", elements); }

    // The rules of ours, as "PRIO from SRC fwmark M/K oif DEV lookup T".
    static std::vector<std::string> rules(const std::string& family = "") {
        std::vector<std::string> texts;
        for (const Json::Value& rule : ip_json(family + "rule show")) {
            if (rule["priority"].asInt() < 10000 || rule["priority"].asInt() >= 32766) continue;
            std::string text = rule["priority"].asString() + " from " + rule["src"].asString();
            if (rule.isMember("fwmark")) {
                text += " fwmark " + rule["fwmark"].asString() + "/" + rule["fwmask"].asString();
            }
            if (rule.isMember("oif")) text += " oif " + rule["oif"].asString();
            texts.push_back(text + " lookup " + rule["table"].asString());
        }
        return texts;
    }

    // What "ip route show table N" prints, line by line, without the protocol that all of our routes have.
    static std::vector<std::string> routes(int table, const std::string& family = "") {
        std::vector<std::string> lines;
        std::string line;
        for (const char c : run_line("ip " + family + "route show table " + std::to_string(table)).out) {
            if (c != '\n') {
                line += c;
                continue;
            }
            while (line.ends_with(' ')) line.pop_back();
            if (line.starts_with("\t") && !lines.empty()) {
                lines.back() += " " + line.substr(1);
            } else {
                lines.push_back(line);
            }
            line.clear();
        }
        for (std::string& text : lines) {
            const std::string protocol = " proto static";
            const auto at = text.find(protocol);
            if (at != std::string::npos) text.erase(at, protocol.size());
        }
        return lines;
    }

    static std::vector<std::string> errors() {
        std::vector<std::string> texts;
        for (const std::string& text : log_texts()) {
            if (text.starts_with("[ERROR]") && text.find("VXservice") == std::string::npos)
                texts.push_back(text);
        }
        return texts;
    }

    Services services;
};

}  // namespace corvo::test
