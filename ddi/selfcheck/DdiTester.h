#ifndef DDITESTER_H
#define DDITESTER_H

#include "rvoddi_selfcheck_export.h"

#include <QString>

class RvoSelfCheckHooks;

// The self-check suite: answers, on a new machine or after an upgrade,
// whether this build computes the right digests, stores and reads back bytes
// exactly, evicts and reloads within its budget and collects garbage
// correctly, and how fast it hashes, compresses, writes and reads here.
//
// runAllTest() runs a fixed sequence of checks. Each prints one line on
// standard output: "[ OK ] " or "[!!] " and the check's name; a timing check
// adds its figure, a failed check what it expected and what it saw. What
// the library itself prints on standard output while a check runs is
// captured: a report there fails the check, since the library reports only
// broken invariants.
//
// Sample input: every regular file in the data directory, cut into blocks of
// 256 KiB. An empty or missing directory is filled first with generated
// images (PNG and raw pixels); that is the only change made to it.
//
// Each check sets the block manager up on a temporary cache root of its own
// (under the cache directory) and cleans it up, so a run leaves the manager
// as it found it. The library is to be idle when the run starts: the manager
// not set up and no digest referenced; otherwise nothing else is checked.
//
// Threading: runAllTest() uses the process-wide block manager and digest
// registry; call it from one thread, with no other use of the library under
// way. It starts threads of its own and ends them before it returns.
class RVODDI_SELFCHECK_EXPORT DdiTester
{
public:
    DdiTester();
    ~DdiTester();
    DdiTester(const DdiTester &) = delete;
    DdiTester &operator=(const DdiTester &) = delete;

    void setTestDataDirectory(const QString &directory);
    QString testDataDirectory() const { return m_DataDirectory; }

    // Where the checks make their temporary cache roots; empty (the
    // default) means the system's temporary directory.
    void setCacheDirectory(const QString &directory);
    QString cacheDirectory() const { return m_CacheDirectory; }

    // For a terminal: shows each check's name while it runs and then
    // replaces it with the check's line. Off by default (plain lines).
    void setShowProgress(bool on) { m_ShowProgress = on; }
    bool showProgress() const { return m_ShowProgress; }

    // Runs every check and returns how many failed (0 when all passed).
    // `scale` multiplies the amount of data of the timing checks: 1 is the
    // default run; 0 or less times them over the sample blocks once.
    int runAllTest(int scale);

private:
    friend void rvoSetSelfCheckHooks(DdiTester &tester, RvoSelfCheckHooks *hooks);

    QString m_DataDirectory;
    QString m_CacheDirectory;
    bool m_ShowProgress = false;
    RvoSelfCheckHooks *m_Hooks = nullptr; // not owned; see RvoSelfCheckHooks_p.h
};

#endif // DDITESTER_H
