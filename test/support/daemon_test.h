// Fixture of the daemon's unit tests: a fresh platform, captured standard output, and at the end of each test the
// checks that every received message was dropped once and that no descriptor stayed open.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "daemon_process.h"
#include "recording_platform.h"

class daemon_test : public testing::Test
{
protected:
    daemon_test()
    {
        current_platform = &platform_;
        testing::internal::CaptureStdout();
        descriptors_before_ = open_descriptors();
    }
    ~daemon_test() override
    {
        if (!message_left_to_parent) {
            EXPECT_EQ(platform_.message_balance(), "");
        }
        EXPECT_EQ(open_descriptors(), descriptors_before_) << "descriptors";
        const std::string output = output_ + testing::internal::GetCapturedStdout();
        current_platform = nullptr;
        if (HasFailure())
            std::printf("%s", output.c_str());
    }

    // What was printed on standard output since the start of the test.
    std::string printed()
    {
        output_ += testing::internal::GetCapturedStdout();
        testing::internal::CaptureStdout();
        return output_;
    }

    bool message_left_to_parent = false; // the process under test is a forked child

private:
    recording_platform platform_;
    std::ptrdiff_t descriptors_before_;
    std::string output_;
};

// A request's payload: 112 bytes that are not to be read, then the body.
inline bytes request(const bytes &body)
{
    bytes payload(MTS_REQUEST_HEADER_BYTES, std::uint8_t{0xee});
    for (const std::uint8_t byte : body)
        payload.push_back(byte);
    return payload;
}

inline std::string line_of(std::string_view name, const std::string &message)
{
    return std::string(name) + "(" + message + ")";
}

inline std::string log_of(const std::string &message)
{
    return line_of("log", message);
}
