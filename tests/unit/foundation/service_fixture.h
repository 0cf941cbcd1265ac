// The log of the test's own and a scripted service-call library.
#pragma once

#include "fake_process.h"
#include "fake_vx.h"
#include "log_fixture.h"

class ServiceFixture : public LogFixture {
protected:
    ServiceFixture() { fake_vx::reset(); }
    ~ServiceFixture() override {
        // Whatever happened, no buffer was left behind.
        EXPECT_EQ(fake_vx::state().created, fake_vx::state().freed);
        fake_process::reset();
    }
    static fake_vx::State& vx() { return fake_vx::state(); }
    static const fake_vx::Call& call(std::size_t n = 0) { return vx().calls.at(n); }
};
