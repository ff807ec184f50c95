#include "ManagerTestAccess.h"

#include <QtEndian>

namespace {

QByteArray header(qint64 magic, qint32 digestSize, qint32 count)
{
    QByteArray bytes(16, '\0');
    qToLittleEndian<qint64>(magic, bytes.data());
    qToLittleEndian<qint32>(digestSize, bytes.data() + 8);
    qToLittleEndian<qint32>(count, bytes.data() + 12);
    return bytes;
}

} // namespace

// A group's payload is its members' digests in order (so its name follows
// them); an empty one is a bare header.
TEST(RvoDataBlockManagerGroups, MembersComeBackInOrderFromTheExactLayout)
{
    ManagerSetup setup;
    const QVector<RvoDataReference> members {
            addBlock(testContent(1, 100)), addBlock(testContent(2, 100)),
            addBlock(testContent(3, 100), RvoModifyAccessor::CacheContent, false)};
    const RvoDataReference group = manager().makeGroupBlock(members);
    QByteArray expected = header(1337, 64, 3);
    for (const RvoDataReference &member : members)
        expected += QByteArray(reinterpret_cast<const char *>(member.hashPtr()->data()), 64);
    EXPECT_EQ(bytesOf(group), expected);
    EXPECT_EQ(manager().extractGroupBlock(group), members);
    const RvoDataReference empty = manager().makeGroupBlock({});
    EXPECT_EQ(bytesOf(empty), header(1337, 0, 0));
    EXPECT_TRUE(manager().extractGroupBlock(empty).isEmpty());
}

// A null member is refused too.
TEST(RvoDataBlockManagerGroups, MalformedGroupGivesNoMembers)
{
    ManagerSetup setup;
    const QByteArray digest(64, '\x05');
    const QList<QByteArray> payloads {
            QByteArray("not a group"), // shorter than a header
            header(1336, 64, 1) + digest, // wrong magic
            header(1337, 64, 2) + digest, // promises more than it holds
            header(1337, 48, 1) + QByteArray(48, '\x05'), // no such digest size
            header(1337, 64, -1), // negative count
            header(1337, 64, 0x7fffffff) + digest, // a count that would overflow
    };
    for (const QByteArray &payload : payloads)
        EXPECT_TRUE(manager().extractGroupBlock(addBlock(payload)).isEmpty())
                << payload.toHex().constData();
    EXPECT_EQ(manager().extractGroupBlock(addBlock(header(1337, 64, 1) + digest)).size(), 1);

    StdoutCapture out;
    EXPECT_TRUE(
            manager().makeGroupBlock({addBlock(testContent(1, 10)), RvoDataReference()}).isNull());
    EXPECT_EQ(out.lines(), QStringList {QStringLiteral("Group member 1 has no digest")});
}
