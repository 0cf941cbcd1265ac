#include "support/leak_check.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <thread>

#include "foundation/worker.h"
#include "support/files.h"
#include "support/wait.h"

namespace corvo::test {

namespace {

namespace fs = std::filesystem;

std::vector<std::string> open_descriptors() {
    std::vector<std::string> all;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        std::string target = fs::read_symlink(entry.path(), error).string();
        if (error) continue;
        if (target.starts_with("/proc/") && target.ends_with("/fd")) continue;  // the one that lists them
        all.push_back(target.substr(0, target.find(":[")));
    }
    std::sort(all.begin(), all.end());
    return all;
}

int entries(const char* folder) {
    return static_cast<int>(std::distance(fs::directory_iterator(folder), fs::directory_iterator{}));
}

int living_children() {
    int count = 0;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        try {
            const std::string stat = read_file(entry.path().string() + "/stat");
            // "PID (name) state parent": the name may hold anything, blanks and brackets too.
            const auto end = stat.rfind(')');
            if (end != std::string::npos && std::atoi(stat.c_str() + end + 4) == ::getpid()) ++count;
        } catch (const std::exception&) {  // it has ended meanwhile
        }
    }
    return count;
}

std::string list_new(const Held& before, const Held& after) {
    std::vector<std::string> added;
    std::set_difference(after.descriptors.begin(), after.descriptors.end(), before.descriptors.begin(),
                        before.descriptors.end(), std::back_inserter(added));
    std::string text;
    for (const auto& name : added) text += " " + name;
    return text;
}

}  // namespace

Held Held::now() {
    // The library keeps one descriptor from its first use on: the stop signal of threads that nobody stops.
    Worker::current_stop();
    // ThreadSanitizer's own thread starts with the first one.
    static const bool warm = (std::thread([] {}).join(), true);
    (void)warm;
    return {open_descriptors(), entries("/proc/self/task"), living_children()};
}

LeakCheck::~LeakCheck() {
    Held after;
    wait_until(
        [&] {
            after = Held::now();
            return after.descriptors.size() <= before_.descriptors.size() &&
                   after.threads <= before_.threads && after.children <= before_.children;
        },
        std::chrono::seconds(1));
    EXPECT_LE(after.descriptors.size(), before_.descriptors.size())
        << "left open:" << list_new(before_, after);
    EXPECT_LE(after.threads, before_.threads) << "threads left behind";
    EXPECT_LE(after.children, before_.children) << "children left behind";
}

}  // namespace corvo::test
