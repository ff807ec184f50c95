// Interns two equal buffers and prints the one digest they share.
#include <rvoddi/RvoDdi.h>

#include <QByteArray>
#include <cstdio>

int main()
{
    const QByteArray tile(262144, '\x7f');
    RvoSmartPointer<RvoDataHash> a = RvoHashManager::instance().getHash(tile);
    RvoSmartPointer<RvoDataHash> b = RvoHashManager::instance().getHash(QByteArray(tile));
    if (a != b || RvoHashManager::instance().hashCount() != 1)
        return 1;
    unsigned char digest[32];
    if (RvoSkein::Hash(256, nullptr, 0, digest) != 0 || digest[0] != 0xbc)
        return 2;
    std::printf("%s\n", qPrintable(a->toString()));
    return 0;
}
