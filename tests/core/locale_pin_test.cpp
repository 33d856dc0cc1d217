// One test in one process: the pin happens once per process, so the order
// of the steps below is the point of the test.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "quorvane.h"

namespace {
bool uses_comma() {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%.1f", 1.5);
    return std::strcmp(buf, "1,5") == 0;
}
}  // namespace

TEST(LocalePin, FirstContextPinsNumericLocaleOnce) {
    if (!std::setlocale(LC_NUMERIC, "de_DE.UTF-8")) {
        // CI installs the locale sources, so there a missing locale is a
        // broken set-up, not a reason to skip.
        ASSERT_EQ(std::getenv("QVN_REQUIRE_COMMA_LOCALE"), nullptr)
            << "no comma-decimal locale, and QVN_REQUIRE_COMMA_LOCALE is set";
        std::fprintf(stderr,
                     "SKIPPED: no comma-decimal locale could be generated "
                     "(localedef or the de_DE sources are missing)\n");
        std::exit(77);
    }
    ASSERT_TRUE(uses_comma());

    // Identity calls do not touch the locale.
    EXPECT_STREQ(qvn_edition(), "Ambrel");
    EXPECT_STREQ(qvn_version(), "2.0.0");
    EXPECT_TRUE(uses_comma());

    qvn_context *ctx = qvn_new_minimal();
    ASSERT_NE(ctx, nullptr);
    EXPECT_FALSE(uses_comma());
    EXPECT_STREQ(std::setlocale(LC_NUMERIC, nullptr), "C");
    EXPECT_EQ(std::strtod("2.25", nullptr), 2.25);
    qvn_free(ctx);

    // A host that switches back later is not overridden again.
    ASSERT_TRUE(std::setlocale(LC_NUMERIC, "de_DE.UTF-8"));
    ctx = qvn_new_ostrany(nullptr, nullptr);
    ASSERT_NE(ctx, nullptr);
    EXPECT_TRUE(uses_comma());
    qvn_free(ctx);
    std::setlocale(LC_NUMERIC, "C");
}
