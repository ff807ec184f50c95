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

TEST(RvoSmartPointer, CopiesCountAndDestroyedCopiesReleaseButNullsTouchNothing)
{
    bool dead = false;
    Ptr first(new Counted(&dead));
    EXPECT_EQ(first->refs(), 1);
    {
        Ptr copy(first);
        EXPECT_EQ(first->refs(), 2);
        EXPECT_TRUE(copy == first);
    }
    EXPECT_EQ(first->refs(), 1);
    first.reset();
    EXPECT_TRUE(dead);
    EXPECT_TRUE(first.isNull());

    Ptr null;
    Ptr copy(null);
    Ptr assigned;
    assigned = null;
    EXPECT_TRUE(copy.isNull());
    EXPECT_TRUE(assigned.isNull());
    EXPECT_TRUE(copy == assigned);
}

TEST(RvoSmartPointer, AssignmentReleasesTheOldObjectButNeverTheSameOne)
{
    bool firstDead = false;
    bool secondDead = false;
    Ptr a(new Counted(&firstDead));
    Counted *object = a.data();
    a = a;
    Ptr b(a);
    a = b; // both already hold it
    EXPECT_FALSE(firstDead);
    EXPECT_EQ(object->refs(), 2);

    Ptr c(new Counted(&secondDead));
    a = c;
    b = c;
    EXPECT_TRUE(firstDead);
    EXPECT_FALSE(secondDead);
    EXPECT_EQ(c->refs(), 3);
    EXPECT_TRUE(a == c.data());
}

TEST(RvoSmartPointer, MovesTransferTheCountAndAdoptTakesOneAlreadyRaised)
{
    bool dead = false;
    Ptr a(new Counted(&dead));
    Counted *object = a.data();
    Ptr moved(std::move(a));
    EXPECT_TRUE(a.isNull());
    Ptr target;
    target = std::move(moved);
    EXPECT_TRUE(moved.isNull());
    EXPECT_EQ(object->refs(), 1);

    object->raise();
    Ptr adopted = Ptr::adopt(object);
    EXPECT_EQ(object->refs(), 2);
    target.reset();
    EXPECT_FALSE(dead);
    adopted.reset();
    EXPECT_TRUE(dead);
}

TEST(RvoSmartPointer, HashIsOfThePointerValue)
{
    bool dead = false;
    Ptr a(new Counted(&dead));
    Ptr b(a);
    EXPECT_EQ(qHash(a), qHash(b));
    const quint64 p = quint64(quintptr(a.data()));
    EXPECT_EQ(quint32(qHash(a)), quint32((p >> 31) ^ p));
    EXPECT_EQ(qHash(Ptr()), RvoQHashType(0));
}
