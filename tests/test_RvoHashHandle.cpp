#include "RvoHashHandle.h"

#include <QSet>

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
    EXPECT_EQ(RvoHashHandle(&b).data(), &b);

    EXPECT_EQ(qHash(RvoHashHandle(&a)), a.qhash());
    EXPECT_EQ(qHash(RvoHashHandle(&a), 99), qHash(RvoHashHandle(&b), 99));
    EXPECT_EQ(qHash(RvoHashHandle()), RvoQHashType(0));

    const QSet<RvoHashHandle> set {RvoHashHandle(&a), RvoHashHandle(&b)};
    EXPECT_EQ(set.size(), 1);
    EXPECT_EQ(set.constBegin()->data(), &a) << "the first inserted stays";
}
