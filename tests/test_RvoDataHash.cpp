#include "ManagerTestAccess.h"

namespace {

const QString kEmptyText
        = "975632339-1283425033-1894762725-2902449573-3268842107-581035436-1499184485-4288897074-"
          "3031750688-2488158661-2058569812-650452923-2304816374-2480836384-1914929037-3084864332";

} // namespace

TEST(RvoDataHash, BufferThatCannotBeHashesAsTheEmptyMessage)
{
    DebugCapture debug;
    RvoDataHash(nullptr, 0, RvoDataHash::Skein512); // no bytes at no address: the empty message
    const unsigned char *abc = reinterpret_cast<const unsigned char *>("abc");
    EXPECT_EQ(RvoDataHash(abc, -5, RvoDataHash::Skein512).toString(), kEmptyText);
    EXPECT_EQ(RvoDataHash(nullptr, 100, RvoDataHash::Skein512).toString(), kEmptyText);
    EXPECT_EQ(debug.messages(),
              (QStringList {QString::asprintf("Hashing -5 bytes at %p refused: no such buffer",
                                              static_cast<const void *>(abc)),
                            QString::asprintf("Hashing 100 bytes at %p refused: no such buffer",
                                              nullptr)}));
}

// Malformed text, an empty digest and a zero size: each is said.
TEST(RvoDataHash, InvalidDigestsAreReported)
{
    DebugCapture debug;
    StdoutCapture out;
    RvoDataHash hash(QByteArray("x"), RvoDataHash::Skein512);
    hash.fromString("1-2-3");
    EXPECT_TRUE(hash.isEmpty());
    EXPECT_EQ(hash.size(), RvoDataHash::Skein512) << "the size stays as it was";
    hash.fromString("---"); // no words at all: silent
    EXPECT_TRUE(hash.isEmpty());
    // Words that are not 32-bit decimal numbers read as zero.
    hash.fromString("x-4294967295-4294967296-3-4-5-6-7");
    ASSERT_EQ(hash.byteCount(), 32);
    EXPECT_EQ(hash.toString(), "0-4294967295-0-3-4-5-6-7");

    const RvoDataHash empty;
    EXPECT_EQ(empty.size(), RvoDataHash::Skein256);
    EXPECT_TRUE(empty.toString().isEmpty());
    const RvoDataHash zero(QByteArray("abc"), RvoDataHash::Size(0));
    EXPECT_TRUE(zero.isEmpty());
    zero.toString();
    EXPECT_EQ(out.lines(),
              QStringList({"Size of data is incorrect is 0, should be 32", "Hash Size is Zero",
                           "m_Size is Zero or less"}));
    EXPECT_EQ(debug.messages(),
              QStringList({"Unknown Hash Bit Size 12", "Result Length 0  Size 32",
                           "Result Length 0  Size 0"}));
}

// The user id, the don't-cache and preloading flags are no part of it.
TEST(RvoDataHash, EqualityIsBySizeAndBytes)
{
    const QByteArray data = testContent(1, 64);
    RvoDataHash a(data, RvoDataHash::Skein512);
    RvoDataHash b(data, RvoDataHash::Skein512);
    b.setUserId(17);
    b.setDontCache(true);
    b.setPreloading(true);
    EXPECT_TRUE(a == b);
    EXPECT_EQ(a.qhash(), b.qhash());
    // The same leading bytes at another size.
    EXPECT_TRUE(RvoDataHash(RvoDataHash::Skein256, a.data()) != a
                && RvoDataHash(testContent(2, 64), RvoDataHash::Skein512) != a);
}

// A copy takes the digest and the user id, and neither the flags nor the
// count; assignment keeps the flags it had.
TEST(RvoDataHash, CopiesTakeTheUserIdButNoFlags)
{
    const RvoSmartPointer<RvoDataHash> source(
            new RvoDataHash(testContent(1, 10), RvoDataHash::Skein1024));
    source->setUserId(5);
    source->setDontCache(true);
    source->setPreloading(true);
    const RvoDataHash copy(*source);
    EXPECT_TRUE(copy == *source);
    EXPECT_EQ(copy.userId(), 5);
    EXPECT_FALSE(copy.isDontCache() || copy.isPreloading());
    EXPECT_EQ(copy.refCount(), 0);

    RvoDataHash assigned(testContent(3, 3), RvoDataHash::Skein256);
    assigned.setDontCache(true);
    assigned = *source;
    EXPECT_EQ(assigned.userId(), 5);
    EXPECT_TRUE(assigned.isDontCache());
}

// Bookkeeping per block is budgeted: the digest object must stay small.
// Releasing a count nobody took is reported and deletes nothing.
TEST(RvoDataHash, LiveObjectsAreCountedAndStaySmall)
{
    EXPECT_LE(sizeof(RvoDataHash), 128u);
    const int before = RvoDataHash::hashCount();
    {
        RvoDataHash empty;
        RvoDataHash parsed {kEmptyText};
        RvoDataHash copied(parsed);
        EXPECT_EQ(RvoDataHash::hashCount(), before + 3);
    }
    EXPECT_EQ(RvoDataHash::hashCount(), before);

    auto *hash = new RvoDataHash(testContent(5, 5), RvoDataHash::Skein512);
    StdoutCapture out;
    RvoSmartPointer<RvoDataHash>::adopt(hash).reset();
    EXPECT_EQ(out.lines(), QStringList {"No Positive Ref Count in Dec Ref"});
    EXPECT_EQ(RvoDataHash::hashCount(), before + 1);
    EXPECT_EQ(hash->refCount(), 0);
    delete hash;
}
