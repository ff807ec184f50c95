// Blocks and the disk cache: compression, the layout, writing and reading
// back, eviction, pending references, preloads, group blocks, the result
// cache, garbage collection and the final consistency report.

#include "RvoSelfCheckRun_p.h"

#include "RvoBlockCodec_p.h"
#include "RvoConstAccessor.h"
#include "RvoDataBlock.h"
#include "RvoDataBlockManager.h"
#include "RvoDataHash.h"
#include "RvoDataReference.h"
#include "RvoHashManager.h"
#include "RvoOutputCapture_p.h"
#include "RvoResultCache.h"
#include "RvoSelfCheckCache_p.h"
#include "RvoSelfCheckHooks_p.h"
#include "RvoWaitUntil_p.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QSet>
#include <QThread>
#include <QtEndian>

#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

namespace {

// The zlib level of the in-memory compression checks: the fastest, as a
// host would use for blocks it keeps.
constexpr int kCompressionLevel = 1;

// Empty when the `size` bytes at `data` are `expected`; otherwise where
// they first differ.
QString difference(const unsigned char *data, qint64 size, const QByteArray &expected)
{
    if (!data)
        return QStringLiteral("no block");
    if (size != expected.size())
        return QStringLiteral("%1 bytes instead of %2").arg(size).arg(expected.size());
    if (std::memcmp(data, expected.constData(), size_t(size)) == 0)
        return QString();
    qint64 i = 0;
    while (data[i] == static_cast<unsigned char>(expected.at(i)))
        ++i;
    return QStringLiteral("byte %1 is 0x%2 instead of 0x%3")
            .arg(i)
            .arg(data[i], 2, 16, QLatin1Char('0'))
            .arg(static_cast<unsigned char>(expected.at(i)), 2, 16, QLatin1Char('0'));
}

QString difference(const RvoConstAccessor &accessor, const QByteArray &expected)
{
    return accessor.isNull() ? QStringLiteral("no block")
                             : difference(accessor.data(), accessor.size(), expected);
}

QString contentText(const QByteArray &bytes)
{
    return RvoDataHash(bytes, RvoDataHash::Skein512).toString();
}

// Records what garbage collection reports of its progress.
class ProgressLog : public RvoDataBlockManager::ProgressReporter
{
public:
    void startProgress(const QString &, int total) override
    {
        ++m_Starts;
        m_Total = total;
    }
    void finishProgress() override { ++m_Finishes; }
    void setProgress(int done, const QString &) override
    {
        ++m_Steps;
        m_LastDone = done;
    }

    int m_Starts = 0;
    int m_Finishes = 0;
    int m_Total = -1;
    int m_Steps = 0;
    int m_LastDone = 0;
};

} // namespace

RvoSelfCheckRun::Result RvoSelfCheckRun::checkCompressionRoundTrip()
{
    Result result;
    if (!haveSamples(&result))
        return result;
    const QVector<QByteArray> &blocks = m_Samples.blocks();
    for (int i = 0; i < blocks.size(); ++i) {
        const QByteArray &bytes = blocks.at(i);
        const QString where = m_Samples.origin(i);
        RvoDataBlock block(bytes);
        block.compress(kCompressionLevel);
        if (!block.isCompressed())
            return mismatch(QStringLiteral("a compressed block"), QStringLiteral("a raw one"),
                            where);
        if (block.size() != bytes.size())
            return mismatch(QStringLiteral("size %1 when compressed").arg(bytes.size()),
                            QString::number(block.size()), where);
        RvoDataBlock copy(block);
        if (!copy.isCompressed() || copy != block)
            return mismatch(QStringLiteral("a copy equal to the compressed block"),
                            QStringLiteral("a different one"), where);
        block.uncompress();
        if (block.isCompressed())
            return mismatch(QStringLiteral("a raw block"), QStringLiteral("a compressed one"),
                            where + QStringLiteral(", uncompressed"));
        QString diff = difference(block.constData(), block.size(), bytes);
        if (!diff.isEmpty())
            return mismatch(QStringLiteral("the bytes back"), diff,
                            where + QStringLiteral(", uncompressed"));
        // data() uncompresses a compressed block first.
        const unsigned char *raw = copy.data();
        diff = difference(raw, copy.size(), bytes);
        if (!diff.isEmpty())
            return mismatch(QStringLiteral("the bytes back"), diff,
                            where + QStringLiteral(", a compressed copy's data()"));
    }
    return pass(QStringLiteral("%1 blocks").arg(blocks.size()));
}

RvoSelfCheckRun::Result RvoSelfCheckRun::checkDiskLayout()
{
    Result result;
    constexpr int kRoots = 3;
    constexpr int kBuckets = 10;
    constexpr int kBlocks = 1000;
    constexpr int kBlockSize = 262144;
    constexpr double kMaxDeviation = 0.05 * kBlocks;

    const std::unique_ptr<RvoSelfCheckCache> cache
            = openCache(&result, kRoots, RvoDataBlockManager::defaultCacheSize(), kBuckets);
    if (!cache)
        return result;
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();

    // Digests of random blocks, on every core. The seed is fixed: the same
    // blocks on every run.
    QStringList texts;
    for (int i = 0; i < kBlocks; ++i)
        texts << QString();
    {
        const int workers = qMax(1, QThread::idealThreadCount());
        std::vector<std::unique_ptr<QThread>> threads;
        for (int w = 0; w < workers; ++w) {
            threads.emplace_back(QThread::create([&texts, w, workers] {
                QByteArray block(kBlockSize, Qt::Uninitialized);
                for (int i = w; i < kBlocks; i += workers) {
                    QRandomGenerator random(quint32(0x1a70u + i));
                    random.fillRange(reinterpret_cast<quint32 *>(block.data()), kBlockSize / 4);
                    // Each worker writes its own elements only.
                    texts[i] = contentText(block);
                }
            }));
            threads.back()->start();
        }
        for (auto &thread : threads)
            thread->wait();
    }

    // The rule that finds files written earlier, by this or another build:
    // the root by the digit sum of the first four characters of the text
    // form, the bucket by the first word modulo the bucket count.
    int buckets[kBuckets] = {};
    int roots[kRoots] = {};
    for (const QString &text : std::as_const(texts)) {
        int digits = 0;
        for (int c = 0; c < 4; ++c) {
            const int digit = text.at(c).digitValue();
            digits += digit < 0 ? -1 : digit;
        }
        const int root = digits % kRoots;
        const quint32 firstWord = text.section(QLatin1Char('-'), 0, 0).toUInt();
        const int bucket = int(firstWord % kBuckets);
        const QString path = manager.getBlockDestination(cache->subCache(), text);
        const QString expected = root < 0
                ? QString()
                : QDir::cleanPath(QStringLiteral("%1/%2/%3/%4")
                                          .arg(cache->roots().at(root), cache->subCache())
                                          .arg(bucket)
                                          .arg(text));
        if (QDir::cleanPath(path) != expected)
            return mismatch(expected, path.isEmpty() ? QStringLiteral("no path") : path,
                            QStringLiteral("the block file of %1").arg(text));
        ++buckets[bucket];
        if (root >= 0)
            ++roots[root];
    }
    double squares = 0;
    for (const int count : buckets)
        squares += (count - double(kBlocks) / kBuckets) * (count - double(kBlocks) / kBuckets);
    const double deviation = std::sqrt(squares / kBuckets);
    if (deviation > kMaxDeviation) {
        return mismatch(QStringLiteral("a standard deviation of the bucket counts of at most %1")
                                .arg(kMaxDeviation),
                        QString::number(deviation, 'f', 1));
    }
    for (int r = 0; r < kRoots; ++r) {
        if (roots[r] == 0)
            return mismatch(QStringLiteral("digests on every root"),
                            QStringLiteral("none on root %1 of %2").arg(r).arg(kRoots));
    }

    // The write threads put the files where the layout says.
    const int count = qMin(12, int(m_Samples.blocks().size()));
    QVector<RvoDataReference> references;
    QSet<QString> distinct;
    for (int i = 0; i < count; ++i) {
        references << manager.addBlock(m_Samples.blocks().at(i), RvoModifyAccessor::CacheContent,
                                       true);
        distinct.insert(references.last().hash());
    }
    manager.flush(true, RvoDataBlockManager::AllThreads);
    for (int i = 0; i < count; ++i) {
        const QString path
                = manager.getBlockDestination(cache->subCache(), references.at(i).hash());
        if (!QFileInfo::exists(path))
            return mismatch(QStringLiteral("a block file at %1").arg(path), QStringLiteral("none"),
                            m_Samples.origin(i));
    }
    if (cache->blockFileCount() != distinct.size())
        return mismatch(QStringLiteral("%1 block files").arg(distinct.size()),
                        QString::number(cache->blockFileCount()));
    return pass(QStringLiteral("%1 digests over %2 roots and %3 buckets, bucket deviation %4")
                        .arg(kBlocks)
                        .arg(kRoots)
                        .arg(kBuckets)
                        .arg(deviation, 0, 'f', 1));
}

RvoSelfCheckRun::Result RvoSelfCheckRun::checkWriteAndReadBack()
{
    Result result;
    const std::unique_ptr<RvoSelfCheckCache> cache = openCache(&result);
    if (!cache)
        return result;
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    const QVector<QByteArray> &blocks = m_Samples.blocks();

    QList<RvoDataReference> references;
    for (const QByteArray &block : blocks)
        references << manager.addBlock(block, RvoModifyAccessor::CacheContent, true);
    manager.flush(true, RvoDataBlockManager::AllThreads);
    if (m_Options.hooks)
        m_Options.hooks->blocksOnDisk(cache->subCacheDirectory(), references);

    // Each block file: named by the content's digest, where the layout puts
    // it, a 12-byte header (size, payload length), a payload of the codec
    // the library writes with that decodes to the block.
    QSet<QString> seen;
    for (int i = 0; i < blocks.size(); ++i) {
        const QString where = m_Samples.origin(i);
        const QString text = references.at(i).hash();
        const QString expectedText = contentText(blocks.at(i));
        if (text != expectedText)
            return mismatch(expectedText, text, where + QStringLiteral(", its digest"));
        if (seen.contains(text))
            continue;
        seen.insert(text);
        const QString path = manager.getBlockDestination(cache->subCache(), text);
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly))
            return mismatch(QStringLiteral("a block file at %1").arg(path), file.errorString(),
                            where);
        const QByteArray bytes = file.readAll();
        if (bytes.size() < 12)
            return mismatch(QStringLiteral("a 12-byte header"),
                            QStringLiteral("%1 bytes").arg(bytes.size()), path);
        const qint64 size = qFromLittleEndian<qint64>(bytes.constData());
        const qint32 payloadSize = qFromLittleEndian<qint32>(bytes.constData() + 8);
        if (size != blocks.at(i).size())
            return mismatch(QStringLiteral("size %1 in the header").arg(blocks.at(i).size()),
                            QString::number(size), path);
        if (payloadSize != bytes.size() - 12)
            return mismatch(
                    QStringLiteral("payload length %1 in the header").arg(bytes.size() - 12),
                    QString::number(payloadSize), path);
        QByteArray payload;
        RvoBlockCodec::forThisThread().uncompress(bytes.constData() + 12, bytes.size() - 12, size,
                                                  &payload);
        const QString diff = payload.isEmpty() && !blocks.at(i).isEmpty()
                ? QStringLiteral("a payload that does not uncompress")
                : difference(reinterpret_cast<const unsigned char *>(payload.constData()),
                             payload.size(), blocks.at(i));
        if (!diff.isEmpty())
            return mismatch(QStringLiteral("the payload to uncompress to the block"), diff, path);
    }

    manager.freeAllBlocks();
    if (manager.liveBytes() != 0 || manager.liveBlocks() != 0)
        return mismatch(QStringLiteral("no block in memory after freeAllBlocks"),
                        QStringLiteral("%1 blocks, %2 bytes")
                                .arg(manager.liveBlocks())
                                .arg(manager.liveBytes()));
    for (int i = 0; i < blocks.size(); ++i) {
        if (references.at(i).isInMemory())
            return mismatch(QStringLiteral("the block on disk only"),
                            QStringLiteral("it in memory"), m_Samples.origin(i));
    }
    for (int i = 0; i < blocks.size(); ++i) {
        const RvoConstAccessor accessor = references.at(i).constAccessor();
        const QString diff = difference(accessor, blocks.at(i));
        if (!diff.isEmpty())
            return mismatch(QStringLiteral("the sample's bytes read back from disk"), diff,
                            m_Samples.origin(i));
    }
    return pass(QStringLiteral("%1 blocks, %2 block files").arg(blocks.size()).arg(seen.size()));
}

RvoSelfCheckRun::Result RvoSelfCheckRun::checkEviction()
{
    Result result;
    if (!haveSamples(&result))
        return result;
    constexpr int kBlocks = 40;
    constexpr int kPinned = 3;
    QVector<QByteArray> data;
    qint64 total = 0;
    qint64 largest = 0;
    for (int i = 0; i < kBlocks; ++i) {
        data << variant(1000 + i);
        total += data.last().size();
        largest = qMax(largest, qint64(data.last().size()));
    }
    // About ten of the forty fit.
    const qint64 budget = qMax(total / 4, 2 * largest);
    const std::unique_ptr<RvoSelfCheckCache> cache = openCache(&result, 1, budget);
    if (!cache)
        return result;
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();

    QVector<RvoDataReference> references;
    qint64 peak = 0;
    for (int i = 0; i < kBlocks; ++i) {
        references << manager.addBlock(data.at(i), RvoModifyAccessor::CacheContent, true);
        peak = qMax(peak, manager.liveBytes());
        if (manager.liveBytes() > budget)
            return mismatch(QStringLiteral("at most %1 bytes in memory").arg(budget),
                            QString::number(manager.liveBytes()),
                            QStringLiteral("after adding block %1").arg(i));
    }
    int inMemory = 0;
    for (const RvoDataReference &reference : std::as_const(references))
        inMemory += reference.isInMemory() ? 1 : 0;
    if (inMemory == kBlocks)
        return mismatch(QStringLiteral("blocks evicted under a budget of %1 bytes").arg(budget),
                        QStringLiteral("all %1 in memory").arg(kBlocks));
    manager.flush(false, RvoDataBlockManager::WriteThreads);

    {
        // Pinned blocks stay; the others come back from disk as they are
        // read, and the oldest of them leave again.
        QVector<RvoConstAccessor> pins;
        for (int i = 0; i < kPinned; ++i) {
            pins << references.at(i).constAccessor();
            const QString diff = difference(pins.last(), data.at(i));
            if (!diff.isEmpty())
                return mismatch(QStringLiteral("the bytes reloaded"), diff,
                                QStringLiteral("block %1").arg(i));
        }
        for (int i = kPinned; i < kBlocks; ++i) {
            {
                const RvoConstAccessor accessor = references.at(i).constAccessor();
                const QString diff = difference(accessor, data.at(i));
                if (!diff.isEmpty())
                    return mismatch(QStringLiteral("the bytes reloaded"), diff,
                                    QStringLiteral("block %1").arg(i));
            }
            peak = qMax(peak, manager.liveBytes());
            if (manager.liveBytes() > budget)
                return mismatch(QStringLiteral("at most %1 bytes in memory").arg(budget),
                                QString::number(manager.liveBytes()),
                                QStringLiteral("after reading block %1").arg(i));
        }
        for (int i = 0; i < kPinned; ++i) {
            if (!references.at(i).isInMemory())
                return mismatch(QStringLiteral("pinned block %1 in memory").arg(i),
                                QStringLiteral("it evicted"));
            const QString diff = difference(pins.at(i), data.at(i));
            if (!diff.isEmpty())
                return mismatch(QStringLiteral("pinned bytes unchanged"), diff,
                                QStringLiteral("block %1").arg(i));
        }
    }
    // Least recently used first: the first block read has left, the last
    // one is still there.
    if (references.at(kPinned).isInMemory())
        return mismatch(QStringLiteral("block %1, the least recently used, evicted").arg(kPinned),
                        QStringLiteral("it in memory"));
    if (!references.at(kBlocks - 1).isInMemory())
        return mismatch(
                QStringLiteral("block %1, the most recently used, in memory").arg(kBlocks - 1),
                QStringLiteral("it evicted"));
    return pass(QStringLiteral("%1 blocks through a budget of %2 MB, at most %3 MB in memory")
                        .arg(kBlocks)
                        .arg(double(budget) / 1e6, 0, 'f', 1)
                        .arg(double(peak) / 1e6, 0, 'f', 1));
}

RvoSelfCheckRun::Result RvoSelfCheckRun::checkPendingReferences()
{
    Result result;
    const std::unique_ptr<RvoSelfCheckCache> cache = openCache(&result);
    if (!cache)
        return result;
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    RvoHashManager &registry = RvoHashManager::instance();
    const int baseline = registry.hashCount();

    constexpr int kBlocks = 16;
    QVector<QByteArray> data;
    QVector<RvoDataReference> references;
    for (int i = 0; i < kBlocks; ++i) {
        data << variant(2000 + i);
        references << manager.addBlock(data.last(), RvoModifyAccessor::CacheContent, false);
        if (references.last().isNull())
            return mismatch(QStringLiteral("a pending reference"), QStringLiteral("a null one"),
                            QStringLiteral("block %1").arg(i));
    }
    // The same content again, from a copy of its bytes.
    RvoDataReference again = manager.addBlock(QByteArray(data.at(0).constData(), data.at(0).size()),
                                              RvoModifyAccessor::CacheContent, false);

    for (int i = 0; i < kBlocks; ++i) {
        const QString expected = contentText(data.at(i));
        if (references.at(i).hash() != expected)
            return mismatch(expected, references.at(i).hash(), QStringLiteral("block %1").arg(i));
    }
    if (again.hashPtr() != references.at(0).hashPtr() || again != references.at(0))
        return mismatch(QStringLiteral("equal content to resolve to one digest"),
                        QStringLiteral("two"));
    for (int i = 0; i < kBlocks; ++i) {
        const QString diff = difference(references.at(i).constAccessor(), data.at(i));
        if (!diff.isEmpty())
            return mismatch(QStringLiteral("the bytes added"), diff,
                            QStringLiteral("block %1").arg(i));
    }
    if (registry.hashCount() != baseline + kBlocks)
        return mismatch(QStringLiteral("%1 live digests").arg(baseline + kBlocks),
                        QString::number(registry.hashCount()));

    // A pending reference dropped unresolved: the job still finishes, and
    // its digest leaves with it.
    const QByteArray dropped = variant(2100);
    {
        const RvoDataReference unresolved
                = manager.addBlock(dropped, RvoModifyAccessor::CacheContent, false);
    }
    // The pool thread lets go of the job's own copy of the result just
    // after the job has finished: that takes a moment.
    const QString droppedText = contentText(dropped);
    if (!waitUntil([&] { return !registry.isHashLive(droppedText); }, 5000))
        return mismatch(QStringLiteral("the dropped block's digest gone"),
                        QStringLiteral("it live"));

    references.clear();
    again = RvoDataReference();
    if (!waitUntil([&] { return registry.hashCount() == baseline; }, 5000))
        return mismatch(QStringLiteral("%1 live digests once released").arg(baseline),
                        QString::number(registry.hashCount()));
    return pass(QStringLiteral("%1 blocks").arg(kBlocks));
}

RvoSelfCheckRun::Result RvoSelfCheckRun::checkPreload()
{
    Result result;
    constexpr int kBlocks = 16;
    constexpr int kTimeoutMs = 30000;
    const std::unique_ptr<RvoSelfCheckCache> cache = openCache(&result);
    if (!cache)
        return result;
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();

    QVector<QByteArray> data;
    QVector<RvoDataReference> references;
    for (int i = 0; i < kBlocks; ++i) {
        data << variant(3000 + i);
        references << manager.addBlock(data.last(), RvoModifyAccessor::CacheContent, true);
    }
    manager.flush(true, RvoDataBlockManager::AllThreads);
    manager.freeAllBlocks();
    for (int i = 0; i < kBlocks; ++i) {
        if (references.at(i).isInMemory())
            return mismatch(QStringLiteral("the block on disk only"),
                            QStringLiteral("it in memory"), QStringLiteral("block %1").arg(i));
    }

    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < kBlocks; ++i)
        references.at(i).preload(i % 2 == 0 ? RvoDataBlockManager::PreloadFirst
                                            : RvoDataBlockManager::PreloadNormal);
    int loaded = 0;
    waitUntil(
            [&] {
                loaded = 0;
                for (const RvoDataReference &reference : std::as_const(references))
                    loaded += reference.isInMemory() ? 1 : 0;
                return loaded == kBlocks;
            },
            kTimeoutMs);
    const qint64 elapsed = timer.elapsed();
    if (loaded != kBlocks)
        return mismatch(QStringLiteral("%1 blocks in memory within %2 s of their preload")
                                .arg(kBlocks)
                                .arg(kTimeoutMs / 1000),
                        QString::number(loaded));
    for (int i = 0; i < kBlocks; ++i) {
        const QString diff = difference(references.at(i).constAccessor(), data.at(i));
        if (!diff.isEmpty())
            return mismatch(QStringLiteral("the bytes preloaded"), diff,
                            QStringLiteral("block %1").arg(i));
    }
    return pass(QStringLiteral("%1 blocks in %2 ms").arg(kBlocks).arg(elapsed));
}

RvoSelfCheckRun::Result RvoSelfCheckRun::checkGroupBlocks()
{
    Result result;
    constexpr int kMembers = 12;
    const std::unique_ptr<RvoSelfCheckCache> cache = openCache(&result);
    if (!cache)
        return result;
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();

    QVector<QByteArray> data;
    QVector<RvoDataReference> members;
    for (int i = 0; i < kMembers; ++i) {
        data << variant(4000 + i);
        members << manager.addBlock(data.last(), RvoModifyAccessor::CacheContent, true);
    }
    auto sameMembers = [&](const QVector<RvoDataReference> &extracted,
                           const QVector<RvoDataReference> &expected, const QString &where) {
        if (extracted.size() != expected.size())
            return mismatch(QStringLiteral("%1 members").arg(expected.size()),
                            QString::number(extracted.size()), where);
        for (int i = 0; i < expected.size(); ++i) {
            if (extracted.at(i).hashPtr() != expected.at(i).hashPtr())
                return mismatch(expected.at(i).hash(), extracted.at(i).hash(),
                                where + QStringLiteral(", member %1").arg(i));
        }
        return pass();
    };

    const RvoDataReference group = manager.makeGroupBlock(members);
    const QString groupText = group.hash();
    {
        const RvoConstAccessor payload = group.constAccessor();
        if (payload.size() != 16 + kMembers * 64)
            return mismatch(QStringLiteral("a group payload of %1 bytes").arg(16 + kMembers * 64),
                            QString::number(payload.size()));
    }
    Result same = sameMembers(manager.extractGroupBlock(group), members, QStringLiteral("group"));
    if (!same.passed)
        return same;
    if (manager.makeGroupBlock(members).hash() != groupText)
        return mismatch(groupText, QStringLiteral("another digest"),
                        QStringLiteral("the same members grouped again"));
    QVector<RvoDataReference> reversed(members.rbegin(), members.rend());
    const RvoDataReference reversedGroup = manager.makeGroupBlock(reversed);
    if (reversedGroup.hash() == groupText)
        return mismatch(QStringLiteral("another digest for another order"),
                        QStringLiteral("the same"));
    // Groups of groups.
    const RvoDataReference nested = manager.makeGroupBlock({group, reversedGroup});
    same = sameMembers(manager.extractGroupBlock(nested), {group, reversedGroup},
                       QStringLiteral("group of groups"));
    if (!same.passed)
        return same;
    if (!manager.extractGroupBlock(members.at(0)).isEmpty())
        return mismatch(QStringLiteral("no members in an ordinary block"), QStringLiteral("some"));

    // From disk: the group, then its members.
    manager.flush(true, RvoDataBlockManager::AllThreads);
    manager.freeAllBlocks();
    const QVector<RvoDataReference> extracted = manager.extractGroupBlock(group);
    same = sameMembers(extracted, members, QStringLiteral("group read from disk"));
    if (!same.passed)
        return same;
    for (int i = 0; i < kMembers; ++i) {
        const QString diff = difference(extracted.at(i).constAccessor(), data.at(i));
        if (!diff.isEmpty())
            return mismatch(QStringLiteral("the member's bytes"), diff,
                            QStringLiteral("member %1 read from disk").arg(i));
    }
    return pass(QStringLiteral("%1 members, nested, from memory and disk").arg(kMembers));
}

RvoSelfCheckRun::Result RvoSelfCheckRun::checkResultCache()
{
    Result result;
    constexpr int kResults = 8;
    const std::unique_ptr<RvoSelfCheckCache> cache = openCache(&result);
    if (!cache)
        return result;
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    RvoResultCache results; // goes before the manager is cleaned up

    auto key = [](int i) { return QStringLiteral("selfcheck/result-%1").arg(i); };
    QVector<QByteArray> data;
    QVector<RvoDataReference> references;
    QStringList texts;
    for (int i = 0; i < kResults; ++i) {
        data << variant(5000 + i);
        references << manager.addBlock(data.last(), RvoModifyAccessor::CacheContent, true);
        texts << references.last().hash();
        if (!results.addResult(key(i), references[i]))
            return mismatch(QStringLiteral("the result stored"), QStringLiteral("it refused"),
                            key(i));
    }
    if (results.resultCount() != kResults)
        return mismatch(QStringLiteral("%1 results").arg(kResults),
                        QString::number(results.resultCount()));
    for (int i = 0; i < kResults; ++i) {
        if (!results.contains(key(i))
            || results.lookup(key(i)).hashPtr() != references[i].hashPtr())
            return mismatch(texts.at(i), results.lookup(key(i)).hash(), key(i));
    }
    if (results.contains(QStringLiteral("selfcheck/missing"))
        || !results.lookup(QStringLiteral("selfcheck/missing")).isNull())
        return mismatch(QStringLiteral("no result for an unknown name"), QStringLiteral("one"));
    // The first result stored under a name stays.
    results.addResult(key(0), references[1]);
    if (results.lookup(key(0)).hash() != texts.at(0))
        return mismatch(texts.at(0), results.lookup(key(0)).hash(),
                        QStringLiteral("a second result under %1").arg(key(0)));
    if (results.cacheHits() != kResults + 1)
        return mismatch(QStringLiteral("%1 hits").arg(kResults + 1),
                        QString::number(results.cacheHits()));

    // Switched off it answers nothing and stores nothing.
    results.setEnabled(false);
    if (results.contains(key(0)) || !results.lookup(key(0)).isNull())
        return mismatch(QStringLiteral("no answer while disabled"), QStringLiteral("one"));
    if (results.addResult(QStringLiteral("selfcheck/late"), references[0])
        || results.resultCount() != kResults)
        return mismatch(QStringLiteral("nothing stored while disabled"),
                        QStringLiteral("%1 results").arg(results.resultCount()));
    results.setEnabled(true);

    // The cache's references keep the results alive, on disk.
    references.clear();
    manager.flush(true, RvoDataBlockManager::AllThreads);
    manager.freeAllBlocks();
    for (int i = 0; i < kResults; ++i) {
        if (!RvoHashManager::instance().isHashLive(texts.at(i)))
            return mismatch(QStringLiteral("the result's digest live"), QStringLiteral("it gone"),
                            key(i));
        const QString diff = difference(results.lookup(key(i)).constAccessor(), data.at(i));
        if (!diff.isEmpty())
            return mismatch(QStringLiteral("the result's bytes"), diff,
                            key(i) + QStringLiteral(", read from disk"));
    }
    return pass(QStringLiteral("%1 results").arg(kResults));
}

RvoSelfCheckRun::Result RvoSelfCheckRun::checkGarbageCollection()
{
    Result result;
    constexpr int kRoots = 2;
    constexpr int kBuckets = 10;
    constexpr int kBlocks = 24;
    const std::unique_ptr<RvoSelfCheckCache> cache
            = openCache(&result, kRoots, RvoDataBlockManager::defaultCacheSize(), kBuckets,
                        QStringLiteral("selfcheck-gc"));
    if (!cache)
        return result;
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    RvoHashManager &registry = RvoHashManager::instance();

    QVector<QByteArray> data;
    QVector<RvoDataReference> references;
    for (int i = 0; i < kBlocks; ++i) {
        data << variant(6000 + i);
        references << manager.addBlock(data.last(), RvoModifyAccessor::CacheContent, true);
    }
    manager.flush(true, RvoDataBlockManager::AllThreads);
    if (cache->blockFileCount() != kBlocks)
        return mismatch(QStringLiteral("%1 block files before collecting").arg(kBlocks),
                        QString::number(cache->blockFileCount()));
    // Every other block becomes garbage.
    QVector<RvoDataReference> kept;
    QVector<QByteArray> keptData;
    for (int i = 0; i < kBlocks; i += 2) {
        kept << references.at(i);
        keptData << data.at(i);
    }
    references.clear();

    ProgressLog progress;
    manager.startGarbageCollection();
    manager.collectGarbage(&progress);
    manager.stopGarbageCollection();

    const int live = registry.hashCount();
    const int files = cache->blockFileCount();
    if (live != files)
        return fail(QStringLiteral("The number of live hashes differ from the number of live "
                                   "cache files %1 != %2")
                            .arg(live)
                            .arg(files));
    if (live != kept.size())
        return mismatch(QStringLiteral("%1 live digests").arg(kept.size()), QString::number(live));
    for (int i = 0; i < kept.size(); ++i) {
        const QString path = manager.getBlockDestination(cache->subCache(), kept.at(i).hash());
        if (!QFileInfo::exists(path))
            return mismatch(QStringLiteral("the block file of a live digest kept"),
                            QStringLiteral("it deleted"), path);
    }
    if (progress.m_Starts != 1 || progress.m_Finishes != 1 || progress.m_Total != kRoots * kBuckets
        || progress.m_Steps < kRoots)
        return mismatch(QStringLiteral("one progress of %1 steps with a step per directory")
                                .arg(kRoots * kBuckets),
                        QStringLiteral("%1 starts, %2 finishes, total %3, %4 steps")
                                .arg(progress.m_Starts)
                                .arg(progress.m_Finishes)
                                .arg(progress.m_Total)
                                .arg(progress.m_Steps));
    // What was kept still reads back.
    manager.freeAllBlocks();
    for (int i = 0; i < kept.size(); ++i) {
        const QString diff = difference(kept.at(i).constAccessor(), keptData.at(i));
        if (!diff.isEmpty())
            return mismatch(QStringLiteral("a kept block's bytes"), diff,
                            QStringLiteral("block %1").arg(2 * i));
    }
    return pass(QStringLiteral("%1 of %2 block files kept, %3 directories visited")
                        .arg(files)
                        .arg(kBlocks)
                        .arg(progress.m_LastDone));
}

RvoSelfCheckRun::Result RvoSelfCheckRun::checkConsistencyReport()
{
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    if (manager.isInitialized())
        return mismatch(QStringLiteral("the block manager cleaned up"),
                        QStringLiteral("it set up"));
    QStringList reports;
    {
        RvoOutputCapture capture;
        manager.validateState();
        reports = capture.lines();
    }
    if (!reports.isEmpty())
        return mismatch(QStringLiteral("no live digest reported"),
                        QStringLiteral("%1 reported: %2").arg(reports.size()).arg(reports.first()));
    const int live = RvoHashManager::instance().hashCount();
    if (live != 0)
        return mismatch(QStringLiteral("no live digest"), QString::number(live));
    if (RvoDataHash::hashCount() != m_BaselineHashObjects)
        return mismatch(QStringLiteral("%1 digest objects").arg(m_BaselineHashObjects),
                        QString::number(RvoDataHash::hashCount()));
    if (RvoDataReference::referenceCount() != m_BaselineReferences)
        return mismatch(QStringLiteral("%1 references").arg(m_BaselineReferences),
                        QString::number(RvoDataReference::referenceCount()));
    if (RvoBlockFuture::numHashJobs() != m_BaselineJobs)
        return mismatch(QStringLiteral("%1 hashing jobs").arg(m_BaselineJobs),
                        QString::number(RvoBlockFuture::numHashJobs()));
    return pass();
}
