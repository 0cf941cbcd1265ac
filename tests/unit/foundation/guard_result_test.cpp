// The boundary of the library, the catalogue of its codes, and the bounded texts.
#include <netlink/errno.h>
#include <pthread.h>

#include <fstream>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "cancellation.h"
#include "foundation/fd.h"
#include "foundation/guard.h"
#include "foundation/result.h"
#include "foundation/text.h"

namespace {

using namespace corvo;

TEST(Guard, ExceptionsBecomeCodes) {
    EXPECT_EQ(guarded([]() -> int { throw -3005; }), -3005);
    EXPECT_EQ(guarded([]() -> int { throw std::bad_alloc(); }), -3010);
    EXPECT_EQ(guarded([]() -> int { throw std::system_error(EAGAIN, std::generic_category()); }), -3010);
    EXPECT_EQ(guarded([]() -> int { throw std::out_of_range("x"); }), -3001);
    EXPECT_EQ(guarded([]() -> int { throw "text"; }), -3001);
    EXPECT_EQ(guarded([] { return 5; }), 5);
}

TEST(Guard, FallbackStandsForEveryException) {
    EXPECT_EQ(guarded_or(std::string("f"), []() -> std::string { throw 1; }), "f");
    EXPECT_NO_THROW(guarded_void([] { throw 1; }));
}

TEST(Guard, CancellationOfADaemonThreadPassesThrough) {
    NEEDS_CANCELLATION();
    void* result = nullptr;
    pthread_t thread{};
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void*) -> void* {
                      guarded([]() -> int {
                          pthread_cancel(pthread_self());
                          pthread_testcancel();
                          return 0;
                      });
                      return nullptr;
                  },
                  nullptr),
              0);
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

TEST(Descriptor, CancellationDoesNotActWhileItsOwnerClosesIt) {
    NEEDS_CANCELLATION();
    static bool closed = false;
    void* result = nullptr;
    pthread_t thread{};
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void*) -> void* {
                      pthread_cancel(pthread_self());
                      UniqueFd(::dup(0));
                      closed = true;
                      pthread_testcancel();
                      return nullptr;
                  },
                  nullptr),
              0);
    pthread_join(thread, &result);
    EXPECT_TRUE(closed);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

TEST(Catalogue, EveryEntryIsCompleteAndOnceOnly) {
    std::set<std::pair<ResultSource, int>> codes;
    std::set<std::string> names;
    for (const auto& info : result_catalogue()) {
        EXPECT_TRUE(codes.insert({info.source, info.code}).second) << info.code;
        EXPECT_TRUE(names.insert(info.name).second) << info.name;
        for (const char* text : {info.meaning, info.cause, info.remedy}) {
            ASSERT_NE(text, nullptr);
            EXPECT_GT(std::string(text).size(), 10U) << info.code;
            EXPECT_EQ(std::string(text).back(), '.') << info.code;
        }
    }
}

TEST(Catalogue, HoldsEveryCodeOfTheLibrary) {
    for (const int code :
         {0,     -3001, -3002, -3003, -3004, -3005, -3006, -3007, -3008, -3009, -3010, -3011, -3012,
          -3013, -3014, -3015, -3016, -3019, -3020, -3022, -3023, -3024, -3026, -3031, -3032}) {
        const auto* info = find_result(code);
        ASSERT_NE(info, nullptr) << code;
        EXPECT_EQ(info->source, ResultSource::kLibrary);
    }
    EXPECT_EQ(find_result(-3017), nullptr);
    EXPECT_EQ(find_result(1), nullptr);
}

TEST(Catalogue, HoldsEveryCodeOfLibnl) {
    for (int code = 1; code <= NLE_MAX; ++code)
        EXPECT_NE(find_result(-code, ResultSource::kNetlink), nullptr) << code;
}

TEST(Catalogue, HoldsTheCodesOfTheHubExchange) {
    for (const int code : {-1, -3, -4, -5, -7, -9, -5017})
        EXPECT_NE(find_result(code, ResultSource::kHub), nullptr) << code;
    EXPECT_EQ(find_result(-5017)->source, ResultSource::kHub);
    EXPECT_EQ(find_result(-3)->source, ResultSource::kNetlink);
}

TEST(Catalogue, NamesTheMissingTuningServiceAsACauseOfAHalfMadeTunnel) {
    for (const int code : {-3019, -3023}) {
        const std::string text =
            std::string(find_result(code)->meaning) + find_result(code)->cause + find_result(code)->remedy;
        EXPECT_NE(text.find("CPU-tune"), std::string::npos) << code;
    }
}

TEST(Catalogue, EveryEnumeratorHasItsEntry) {
    EXPECT_STREQ(find_result(kFailed)->name, "Failed");
    EXPECT_STREQ(find_result(kEmptyTarget)->name, "EmptyTarget");
    EXPECT_STREQ(find_result(kOk)->name, "Ok");
    EXPECT_STREQ(find_result(kNoCallBuffer)->name, "NoCallBuffer");
}

TEST(Text, CopiesAreBoundedAndTerminated) {
    char to[4] = {'x', 'x', 'x', 'x'};
    EXPECT_TRUE(copy_text(to, "ab"));
    EXPECT_STREQ(to, "ab");
    EXPECT_FALSE(copy_text(to, "abcd"));
    EXPECT_STREQ(to, "abc");
    char full[3] = {'a', 'b', 'c'};
    EXPECT_EQ(array_text(full), "abc");
}

}  // namespace
