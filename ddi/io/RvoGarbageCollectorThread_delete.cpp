// The collector's one write to the file system, in a file of its own so that
// a test can link a collector that keeps everything (tests/doubles) by
// replacing only this function.

#include "RvoGarbageCollectorThread_p.h"

#include <QFile>

void RvoGarbageCollectorThread::deleteBlock(const QString &path)
{
    if (QFile::exists(path))
        QFile::remove(path);
}
