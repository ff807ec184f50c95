// Test double: a garbage collector that keeps everything. The real
// collector walks the sub-cache and reports its progress, but this
// deleteBlock never removes a file. A test executable links it ahead of the
// library archive (rvoddi_archive), so the real deleteBlock is never linked.

#include "RvoGarbageCollectorThread_p.h"

void RvoGarbageCollectorThread::deleteBlock(const QString &) { }
