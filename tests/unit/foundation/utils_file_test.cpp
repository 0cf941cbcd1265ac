// One-value files and directories.
#include <sys/stat.h>

#include <algorithm>

#include "corvosetup/utils.h"
#include "log_fixture.h"

namespace {

class FileTest : public ::testing::Test {
protected:
    bool exists(std::string path) const { return does_file_exist(path); }
    TempDir dir_;
    std::string path_ = dir_ / "value";
};

TEST_F(FileTest, OnlyARegularFileExists) {
    EXPECT_FALSE(exists(path_));
    put(path_, "");
    EXPECT_TRUE(exists(path_));
    EXPECT_FALSE(exists(dir_.path()));
    EXPECT_FALSE(exists("/dev/null"));
    EXPECT_FALSE(exists(""));
    std::filesystem::create_symlink(path_, dir_ / "link");
    EXPECT_TRUE(exists(dir_ / "link"));
    std::filesystem::remove(path_);
    EXPECT_FALSE(exists(dir_ / "link"));
}

TEST_F(FileTest, ReadsTheFirstWord) {
    std::string value = "old";
    for (const auto& [text, word] : std::vector<std::pair<std::string, std::string>>{
             {"bbr\n", "bbr"},
             {"  \t\n 12 13\n", "12"},
             {"word", "word"},
             {"a\vb", "a"},
             {std::string(1000, 'x') + " y", std::string(1000, 'x')}}) {
        put(path_, text);
        EXPECT_EQ(read_value(path_, value), 0);
        EXPECT_EQ(value, word);
    }
}

TEST_F(FileTest, EmptyFileLeavesTheValueAndIsNoFailure) {
    std::string value = "old";
    put(path_, "");
    EXPECT_EQ(read_value(path_, value), 0);
    EXPECT_EQ(value, "old");
    put(path_, " \n\n");
    EXPECT_EQ(read_value(path_, value), 0);
    EXPECT_EQ(value, "old");
}

TEST_F(FileTest, UnreadablePathIs3016) {
    std::string value = "old";
    EXPECT_EQ(read_value(path_, value), -3016);
    EXPECT_EQ(read_value("", value), -3016);
    EXPECT_EQ(value, "old");
}

TEST_F(FileTest, DirectoryOpensAndHasNoWord) {
    std::string value = "old";
    EXPECT_EQ(read_value(dir_.path(), value), 0);
    EXPECT_EQ(value, "old");
}

TEST_F(FileTest, WritesTheValueWithoutALineBreak) {
    put(path_, "something longer");
    EXPECT_EQ(write_value(path_, std::string("1")), 0);
    EXPECT_EQ(content_of(path_), "1");
    EXPECT_EQ(write_value(path_, std::string()), 0);
    EXPECT_EQ(content_of(path_), "");
}

TEST_F(FileTest, WritesNumbersInDecimal) {
    EXPECT_EQ(write_value(path_, -2147483647 - 1), 0);
    EXPECT_EQ(content_of(path_), "-2147483648");
    EXPECT_EQ(write_value(path_, 0), 0);
    EXPECT_EQ(content_of(path_), "0");
}

TEST_F(FileTest, PathThatCannotBeOpenedForWritingIs3016) {
    EXPECT_EQ(write_value(dir_.path(), std::string("1")), -3016);
    EXPECT_EQ(write_value(dir_ / "no/such", 1), -3016);
    EXPECT_EQ(write_value("", 1), -3016);
}

TEST_F(FileTest, RefusedWriteIsNotReported) {
    EXPECT_EQ(write_value("/dev/full", std::string("1")), 0);
}

TEST_F(FileTest, ListsNamesAndSkipsThoseThatBeginWithADot) {
    put(dir_ / "a", "");
    put(dir_ / ".hidden", "");
    put(dir_ / "b.c", "");
    std::filesystem::create_directory(dir_ / "d");
    std::vector<std::string> names;
    EXPECT_EQ(list_dir(dir_.path(), names), 0);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"a", "b.c", "d"}));
}

TEST_F(FileTest, ListingAppendsToTheVector) {
    put(dir_ / "a", "");
    std::vector<std::string> names{"old"};
    EXPECT_EQ(list_dir(dir_.path(), names), 0);
    EXPECT_EQ(names, (std::vector<std::string>{"old", "a"}));
}

TEST_F(FileTest, ListingIsInTheOrderOfTheDirectory) {
    for (const char* name : {"m", "a", "z", "k", "b"}) put(dir_ / name, "");
    std::vector<std::string> expected;
    DIR* dir = ::opendir(dir_.path().c_str());
    while (const dirent* entry = ::readdir(dir))
        if (entry->d_name[0] != '.') expected.emplace_back(entry->d_name);
    ::closedir(dir);
    std::vector<std::string> names;
    EXPECT_EQ(list_dir(dir_.path(), names), 0);
    EXPECT_EQ(names, expected);
}

TEST_F(FileTest, WhatIsNoDirectoryIs3014) {
    put(path_, "");
    std::vector<std::string> names{"old"};
    EXPECT_EQ(list_dir(path_, names), -3014);
    EXPECT_EQ(list_dir(dir_ / "none", names), -3014);
    EXPECT_EQ(list_dir("", names), -3014);
    EXPECT_EQ(names, std::vector<std::string>{"old"});
}

TEST_F(FileTest, NoDescriptorIsLeftBehind) {
    put(path_, "1");
    const int before = open_descriptors();
    std::string value;
    std::vector<std::string> names;
    for (int i = 0; i < 10; ++i) {
        read_value(path_, value);
        read_value(dir_.path(), value);
        write_value(path_, i);
        write_value("/dev/full", i);
        list_dir(dir_.path(), names);
        list_dir(path_, names);
    }
    EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
