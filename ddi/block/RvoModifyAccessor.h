#ifndef RVOMODIFYACCESSOR_H
#define RVOMODIFYACCESSOR_H

#include "RvoDdiGlobal.h"

class RvoDataBlock;
class RvoDataReference;

// Write access to a private block: a copy of an existing block
// (RvoDataReference::modifyAccessor) or a new one
// (RvoDataBlockManager::createNewBlock). Copies of a modify accessor share
// the block; the last one to go deletes it, unless release() has handed it
// to the manager as a new block first. A null accessor has no block: size()
// 0, data() null.
//
// Threading: the block belongs to whoever holds the accessor; copies used on
// several threads must not write at once.
class RVODDI_EXPORT RvoModifyAccessor
{
public:
    // How release() adds the block.
    enum Caching {
        // Named by the digest of its content, shared with equal content,
        // written to the disk cache and evicted like any block.
        CacheContent = 0,
        // A name of its own, never written to disk nor evicted.
        DontCache = 1
    };

    RvoModifyAccessor() = default;
    RvoModifyAccessor(const RvoModifyAccessor &other);
    // Releases what this accessor held and counts what it now holds.
    RvoModifyAccessor &operator=(const RvoModifyAccessor &other);
    ~RvoModifyAccessor();

    bool isNull() const { return m_Block == nullptr; }
    qint64 size() const;
    // Writable bytes.
    unsigned char *data() const;
    // Modify accessors sharing the block.
    int count() const;

    // Adds the block to the manager as a new block and leaves this accessor
    // null. With CacheContent and synchronous false the digest is computed
    // on the thread pool and the reference is pending. Copies that still
    // share the block keep it: the manager is given a copy.
    RvoDataReference release(Caching caching, bool synchronous);

protected:
    friend class RvoDataReference;
    friend class RvoDataBlockManager;
    // Takes a share of `block` (owned by the accessors that share it).
    explicit RvoModifyAccessor(RvoDataBlock *block);

private:
    void acquire();
    // Drops this accessor's share; the last share deletes the block.
    void drop();

    RvoDataBlock *m_Block = nullptr;
};

#endif // RVOMODIFYACCESSOR_H
