// What a call prints, byte for byte.
#pragma once

#include <gtest/gtest.h>

#include <string>

// On standard output.
template <typename Call> std::string printed_by(Call call)
{
    testing::internal::CaptureStdout();
    call();
    return testing::internal::GetCapturedStdout();
}

// On standard error.
template <typename Call> std::string complained_by(Call call)
{
    testing::internal::CaptureStderr();
    call();
    return testing::internal::GetCapturedStderr();
}
