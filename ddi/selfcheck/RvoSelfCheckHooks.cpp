#include "RvoSelfCheckHooks_p.h"

#include "DdiTester.h"

RvoSelfCheckHooks::~RvoSelfCheckHooks() = default;

void RvoSelfCheckHooks::knownAnswersLoaded(QVector<RvoSkeinKnownAnswers::Vector> &) { }

void RvoSelfCheckHooks::blocksOnDisk(const QString &, const QList<RvoDataReference> &) { }

void rvoSetSelfCheckHooks(DdiTester &tester, RvoSelfCheckHooks *hooks)
{
    tester.m_Hooks = hooks;
}
