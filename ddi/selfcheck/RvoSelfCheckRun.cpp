#include "RvoSelfCheckRun_p.h"

#include "RvoBlockFuture.h"
#include "RvoDataBlockManager.h"
#include "RvoDataHash.h"
#include "RvoDataReference.h"
#include "RvoHashManager.h"
#include "RvoOutputCapture_p.h"
#include "RvoSelfCheckCache_p.h"

#include <QtEndian>

#include <cstdio>
#include <cstring>

RvoSelfCheckRun::RvoSelfCheckRun(const Options &options)
    : m_Options(options)
{
}

int RvoSelfCheckRun::run()
{
    runCheck(QStringLiteral("Library idle before the run"), [this] { return checkLibraryIdle(); });
    // Another user of the library would be disturbed, and would disturb the
    // counts the checks rely on.
    if (m_Failures > 0)
        return m_Failures;

    runCheck(QStringLiteral("Sample files"), [this] { return checkSamples(); });
    runCheck(QStringLiteral("Skein-256 known answers"), [this] { return checkKnownAnswers(256); });
    runCheck(QStringLiteral("Skein-512 known answers"), [this] { return checkKnownAnswers(512); });
    runCheck(QStringLiteral("Skein-1024 known answers"),
             [this] { return checkKnownAnswers(1024); });
    runCheck(QStringLiteral("Digest text forms"), [this] { return checkTextForms(); });
    runCheck(QStringLiteral("Digest registry under threads"),
             [this] { return checkRegistryUnderThreads(); });
    runCheck(QStringLiteral("Block compression round trip"),
             [this] { return checkCompressionRoundTrip(); });
    runCheck(QStringLiteral("Disk layout: roots and buckets"),
             [this] { return checkDiskLayout(); });
    runCheck(QStringLiteral("Write and read back every sample block"),
             [this] { return checkWriteAndReadBack(); });
    runCheck(QStringLiteral("Eviction and reload under a small budget"),
             [this] { return checkEviction(); });
    runCheck(QStringLiteral("Pending references"), [this] { return checkPendingReferences(); });
    runCheck(QStringLiteral("Preload"), [this] { return checkPreload(); });
    runCheck(QStringLiteral("Group blocks"), [this] { return checkGroupBlocks(); });
    runCheck(QStringLiteral("Result cache"), [this] { return checkResultCache(); });
    runCheck(QStringLiteral("Garbage collection"), [this] { return checkGarbageCollection(); });
    runCheck(QStringLiteral("Hashing speed"), [this] { return timeHashing(); });
    runCheck(QStringLiteral("Compression speed"), [this] { return timeCompression(); });
    runCheck(QStringLiteral("Write speed"), [this] { return timeWriting(); });
    runCheck(QStringLiteral("Read speed"), [this] { return timeReading(); });
    runCheck(QStringLiteral("Consistency report after the run"),
             [this] { return checkConsistencyReport(); });
    return m_Failures;
}

RvoSelfCheckRun::Result RvoSelfCheckRun::pass(const QString &figure)
{
    return Result {true, figure};
}

RvoSelfCheckRun::Result RvoSelfCheckRun::fail(const QString &detail)
{
    return Result {false, detail};
}

RvoSelfCheckRun::Result RvoSelfCheckRun::mismatch(const QString &expected, const QString &saw,
                                                  const QString &where)
{
    QString text = QStringLiteral("expected %1, saw %2").arg(expected, saw);
    if (!where.isEmpty())
        text += QStringLiteral(" (%1)").arg(where);
    return fail(text);
}

void RvoSelfCheckRun::runCheck(const QString &name, const std::function<Result()> &check)
{
    if (m_Options.showProgress) {
        std::printf("[ .. ] %s", name.toLocal8Bit().constData());
        std::fflush(stdout);
    }
    Result result;
    QStringList reports;
    {
        RvoOutputCapture capture;
        result = check();
        reports = capture.lines();
    }
    // The library prints on standard output only what it found broken.
    if (!reports.isEmpty()) {
        const QString more = reports.size() > 1
                ? QStringLiteral(" and %1 more lines").arg(reports.size() - 1)
                : QString();
        if (result.passed) {
            result = mismatch(QStringLiteral("no report from the library"),
                              QStringLiteral("\"%1\"%2").arg(reports.first(), more));
        } else {
            result.text
                    += QStringLiteral("; the library reported \"%1\"%2").arg(reports.first(), more);
        }
    }
    ++m_Checks;
    if (!result.passed)
        ++m_Failures;
    QString line = (result.passed ? QStringLiteral("[ OK ] ") : QStringLiteral("[!!] ")) + name;
    if (!result.text.isEmpty())
        line += QStringLiteral(": ") + result.text;
    if (m_Options.showProgress)
        std::printf("\r\033[K");
    printLine(line);
}

void RvoSelfCheckRun::printLine(const QString &line)
{
    std::printf("%s\n", line.toLocal8Bit().constData());
    std::fflush(stdout);
}

bool RvoSelfCheckRun::haveSamples(Result *result) const
{
    if (m_HaveSamples)
        return true;
    *result = mismatch(QStringLiteral("sample blocks"), QStringLiteral("none (see Sample files)"));
    return false;
}

std::unique_ptr<RvoSelfCheckCache> RvoSelfCheckRun::openCache(Result *result, int roots,
                                                              qint64 budget, int buckets,
                                                              const QString &subCache) const
{
    if (!haveSamples(result))
        return nullptr;
    auto cache = std::make_unique<RvoSelfCheckCache>(m_Options.cacheDirectory, roots, budget,
                                                     buckets, subCache);
    if (!cache->error().isEmpty()) {
        *result = fail(cache->error());
        return nullptr;
    }
    return cache;
}

RvoSelfCheckRun::Result RvoSelfCheckRun::checkLibraryIdle()
{
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    if (manager.isInitialized()) {
        return mismatch(QStringLiteral("the block manager not set up"),
                        QStringLiteral("it set up on %1")
                                .arg(manager.cacheRoots().join(QStringLiteral(", "))));
    }
    const int live = RvoHashManager::instance().hashCount();
    if (live != 0)
        return mismatch(QStringLiteral("no live digest"), QStringLiteral("%1").arg(live));
    m_BaselineHashObjects = RvoDataHash::hashCount();
    m_BaselineReferences = RvoDataReference::referenceCount();
    m_BaselineJobs = RvoBlockFuture::numHashJobs();
    return pass();
}

RvoSelfCheckRun::Result RvoSelfCheckRun::checkSamples()
{
    const QString error = m_Samples.load(m_Options.dataDirectory);
    if (!error.isEmpty())
        return fail(error);
    m_HaveSamples = true;
    const QString damage = m_Samples.verifyImages();
    if (!damage.isEmpty())
        return fail(damage);
    return pass(QStringLiteral("%1 files, %2 blocks, %3 MB%4")
                        .arg(m_Samples.files().size())
                        .arg(m_Samples.blocks().size())
                        .arg(double(m_Samples.totalBytes()) / 1e6, 0, 'f', 1)
                        .arg(m_Samples.generatedFiles().isEmpty()
                                     ? QString()
                                     : QStringLiteral(", generated in %1")
                                               .arg(m_Options.dataDirectory)));
}

QByteArray RvoSelfCheckRun::variant(int i) const
{
    const QVector<QByteArray> &blocks = m_Samples.blocks();
    QByteArray bytes = blocks.isEmpty() ? QByteArray() : blocks.at(i % int(blocks.size()));
    if (bytes.size() < 16)
        bytes.append(QByteArray(16 - int(bytes.size()), '\0'));
    char *data = bytes.data();
    std::memcpy(data, "rvoddi-v", 8);
    qToLittleEndian<quint64>(quint64(i), data + 8);
    return bytes;
}

qint64 RvoSelfCheckRun::timingBytes(qint64 perScale) const
{
    return qMax(perScale * qMax(m_Options.scale, 0), m_Samples.totalBytes());
}
