// Runs the installed self-check suite on generated samples in a scratch
// directory, at its smallest scale; exit status 0 when every check passed.
#include <rvoddi/DdiTester.h>

#include <QTemporaryDir>

int main()
{
    QTemporaryDir data;
    DdiTester tester;
    tester.setTestDataDirectory(data.path());
    return tester.runAllTest(0) == 0 ? 0 : 1;
}
