#ifndef RVODATADELETELOCKER_H
#define RVODATADELETELOCKER_H

#include "RvoDataBlockManager.h"

// Holds the block manager's delete lock for its lifetime, so that no block is
// freed while the holder works. First in the library's lock order (see
// RvoDataBlockManager.h): take it before any digest, block or thread lock.
class RVODDI_EXPORT RvoDataDeleteLocker
{
public:
    RvoDataDeleteLocker() { RvoDataBlockManager::instance().lockDeletes(); }
    ~RvoDataDeleteLocker() { RvoDataBlockManager::instance().unlockDeletes(); }
    RvoDataDeleteLocker(const RvoDataDeleteLocker &) = delete;
    RvoDataDeleteLocker &operator=(const RvoDataDeleteLocker &) = delete;
};

#endif // RVODATADELETELOCKER_H
