#ifndef RVOSELFCHECKRUN_P_H
#define RVOSELFCHECKRUN_P_H

#include "RvoDataBlockManager.h"
#include "RvoSelfCheckSamples_p.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <memory>

class RvoSelfCheckCache;
class RvoSelfCheckHooks;

// One run of the self-check sequence (DdiTester::runAllTest). The checks
// are split by concern over RvoSelfCheckRun_digests.cpp (digests and the
// registry), RvoSelfCheckRun_store.cpp (blocks, the disk cache and its
// threads) and RvoSelfCheckRun_timing.cpp (the timing checks); this file's
// .cpp runs them in order and prints their lines.
//
// A check returns what it found; the runner prints it and counts failures.
// While a check runs, standard output is captured: anything the library
// prints there (its reports of broken invariants) fails the check.
//
// Threading: one thread runs the sequence; checks start threads of their own
// and end them before they return.
class RvoSelfCheckRun
{
public:
    struct Options
    {
        QString dataDirectory;
        QString cacheDirectory; // empty: the system's temporary directory
        int scale = 1;
        bool showProgress = false;
        RvoSelfCheckHooks *hooks = nullptr; // not owned; may be null
    };

    explicit RvoSelfCheckRun(const Options &options);

    // Runs every check; returns how many failed.
    int run();

private:
    // What a check found: whether it passed, and the text printed after its
    // name (a figure, or what was expected and what was seen).
    struct Result
    {
        bool passed = true;
        QString text;
    };

    static Result pass(const QString &figure = QString());
    static Result fail(const QString &detail);
    // "expected <expected>, saw <saw>" and, when not empty, "(<where>)".
    static Result mismatch(const QString &expected, const QString &saw,
                           const QString &where = QString());

    void runCheck(const QString &name, const std::function<Result()> &check);
    void printLine(const QString &line);
    // Fails a check that needs sample blocks when there are none.
    bool haveSamples(Result *result) const;
    // A fresh cache (RvoSelfCheckCache) for a check that needs sample
    // blocks; null, with *result failed, when there are none or the cache
    // cannot be made.
    std::unique_ptr<RvoSelfCheckCache>
    openCache(Result *result, int roots = 1,
              qint64 budget = RvoDataBlockManager::defaultCacheSize(), int buckets = 10,
              const QString &subCache = QStringLiteral("selfcheck")) const;

    // Before anything else: nothing else uses the library.
    Result checkLibraryIdle();
    Result checkSamples();

    // RvoSelfCheckRun_digests.cpp
    Result checkKnownAnswers(int stateBits);
    Result checkTextForms();
    Result checkRegistryUnderThreads();

    // RvoSelfCheckRun_store.cpp
    Result checkCompressionRoundTrip();
    Result checkDiskLayout();
    Result checkWriteAndReadBack();
    Result checkEviction();
    Result checkPendingReferences();
    Result checkPreload();
    Result checkGroupBlocks();
    Result checkResultCache();
    Result checkGarbageCollection();
    Result checkConsistencyReport();

    // RvoSelfCheckRun_timing.cpp
    Result timeHashing();
    Result timeCompression();
    Result timeWriting();
    Result timeReading();

    // A sample block made distinct: sample block `i` modulo their count,
    // its first 16 bytes replaced by a tag and `i` (padded to 16 bytes).
    QByteArray variant(int i) const;
    // The bytes a timing check works through: `perScale` times the scale,
    // and at least every sample block once.
    qint64 timingBytes(qint64 perScale) const;

    Options m_Options;
    RvoSelfCheckSamples m_Samples;
    bool m_HaveSamples = false;
    int m_Checks = 0;
    int m_Failures = 0;
    // What lived before the run: the consistency report expects it back.
    int m_BaselineHashObjects = 0;
    int m_BaselineReferences = 0;
    int m_BaselineJobs = 0;
};

#endif // RVOSELFCHECKRUN_P_H
