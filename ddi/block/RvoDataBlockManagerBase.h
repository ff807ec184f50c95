#ifndef RVODATABLOCKMANAGERBASE_H
#define RVODATABLOCKMANAGERBASE_H

#include "RvoDdiGlobal.h"

// The block manager's priorities, in a header that the classes below the
// manager (references, the disk threads) can include without it.
// RvoDataBlockManager derives from this, so RvoDataBlockManager::PreloadFirst
// names the same value.
class RVODDI_EXPORT RvoDataBlockManagerBase
{
public:
    // The priority of a read request, and of a save request. Queues serve
    // ascending values first.
    enum PreloadPriority { PreloadFirst = 0, PreloadNormal = 1, PreloadBackground = 2 };

protected:
    RvoDataBlockManagerBase() = default;
    ~RvoDataBlockManagerBase() = default;
};

#endif // RVODATABLOCKMANAGERBASE_H
