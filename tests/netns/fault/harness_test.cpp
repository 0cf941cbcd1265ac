// The layer of faults itself: ways of failing that no code of an error stands for.
#include <gtest/gtest.h>

#include <string>

#include "foundation/command.h"
#include "foundation/document.h"
#include "support/fault/fault.h"
#include "support/sandbox.h"

namespace corvo::test {
namespace {

using fault::Armed;
using fault::Kind;

TEST(FaultHarness, ADocumentEndsHalfWay) {
    const std::string path = write_document("list.json", "[1, 2, 3, 4]");
    std::string text;
    Armed armed({Kind::kFile, 2, 5});  // the first is its open
    EXPECT_EQ(text_of_document(path, text), 0);
    EXPECT_TRUE(armed.disarm());
    EXPECT_EQ(text, "[1, 2,");
}

TEST(FaultHarness, WhatACommandPrintsWithoutEndIsCut) {
    std::string output;
    Armed armed({Kind::kCommand, 1, 6});
    EXPECT_TRUE(capture_command({"true"}, output, 1000));
    EXPECT_TRUE(armed.disarm());
    EXPECT_EQ(output.size(), 1000U);
    EXPECT_EQ(output.substr(0, 4), "y\ny\n");
}

TEST(FaultHarness, ACommandThatNobodyReadsEndsByItself) {
    for (const auto run : {&run_command, &run_command_quiet}) {
        Armed armed({Kind::kCommand, 1, 6});
        EXPECT_NE(run({"true"}), 0);
        EXPECT_TRUE(armed.disarm());
    }
}

}  // namespace
}  // namespace corvo::test
