// Alone in its process: the pin happens once per process, so step order matters.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "quorvane.h"

static bool uses_comma() {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%.1f", 1.5);
    return std::strcmp(buf, "1,5") == 0;
}

TEST(LocalePin, FirstContextPinsNumericLocaleOnce) {
    if (!std::setlocale(LC_NUMERIC, "de_DE.UTF-8")) {
        // CI installs the locale sources; there a missing locale is a broken set-up.
        ASSERT_EQ(std::getenv("QVN_REQUIRE_COMMA_LOCALE"), nullptr) << "no comma-decimal locale";
        std::fprintf(stderr, "SKIPPED: no comma-decimal locale could be generated\n");
        std::exit(77);
    }
    ASSERT_TRUE(uses_comma());
    EXPECT_STREQ(qvn_edition(), "Ambrel");  // identity calls do not pin
    EXPECT_TRUE(uses_comma());
    qvn_context *ctx = qvn_new_minimal();
    ASSERT_NE(ctx, nullptr);
    EXPECT_FALSE(uses_comma());
    EXPECT_STREQ(std::setlocale(LC_NUMERIC, nullptr), "C");
    qvn_free(ctx);
    // A host that switches back later is not overridden again.
    ASSERT_TRUE(std::setlocale(LC_NUMERIC, "de_DE.UTF-8"));
    ctx = qvn_new_ostrany(nullptr, nullptr);
    EXPECT_TRUE(uses_comma());
    qvn_free(ctx);
    std::setlocale(LC_NUMERIC, "C");
}
