#include "RvoHashHandle.h"

#include <gtest/gtest.h>

TEST(RvoHashHandle, HandlesCompareAndHashTheDigestsTheyPointAt)
{
    RvoDataHash a(QByteArray("content"), RvoDataHash::Skein512);
    RvoDataHash b(QByteArray("content"), RvoDataHash::Skein512);
    RvoDataHash c(QByteArray("other"), RvoDataHash::Skein512);

    EXPECT_TRUE(RvoHashHandle() == RvoHashHandle());
    EXPECT_TRUE(RvoHashHandle() != RvoHashHandle(&a) && RvoHashHandle(&a) != RvoHashHandle());
    EXPECT_TRUE(RvoHashHandle(&a) == RvoHashHandle(&b)) << "by value, not by address";
    EXPECT_TRUE(RvoHashHandle(&a) != RvoHashHandle(&c));
    EXPECT_EQ(qHash(RvoHashHandle(&a), 99), qHash(RvoHashHandle(&b), 99));
    EXPECT_EQ(qHash(RvoHashHandle()), RvoQHashType(0)) << "a null handle points at nothing";
}
