// The stand-in services inside a sandbox.

#include "support/services.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "corvosetup/cfg_file.h"
#include "support/sandbox.h"

namespace corvo::test {
namespace {

TEST(ServicesInASandbox, ReadTheTestsOwnDocuments) {
    const std::string path = write_document("site.json", R"({"hubs": [1, 2]})");
    const Services services;
    CfgFile file(path);
    EXPECT_TRUE(file.good());
    EXPECT_EQ(file.get_cfg_flag(), 1);
    ASSERT_EQ(services.calls("vesta.read_json").size(), 1U);
    EXPECT_EQ(services.calls()[0].request["path"].asString(), path);
    EXPECT_THAT(log_texts(), testing::ElementsAre("[DEBUG] Load config from VESTA: " + path));
}

TEST(ServicesInASandbox, AreAbsentUnlessStarted) {
    const std::string path = write_document("site.json", "{}");
    CfgFile file(path);
    EXPECT_EQ(file.get_cfg_flag(), 2);
}

}  // namespace
}  // namespace corvo::test
