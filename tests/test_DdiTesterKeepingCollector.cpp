// The self-check against a collector that keeps everything: this executable
// links the test double doubles/KeepingCollector.cpp in place of the
// collector's deleteBlock, so that passes run but remove nothing.

#include "DdiTester.h"
#include "OutputCapture.h"

#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

TEST(DdiTesterKeepingCollector, CollectorThatKeepsEverythingFailsTheGarbageCollectionCheckOnly)
{
    QTemporaryDir data;
    DdiTester tester;
    tester.setTestDataDirectory(data.path());
    StdoutCapture capture;
    const int failures = tester.runAllTest(0);
    const QStringList failed = capture.lines().filter(QRegularExpression("^(?!\\[ OK \\] )"));
    EXPECT_EQ(failures, 1);
    // 24 block files written, every other digest dropped: 12 live, 24 kept.
    EXPECT_EQ(failed,
              QStringList {"[!!] Garbage collection: The number of live hashes "
                           "differ from the number of live cache files 12 != 24"});
}
