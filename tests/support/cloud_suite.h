// The cloud client's process-wide state for a test suite: libcurl's global
// set-up and the cipher's tables, made before the suite's first test and
// released after its last. A suite derives from cloud_suite<Fixture>; one
// with set-up of its own calls these first and last.
#pragma once

#include <gtest/gtest.h>

#include "base64.h"
#include "qmx_curl.h"

namespace zor_test {

template <class Base = ::testing::Test>
class cloud_suite : public Base {
protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(qmx_curl_init(), 0);
        crypto_init();
    }
    static void TearDownTestSuite() { qmx_curl_release(); }
};

}  // namespace zor_test
