// SPDX-License-Identifier: MIT
// Each operation test is built twice: in a process without a Qt application
// (every call makes its own temporary one) and in a host with an application.
#pragma once

#include <QtTest>

#ifdef NORVA_TEST_HOST_APPLICATION
#define NORVA_TEST_MAIN(TestClass) QTEST_GUILESS_MAIN(TestClass)
#else
#define NORVA_TEST_MAIN(TestClass) QTEST_APPLESS_MAIN(TestClass)
#endif
