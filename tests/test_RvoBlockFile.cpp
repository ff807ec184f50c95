#include "ManagerTestAccess.h"
#include "RvoBlockCodec_p.h"
#include "RvoBlockFile_p.h"
#include "RvoSubCacheLock_p.h"

// A damaged file yields no bytes.
TEST(RvoBlockFile, EveryKindOfDamageIsNamed)
{
    const QByteArray block = testContent(1, 40000);
    const QByteArray sound = blockFile(block);
    const QString name = RvoBlockFile::digestText(block.constData(), block.size());
    const struct
    {
        const char *what;
        QByteArray file;
        QString name;
        RvoBlockFile::Fault fault;
    } cases[] = {
            {"sound", sound, name, RvoBlockFile::Sound},
            {"header cut", sound.left(11), name, RvoBlockFile::Short},
            {"payload cut", sound.left(sound.size() - 1), name, RvoBlockFile::Lengths},
            {"byte appended", sound + 'x', name, RvoBlockFile::Lengths},
            {"negative size", patched(sound, 0, qint64(-1)), name, RvoBlockFile::Lengths},
            {"2 GiB payload claimed", patched(sound, 8, qint32(0x7FFFFFFF)), name,
             RvoBlockFile::Lengths},
            {"payload too short for its length", patched(sound, 8, qint32(3)), name,
             RvoBlockFile::Lengths},
            {"size disagrees with payload", patched(sound, 0, qint64(block.size() + 1)), name,
             RvoBlockFile::Payload},
            {"stream damaged", flipped(sound, int(sound.size() / 2)), name, RvoBlockFile::Payload},
            {"other name", sound, RvoBlockFile::digestText("x", 1), RvoBlockFile::Digest},
    };
    RvoBlockCodec codec;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        QByteArray out("stale");
        EXPECT_EQ(RvoBlockFile::verify(codec, c.file.constData(), c.file.size(), c.name, &out),
                  c.fault);
        EXPECT_EQ(out, c.fault == RvoBlockFile::Sound ? block : QByteArray());
    }
}

// A sound file gives its header; one that cannot be read is said so.
TEST(RvoBlockFile, FileGivesItsHeaderOrWhyItCannotBeRead)
{
    const QByteArray block = testContent(1, 40000);
    const QByteArray sound = blockFile(block);
    RvoBlockCodec codec;
    QTemporaryDir dir;
    const QString path = dir.filePath(RvoBlockFile::digestText(block.constData(), block.size()));
    ASSERT_TRUE(writeFile(path, sound));
    RvoBlockFile::Header header;
    EXPECT_EQ(RvoBlockFile::verifyFile(codec, path, nullptr, &header), RvoBlockFile::Sound);
    EXPECT_EQ(header.size, block.size());
    EXPECT_EQ(header.payloadLength + RvoBlockFile::kHeaderSize, sound.size());
    QString error;
    EXPECT_EQ(RvoBlockFile::verifyFile(codec, path + QStringLiteral("x"), nullptr, nullptr, &error),
              RvoBlockFile::Unreadable);
    EXPECT_FALSE(error.isEmpty());
}

TEST(RvoSubCacheLock, ExclusiveOnlyWithoutOtherHolders)
{
    QTemporaryDir dir;
    const QString subCache = dir.filePath(QStringLiteral("sub"));
    EXPECT_FALSE(RvoSubCacheLock::isHeld(subCache)); // no lock file yet

    RvoSubCacheLock first;
    RvoSubCacheLock second;
    ASSERT_TRUE(first.lockShared(subCache));
    EXPECT_TRUE(QFile::exists(subCache + QStringLiteral("/.rvoddi-lock"))
                && RvoSubCacheLock::isHeld(subCache));
    ASSERT_TRUE(second.lockShared(subCache));
    EXPECT_FALSE(first.tryUpgrade());
    EXPECT_TRUE(first.isLocked());
    // The failed upgrade left `first` shared: `second` still cannot upgrade.
    EXPECT_FALSE(second.tryUpgrade());
    second.unlock();
    EXPECT_TRUE(first.tryUpgrade());
    RvoSubCacheLock third;
    EXPECT_FALSE(third.tryLockExclusive(subCache));
    first.downgrade();
    EXPECT_TRUE(second.lockShared(subCache));
    first.unlock();
    second.unlock();
    EXPECT_FALSE(RvoSubCacheLock::isHeld(subCache));
    EXPECT_TRUE(third.tryLockExclusive(subCache));
}
