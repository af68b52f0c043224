// What a call prints on standard output.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace zel::test {

template <class Call>
std::string printedBy(Call call) {
    testing::internal::CaptureStdout();
    call();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

}  // namespace zel::test
