#ifndef RVODISKHOST_P_H
#define RVODISKHOST_P_H

#include "RvoBlockCodecSetting_p.h"
#include "RvoDataHash.h"
#include "RvoSmartPointer.h"

#include <QString>

class RvoBlockLoad;
class RvoDataBlock;

// What a root's disk threads ask of the block manager above them. The
// manager hands it to each thread it makes; the threads never name the
// manager.
class RvoDiskHost
{
public:
    // Takes charge of a block read or fetched for `hash` (deleting it when
    // the digest has a block in memory already).
    virtual void makeBlockLive(RvoDataHash *hash, RvoDataBlock *block) = 0;
    // Drops a finished save's reference to its digest inside the delete
    // lock: a last release reaches the manager's tables.
    virtual void releaseDigest(RvoSmartPointer<RvoDataHash> &hash) = 0;
    // Lets the write threads finish the saves they hold, when any do: a
    // block file being saved may be the one a read looks for.
    virtual void finishPendingSaves() = 0;
    // Looks for a block file that the root lacks below the disk cache (the
    // remote tier). True when the search is under way and will complete
    // `load`; false when there is nowhere to look or nothing was found.
    virtual bool fetchMissing(const RvoBlockLoad &load) = 0;
    // A block file this process made is complete under its name.
    virtual void blockFilePublished(const QString &path, const QString &fileName, qint64 bytes) = 0;
    // How new block files are written now (any thread).
    virtual RvoBlockCodecSetting blockCodec() const = 0;

    // Garbage collection: whether it is on, the current sub-cache, and the
    // collectors' handshake (a pass asks before it starts, false: it must
    // not collect; a permitted pass signs off).
    virtual bool garbageCollecting() const = 0;
    virtual QString subCache() const = 0;
    virtual bool garbageCollectingThreadStarted() = 0;
    virtual void garbageCollectingThreadFinished() = 0;

protected:
    ~RvoDiskHost() = default;
};

#endif // RVODISKHOST_P_H
