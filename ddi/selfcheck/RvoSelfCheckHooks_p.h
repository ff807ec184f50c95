#ifndef RVOSELFCHECKHOOKS_P_H
#define RVOSELFCHECKHOOKS_P_H

#include "RvoSkeinKnownAnswers_p.h"

#include <QList>
#include <QString>
#include <QVector>

class DdiTester;
class RvoDataReference;

// Internal: the points at which a test breaks a subsystem under a running
// self-check, to see that the matching check reports it. A tester has no
// hooks unless a test gives it some (rvoSetSelfCheckHooks); every hook does
// nothing by default.
//
// Threading: called on the thread that runs DdiTester::runAllTest().
class RvoSelfCheckHooks
{
public:
    virtual ~RvoSelfCheckHooks();

    // The known answers about to be checked; a hook may change them.
    virtual void knownAnswersLoaded(QVector<RvoSkeinKnownAnswers::Vector> &answers);

    // Every sample block of the write-and-read check is on disk under
    // `subCacheDirectory` (root/sub-cache); the check inspects the block
    // files and reads the blocks back next. `blocks` are the check's
    // references, in sample order.
    virtual void blocksOnDisk(const QString &subCacheDirectory,
                              const QList<RvoDataReference> &blocks);
};

// Gives `tester` the hooks (not owned; null for none) for its next runs.
void rvoSetSelfCheckHooks(DdiTester &tester, RvoSelfCheckHooks *hooks);

#endif // RVOSELFCHECKHOOKS_P_H
