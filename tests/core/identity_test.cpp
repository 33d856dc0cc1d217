#include <gtest/gtest.h>

#include <cstring>

#include "quorvane.h"

TEST(Identity, StringsAreFixed) {
    EXPECT_STREQ(qvn_edition(), "Ambrel");
    EXPECT_STREQ(qvn_storage(), "Ostrany");
    EXPECT_STREQ(qvn_version(), "2.0.0");
    EXPECT_STREQ(qvn_abi_version(), qvn_version());
}
