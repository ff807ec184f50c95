#ifndef RVODATADELETELOCKER_H
#define RVODATADELETELOCKER_H

#include "RvoDdiGlobal.h"

// Holds the block manager's delete lock for its lifetime, so that no block is
// freed while the holder works. First in the library's lock order
// (docs/ARCHITECTURE.md): take it before any digest, block or thread lock.
class RVODDI_EXPORT RvoDataDeleteLocker
{
public:
    RvoDataDeleteLocker();
    ~RvoDataDeleteLocker();
    RvoDataDeleteLocker(const RvoDataDeleteLocker &) = delete;
    RvoDataDeleteLocker &operator=(const RvoDataDeleteLocker &) = delete;
};

#endif // RVODATADELETELOCKER_H
