#ifndef RVOCONSTACCESSOR_H
#define RVOCONSTACCESSOR_H

#include "RvoDataHash.h"
#include "RvoDdiGlobal.h"
#include "RvoSmartPointer.h"

class RvoDataBlock;
class RvoDataReference;

// Read access to a block that pins it in memory for as long as any const
// accessor to it lives: the first pins it, the last unpins it. A null
// accessor (isNull) has no block: size() 0, data() null.
//
// Threading: the bytes may be read by many threads at once. Counting takes
// the manager's delete lock, then the block's mutex (docs/ARCHITECTURE.md).
class RVODDI_EXPORT RvoConstAccessor
{
public:
    RvoConstAccessor() = default;
    RvoConstAccessor(const RvoConstAccessor &other);
    // Releases what this accessor held and counts what it now holds.
    RvoConstAccessor &operator=(const RvoConstAccessor &other);
    ~RvoConstAccessor();

    bool isNull() const { return m_Block == nullptr; }
    qint64 size() const;
    // Valid while the accessor lives.
    const unsigned char *data() const;
    // Accessors now looking at the block.
    int count() const;

protected:
    friend class RvoDataReference;
    // Pins `block` for `hash`. A null block gives a null accessor.
    RvoConstAccessor(const RvoSmartPointer<RvoDataHash> &hash, RvoDataBlock *block);

private:
    void acquire(bool pin);
    void release();

    RvoDataBlock *m_Block = nullptr; // not owned; pinned while held
    RvoSmartPointer<RvoDataHash> m_DataHash;
};

#endif // RVOCONSTACCESSOR_H
