#ifndef RVOBLOCKSTORE_P_H
#define RVOBLOCKSTORE_P_H

#include "RvoDataBlockManagerBase.h"
#include "RvoModifyAccessor.h"

#include <QtGlobal>

class RvoDataBlock;
class RvoDataHash;
class RvoDataReference;

// What references, accessors and hashing jobs ask of the block manager,
// which lives in a folder above this one. The manager implements it, and
// defines instance(): this folder includes nothing of the manager's.
//
// The operations are the manager's own of the same names (see
// RvoDataBlockManager.h for what each does).
class RvoBlockStore
{
public:
    // The block manager's store, made on first use like the manager.
    static RvoBlockStore &instance();

    // The manager's delete lock (RvoDataDeleteLocker): no block is freed
    // while it is held.
    virtual void lockDeletes() = 0;
    virtual void unlockDeletes() = 0;

    virtual qint64 maxDataCacheSize() const = 0;
    virtual RvoDataReference addBlock(RvoDataBlock *block, RvoModifyAccessor::Caching caching,
                                      bool synchronous)
            = 0;
    virtual RvoDataReference getReference(RvoDataHash *hash) = 0;
    virtual void makeBlockLive(RvoDataHash *hash, RvoDataBlock *block) = 0;
    // REQUIRES: the delete lock held; it is let go while the disk is read.
    virtual RvoDataBlock *getDataBlock(RvoDataHash *hash) = 0;
    virtual bool isInMemory(RvoDataHash *hash) = 0;
    virtual void preloadData(const RvoDataReference &ref,
                             RvoDataBlockManagerBase::PreloadPriority priority)
            = 0;
    virtual void lockBlock(RvoDataHash *hash) = 0;
    virtual void unlockBlock(RvoDataHash *hash) = 0;

protected:
    ~RvoBlockStore() = default;
};

#endif // RVOBLOCKSTORE_P_H
