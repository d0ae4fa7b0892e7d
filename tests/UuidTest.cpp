#include <gtest/gtest.h>

#include <stdexcept>

#include "bt/Uuid.h"

using plenk::bt::Uuid;

TEST(UuidTest, ShortFormsEqualTheirBaseForms) {
    struct Case {
        const char* a;
        const char* b;
    };
    for (const Case& c : {Case{"180F", "0000180F-0000-1000-8000-00805F9B34FB"},
                          Case{"ef80", "0000EF80-0000-1000-8000-00805f9b34fb"}, Case{"0000FF08", "FF08"},
                          Case{"0001180F", "0001180F-0000-1000-8000-00805F9B34FB"}}) {
        EXPECT_EQ(Uuid::fromString(c.a), Uuid::fromString(c.b)) << c.a << " vs " << c.b;
    }
    EXPECT_NE(Uuid::fromString("180F"), Uuid::fromString("180A"));
}

TEST(UuidTest, PrintsAndGivesByteFormsByKind) {
    EXPECT_EQ(Uuid::fromString("0000180f-0000-1000-8000-00805f9b34fb").toString(), "180F");
    EXPECT_EQ(Uuid::fromString("0001180F").toString(), "0001180F");
    const auto dfu = Uuid::fromString("00001530-1212-efde-1523-785feabcd123");
    EXPECT_EQ(dfu.toString(), "00001530-1212-EFDE-1523-785FEABCD123");
    EXPECT_EQ(Uuid::fromString("FF08").fullString(), "0000ff08-0000-1000-8000-00805f9b34fb");  // BlueZ's form
    EXPECT_EQ(dfu.data().size(), 16u);
    EXPECT_EQ(Uuid::fromString("EF80").data(), (std::vector<std::uint8_t>{0xEF, 0x80}));
}

TEST(UuidTest, RejectsMalformedTextWithAClearError) {
    for (const char* bad :
         {"", "18F", "180G", "180F0", "0000180F_0000-1000-8000-00805F9B34FB",
          "0000180F-0000-1000-8000-00805F9B34F", "xxxx", "0000180F-0000-1000-8000-00805F9B34FBB"}) {
        EXPECT_FALSE(Uuid::parse(bad).has_value()) << bad;
        EXPECT_THROW((void)Uuid::fromString(bad), std::invalid_argument) << bad;
    }
}
