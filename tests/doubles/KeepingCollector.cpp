// Test double: a collector that walks and reports as the real one does but
// keeps every file. A test executable links this deleteBlock ahead of the
// library archive (rvoddi_archive), so the real one is never linked.

#include "RvoGarbageCollectorThread_p.h"

bool RvoGarbageCollectorThread::deleteBlock(const QString &)
{
    return false;
}
