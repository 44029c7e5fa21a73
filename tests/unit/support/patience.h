#pragma once

#include <QtTest>

/// How long a test waits for what has to happen. Only one that fails waits so long, so it is generous: a busy
/// machine and sanitizers are slow. (ms)
constexpr int patienceMs = 30000;

// Qt's own limit of five seconds is too short for that. Every test has these, by the precompiled header.
#undef QTRY_VERIFY
#define QTRY_VERIFY(expr) QTRY_VERIFY_WITH_TIMEOUT((expr), patienceMs)
#undef QTRY_VERIFY2
#define QTRY_VERIFY2(expr, messageExpression)                                                                \
    QTRY_VERIFY2_WITH_TIMEOUT((expr), (messageExpression), patienceMs)
#undef QTRY_COMPARE
#define QTRY_COMPARE(expr, expected) QTRY_COMPARE_WITH_TIMEOUT((expr), expected, patienceMs)
