#include "DdiTester.h"

#include "RvoSelfCheckRun_p.h"

DdiTester::DdiTester() = default;

DdiTester::~DdiTester() = default;

void DdiTester::setTestDataDirectory(const QString &directory)
{
    m_DataDirectory = directory;
}

void DdiTester::setCacheDirectory(const QString &directory)
{
    m_CacheDirectory = directory;
}

int DdiTester::runAllTest(int scale)
{
    RvoSelfCheckRun::Options options;
    options.dataDirectory = m_DataDirectory;
    options.cacheDirectory = m_CacheDirectory;
    options.scale = scale;
    options.showProgress = m_ShowProgress;
    options.hooks = m_Hooks;
    return RvoSelfCheckRun(options).run();
}
