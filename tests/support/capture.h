// What a call made in this process prints.
#pragma once
#include "support/proc.h"

#include <gtest/gtest.h>

// Runs f() with standard output and standard error captured; status is
// f()'s result.
template <class F> run_result captured(F f)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    run_result r;
    r.status = f();
    r.out = testing::internal::GetCapturedStdout();
    r.err = testing::internal::GetCapturedStderr();
    return r;
}
