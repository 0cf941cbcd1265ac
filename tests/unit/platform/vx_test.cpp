// The six operations on a buffer, and calls of a service that behaves.

#include <cerrno>

#include "fixture.h"
#include "wire.h"

namespace {

using namespace platform_test;

class Vx : public RuntimeDir {};

TEST_F(Vx, CallSendsTheTextAndStoresTheReply) {
    vx::ServerThread server(serve_echo);
    const CallResult got = call("echo", "echo", "{\"path\": \"/x\"}");
    EXPECT_EQ(got.result, 0);
    EXPECT_EQ(got.reply, "{\"path\": \"/x\"}");
}

TEST_F(Vx, CallWithoutATextSendsAnEmptyRequest) {
    std::string seen = "unset";
    vx::ServerThread server([&](vx::Server& s) {
        s.handle("vesta", "get_devid", [&](const vx::Call& request) {
            seen = request.payload;
            return vx::Reply::text("{\"error\":0,\"data\":7}");
        });
    });
    EXPECT_EQ(call("vesta", "get_devid").reply, "{\"error\":0,\"data\":7}");
    server.stop();
    EXPECT_EQ(seen, "");
}

TEST_F(Vx, EmptyReplyHasLengthZero) {
    vx::ServerThread server(serve_echo);
    const CallResult got = call("echo", "echo", "");
    EXPECT_EQ(got.result, 0);
    EXPECT_EQ(got.reply, "");
}

TEST_F(Vx, ReplyIsTerminatedAndMayHoldAnyByte) {
    const std::string bytes("a\0b\xff%n\n", 7);
    vx::ServerThread server(
        [&](vx::Server& s) { s.handle("x", "x", [&](const vx::Call&) { return vx::Reply::text(bytes); }); });
    void* io = vx_io_create();
    ASSERT_EQ(vx_call("x", "x", io, 5, -1), 0);
    std::uint64_t length = 0;
    const char* reply = vx_io_read(io, &length);
    ASSERT_EQ(length, bytes.size());
    EXPECT_EQ(std::string(reply, length), bytes);
    EXPECT_EQ(reply[length], '\0');
    vx_io_free(io);
}

TEST_F(Vx, LengthIsWrittenAsAnIntIntoAZeroedWiderInteger) {
    vx::ServerThread server(serve_echo);
    void* io = vx_io_create();
    vx_io_printf(io, "abc");
    ASSERT_EQ(vx_call("echo", "echo", io, 5, -1), 0);
    int narrow[2] = {-1, -1};
    vx_io_read(io, narrow);
    EXPECT_EQ(narrow[0], 3);
    EXPECT_EQ(narrow[1], -1) << "only four bytes may be written";
    std::uint64_t wide = 0;
    vx_io_read(io, &wide);
    EXPECT_EQ(wide, 3U);
    EXPECT_STREQ(vx_io_read(io, nullptr), "abc");
    vx_io_free(io);
}

TEST_F(Vx, NothingIsReadBeforeACallAndAfterAFailedOne) {
    void* io = vx_io_create();
    vx_io_printf(io, "request");
    std::uint64_t length = 99;
    EXPECT_EQ(vx_io_read(io, &length), nullptr);
    EXPECT_EQ(length & 0xffffffffU, 0U);
    EXPECT_NE(vx_call("absent", "x", io, 1, -1), 0);
    length = 0;
    EXPECT_EQ(vx_io_read(io, &length), nullptr);
    EXPECT_EQ(length, 0U);
    vx_io_free(io);
}

TEST_F(Vx, PrintfReplacesWhatTheBufferHolds) {
    vx::ServerThread server(serve_echo);
    void* io = vx_io_create();
    vx_io_printf(io, "first, and longer");
    vx_io_printf(io, "{\"id\":%d,\"name\":\"%s\"}", 7, "x");
    ASSERT_EQ(vx_call("echo", "echo", io, 5, -1), 0);
    EXPECT_STREQ(vx_io_read(io, nullptr), "{\"id\":7,\"name\":\"x\"}");
    vx_io_free(io);
}

TEST_F(Vx, PrintfTakesTextsAroundItsShortBuffer) {
    vx::ServerThread server(serve_echo);
    for (const std::size_t size : {511U, 512U, 513U, 4096U, 100000U}) {
        const std::string text(size, 'y');
        EXPECT_EQ(call("echo", "echo", text).reply, text) << size;
    }
}

TEST_F(Vx, ReallocToZeroEmptiesTheBufferForASecondCall) {
    vx::ServerThread server(serve_echo);
    void* io = vx_io_create();
    vx_io_printf(io, "first");
    ASSERT_EQ(vx_call("echo", "echo", io, 5, -1), 0);
    EXPECT_EQ(vx_io_realloc(io, 0), io);
    EXPECT_EQ(vx_io_read(io, nullptr), nullptr);
    ASSERT_EQ(vx_call("echo", "echo", io, 5, -1), 0);
    EXPECT_STREQ(vx_io_read(io, nullptr), "") << "the second request was empty";
    vx_io_free(io);
}

TEST_F(Vx, WithoutReallocTheReplyIsTheNextRequest) {
    // One buffer holds one text: forgetting to empty it shows up at the service.
    vx::ServerThread server(serve_echo);
    void* io = vx_io_create();
    vx_io_printf(io, "kept");
    ASSERT_EQ(vx_call("echo", "echo", io, 5, -1), 0);
    ASSERT_EQ(vx_call("echo", "echo", io, 5, -1), 0);
    EXPECT_STREQ(vx_io_read(io, nullptr), "kept");
    vx_io_free(io);
}

TEST_F(Vx, ReallocRefusesNegativeAndTooLargeSizes) {
    void* io = vx_io_create();
    EXPECT_EQ(vx_io_realloc(io, -1), nullptr);
    EXPECT_EQ(vx_io_realloc(io, static_cast<int>(vx::wire::kMaxPayload) + 1), nullptr);
    EXPECT_EQ(vx_io_realloc(io, 4096), io);
    vx_io_free(io);
}

TEST_F(Vx, NullArgumentsAreRefused) {
    void* io = vx_io_create();
    EXPECT_EQ(vx_call(nullptr, "m", io, 5, -1), -EINVAL);
    EXPECT_EQ(vx_call("s", nullptr, io, 5, -1), -EINVAL);
    EXPECT_EQ(vx_call("s", "m", nullptr, 5, -1), -EINVAL);
    EXPECT_EQ(vx_io_printf(nullptr, "x"), -EINVAL);
    EXPECT_EQ(vx_io_realloc(nullptr, 0), nullptr);
    EXPECT_EQ(vx_io_read(nullptr, nullptr), nullptr);
    vx_io_free(io);
    vx_io_free(nullptr);
}

TEST_F(Vx, ALimitBelowOneSecondIsRefused) {
    EXPECT_EQ(call("echo", "echo", "x", 0).result, -EINVAL);
    EXPECT_EQ(call("echo", "echo", "x", -1).result, -EINVAL);
}

TEST_F(Vx, ServiceNamesCannotLeaveTheRuntimeDirectory) {
    for (const char* name : {"", "/etc/x", "../x", "a/b", ".", "..", "a b"}) {
        EXPECT_EQ(call(name, "m").result, -EINVAL) << name;
        EXPECT_EQ(call("s", name).result, -EINVAL) << name;
    }
}

}  // namespace
