#ifndef RVODATABLOCKSAVEREQUEST_P_H
#define RVODATABLOCKSAVEREQUEST_P_H

#include "RvoDataHash.h"
#include "RvoSmartPointer.h"

class RvoDataBlock;

// One pending save of a write thread. The request holds a counted reference
// to the digest, so the digest (and the block the manager keeps under it)
// lives until the save is done. The block belongs to the request only when
// deleteAfterWrite is set.
struct RvoDataBlockSaveRequest
{
    RvoSmartPointer<RvoDataHash> hash;
    RvoDataBlock *block = nullptr;
    bool deleteAfterWrite = false;
};

#endif // RVODATABLOCKSAVEREQUEST_P_H
