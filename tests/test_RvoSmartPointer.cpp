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

TEST(RvoSmartPointer, CopiesAndMovesKeepTheCountTheLastReleaseDeletesAndHashIsOfThePointer)
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
    a = b; // both already hold it
    EXPECT_EQ(first->refs(), 2);
    // The hash is of the pointer value.
    const quint64 p = quint64(quintptr(first));
    EXPECT_EQ(quint32(qHash(b)), quint32((p >> 31) ^ p));
    EXPECT_EQ(qHash(Ptr()), RvoQHashType(0));

    Ptr c(new Counted(&secondDead));
    Counted *second = c.data();
    a = c;
    EXPECT_FALSE(firstDead);
    b = c;
    EXPECT_TRUE(firstDead);
    EXPECT_EQ(second->refs(), 3);
    EXPECT_TRUE(a == second);

    // Moves hand the count over; adopt takes one the caller raised.
    Ptr moved(std::move(a));
    EXPECT_TRUE(a.isNull());
    Ptr target;
    target = std::move(moved);
    EXPECT_TRUE(moved.isNull());
    EXPECT_EQ(second->refs(), 3);
    second->raise();
    Ptr adopted = Ptr::adopt(second);
    EXPECT_EQ(second->refs(), 4);
    b.reset();
    c.reset();
    target.reset();
    EXPECT_FALSE(secondDead);
    adopted.reset();
    EXPECT_TRUE(secondDead && adopted.isNull());

    // Null pointers touch nothing.
    Ptr null;
    Ptr copy(null);
    Ptr assigned;
    assigned = null;
    EXPECT_TRUE(copy.isNull() && assigned.isNull() && copy == assigned);
}
