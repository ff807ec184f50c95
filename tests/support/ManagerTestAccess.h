#ifndef MANAGERTESTACCESS_H
#define MANAGERTESTACCESS_H

// What the tests share: reaching the block manager's and the IO threads'
// internals, setting the manager up on temporary roots, test content and
// files; it brings GoogleTest, the output captures, Qt's file classes and
// the standard thread headers along.

#include "OutputCapture.h"
#include "RvoBlockCodecSetting_p.h"
#include "RvoConstAccessor.h"
#include "RvoDataBlock.h"
#include "RvoDataBlockManagerReadThread_p.h"
#include "RvoDataBlockManagerWriteThread_p.h"
#include "RvoDataBlockManager_p.h"
#include "RvoDataReference.h"
#include "RvoHashManager.h"
#include "RvoWaitUntil_p.h"

#include <QByteArray>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

// The manager's internals, through its implementation.
class RvoDataBlockManagerTestAccess
{
public:
    static RvoDataBlockManager::Private &manager()
    {
        return RvoDataBlockManager::Private::of(RvoDataBlockManager::instance());
    }
    static void makeBlockLive(RvoDataHash *h, RvoDataBlock *b) { manager().makeBlockLive(h, b); }
    static auto *writeThread(int i) { return manager().writeThreads().value(i); }
    static auto *readThread(int i) { return manager().readThreads().value(i); }
    static int writeThreadCount() { return int(manager().writeThreads().size()); }
    static int readThreadCount() { return int(manager().readThreads().size()); }
    static bool holdsBlock(RvoDataHash *hash) { return manager().holdsBlock(hash); }
    static bool blockIsLocked(RvoDataHash *hash) { return manager().blockIsLocked(hash); }
    static void freeBlock(RvoDataHash *hash) { manager().freeBlock(hash, false, false); }
    // The digests in the LRU, most recently used first.
    static QList<RvoDataHash *> lruOrder() { return manager().lruOrder(); }
};

// A block that records its deletion.
class TrackedBlock : public RvoDataBlock
{
public:
    TrackedBlock(const QByteArray &bytes, bool *deleted)
        : RvoDataBlock(bytes)
        , m_Deleted(deleted)
    {
    }
    ~TrackedBlock() override { *m_Deleted = true; }
    void markCached() { m_Cached.store(true); }

private:
    bool *m_Deleted;
};

// Sets the manager up on `rootCount` fresh temporary roots and cleans it up
// when it goes.
class ManagerSetup
{
public:
    explicit ManagerSetup(int rootCount = 1, const QString &subCache = QString(), int buckets = 10,
                          qint64 budget = RvoDataBlockManager::defaultCacheSize());
    ~ManagerSetup();
    QStringList roots() const { return m_Roots; }
    QString root(int i = 0) const { return m_Roots.value(i); }

private:
    std::vector<std::unique_ptr<QTemporaryDir>> m_Dirs;
    QStringList m_Roots;
};

inline RvoDataBlockManager &manager()
{
    return RvoDataBlockManager::instance();
}

// One garbage collection pass by hand with collection on.
inline void collectOnce(RvoDataBlockManager::ProgressReporter *reporter = nullptr)
{
    manager().startGarbageCollection();
    manager().collectGarbage(reporter);
    manager().stopGarbageCollection();
}

// The registry's digest of `content`.
inline RvoSmartPointer<RvoDataHash> digestOf(const QByteArray &content)
{
    return RvoHashManager::instance().getHash(content);
}

// Adds content through the manager, hashed on the calling thread unless
// `sync` is false.
RvoDataReference addBlock(const QByteArray &content,
                          RvoModifyAccessor::Caching caching = RvoModifyAccessor::CacheContent,
                          bool sync = true);
inline RvoDataHash *hashOf(const RvoDataReference &ref)
{
    return ref.hashPtr().data();
}

// A name with the shape of a 64-byte digest's text form that no block here
// has: sixteen words, the given ones first, the others "7".
QString digestName(const QStringList &firstWords);
inline QString digestName(int first)
{
    return digestName(QStringList {QString::number(first)});
}

// Image-like test content: varied, compressible bytes.
QByteArray testContent(int seed, int size = 65536);

// The bytes a block or a reference (through a const accessor) gives to read.
QByteArray bytesOf(const RvoDataBlock *block);
QByteArray bytesOf(const RvoDataReference &ref);

// Reads back, through the manager, the blocks of lines "SEED SIZE DIGEST"
// (testContent(SEED, SIZE) being the content); the digests that differ.
QStringList lostBlocks(const QByteArray &lines);

// The raw bytes of a block file.
QByteArray blockFileBytes(qint64 size, const QByteArray &payload);
// `bytes` with `value`'s bytes at `offset`: a block file's size (at 0) or
// its payload's length (at 8) changed, say.
template<typename T>
QByteArray patched(QByteArray bytes, int offset, T value)
{
    std::memcpy(bytes.data() + offset, &value, sizeof value);
    return bytes;
}
// `bytes` with the byte at `offset` changed.
inline QByteArray flipped(QByteArray bytes, int offset)
{
    bytes[offset] = char(bytes.at(offset) ^ 0x5a);
    return bytes;
}
// The sound block file of `content`, its payload written as `setting` says
// (by default qCompress's format, the zlib codec's own).
QByteArray blockFile(const QByteArray &content, const RvoBlockCodecSetting &setting = {});
// Where the block file of `hash` lies (ten buckets), spelt as the IO threads spell it.
QString blockPath(const QString &root, const QString &subCache, const RvoDataHash *hash);
// The block that the block file at `path` holds; null unless it is sound.
QByteArray blockIn(const QString &path);

// Every file under `roots`: each one under a digest name must decode and
// hash to its name; writes' temporary files are listed.
struct DiskState
{
    int blockFiles = 0;
    QStringList corrupt; // "path: fault"
    QStringList temporaries;
};
DiskState checkDisk(const QStringList &roots);

// Writes a file, making its directory first.
bool writeFile(const QString &path, const QByteArray &bytes);
QByteArray readFile(const QString &path);
// Sets a file's modification time (its last use) `seconds` back.
bool setAge(const QString &path, qint64 seconds);

#endif // MANAGERTESTACCESS_H
