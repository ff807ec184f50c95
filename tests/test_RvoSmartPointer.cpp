#include "RvoSmartPointer.h"

#include <gtest/gtest.h>

namespace {

// Counts its references and records its own death.
class Counted
{
public:
    explicit Counted(bool *dead)
        : m_Dead(dead)
    {
    }
    int refs() const { return m_Refs; }
    void raise() { ++m_Refs; }

private:
    friend class RvoSmartPointer<Counted>;
    void incRef() { ++m_Refs; }
    void decRef()
    {
        if (--m_Refs == 0) {
            *m_Dead = true;
            delete this;
        }
    }
    int m_Refs = 0;
    bool *m_Dead;
};

using Ptr = RvoSmartPointer<Counted>;

} // namespace

// Self-assignment and assignment of what is held already change nothing.
TEST(RvoSmartPointer, CopiesShareOneCountAndTheLastReleaseDeletes)
{
    bool firstDead = false, secondDead = false;
    Ptr a(new Counted(&firstDead));
    Counted *first = a.data();
    {
        Ptr copy(a);
        EXPECT_EQ(first->refs(), 2);
        EXPECT_TRUE(copy == a);
    }
    EXPECT_EQ(first->refs(), 1);
    a = a;
    Ptr b(a);
    a = b;
    EXPECT_EQ(first->refs(), 2);

    Ptr c(new Counted(&secondDead));
    a = c;
    EXPECT_FALSE(firstDead);
    b = c;
    EXPECT_TRUE(firstDead);
    EXPECT_EQ(c.data()->refs(), 3);
    EXPECT_TRUE(a == c.data());
}

// Moves hand the count over; adopt takes one the caller raised.
TEST(RvoSmartPointer, MovesAndAdoptionTakeNoCount)
{
    bool dead = false;
    Counted *counted = new Counted(&dead);
    Ptr a(counted);
    Ptr moved(std::move(a));
    EXPECT_TRUE(a.isNull());
    Ptr target;
    target = std::move(moved);
    EXPECT_TRUE(moved.isNull());
    EXPECT_EQ(counted->refs(), 1);
    counted->raise();
    Ptr adopted = Ptr::adopt(counted);
    EXPECT_EQ(counted->refs(), 2);
    target.reset();
    EXPECT_FALSE(dead);
    adopted.reset();
    EXPECT_TRUE(dead && adopted.isNull());
}
