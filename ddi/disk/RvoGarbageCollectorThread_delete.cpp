// The collector's one write to the file system, in a file of its own so that
// a test can link a collector that keeps everything (tests/doubles) by
// replacing only this function.

#include "RvoGarbageCollectorThread_p.h"

#include <QFile>

bool RvoGarbageCollectorThread::deleteBlock(const QString &path)
{
    // One unlink when the file is there; a file already gone is gone.
    return QFile::remove(path) || !QFile::exists(path);
}
