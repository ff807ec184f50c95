#ifndef RVODATABLOCK_H
#define RVODATABLOCK_H

#include "RvoDataHash.h"
#include "RvoDdiGlobal.h"
#include "RvoDdiMutex.h"
#include "RvoSmartPointer.h"

#include <QByteArray>

#include <atomic>

class RvoConstAccessor;
class RvoModifyAccessor;
class RvoBlockLoad;
class RvoDataBlockManagerWriteThread;

// One payload buffer of the cache, held raw or compressed (Qt's qCompress
// format), with its uncompressed size and a count of the accessors that look
// at it.
//
// States: raw <-> compressed (compress/uncompress, both idempotent; data()
// always leaves the block raw). cached() turns true once a copy of the block
// is in the disk cache. size() is the uncompressed size in either form and
// never exceeds what the buffer can give back.
//
// Ownership: a plain heap object. Whoever holds the pointer owns it until it
// is handed to the block manager, which then owns it until it frees it.
//
// Threading: no lock over the payload. Any number of threads may call
// constData() and size() at once; data(), compress(), uncompress() and
// assignment change the buffer and belong to the block's single owner.
// The accessor count and the cached flag may be read from any thread.
class RVODDI_EXPORT RvoDataBlock
{
public:
    // `size` bytes of `fill`. A size that cannot be allocated is reported and
    // gives an empty block.
    RvoDataBlock(qint64 size, unsigned char fill);
    // The same for plain int arguments, which would otherwise be ambiguous
    // with the pointer form below (RvoDataBlock(0, 0)).
    RvoDataBlock(int size, int fill)
        : RvoDataBlock(qint64(size), static_cast<unsigned char>(fill))
    {
    }
    // A deep copy of `size` bytes at `data`.
    RvoDataBlock(const unsigned char *data, qint64 size);
    // A deep copy of `bytes`: the block never shares storage with the caller.
    explicit RvoDataBlock(const QByteArray &bytes);
    // A block over the caller's implicitly shared buffer, without copying
    // it: whichever side writes first detaches. For adding large buffers
    // without a copy.
    static RvoDataBlock *sharing(const QByteArray &bytes);
    // Copies the form (raw or compressed) and bytes; neither the cached flag
    // nor the accessor count.
    RvoDataBlock(const RvoDataBlock &other);
    virtual ~RvoDataBlock();

    // Takes the other block's bytes, form and size; the cached flag, the
    // accessor count and the mutex stay.
    RvoDataBlock &operator=(const RvoDataBlock &other);

    // Raw, writable bytes: uncompresses first if needed and detaches.
    unsigned char *data();
    // The bytes as they are: compressed bytes for a compressed block.
    const unsigned char *constData() const;
    // The uncompressed size, in either form.
    qint64 size() const { return m_Size; }

    // Always true. A compressed block stays as it is.
    bool compress(int level);
    // Always true. A payload that does not give back size() bytes is
    // reported and the block keeps what it did give back.
    bool uncompress();
    bool isCompressed() const { return m_Compressed; }
    bool cached() const { return m_Cached.load(std::memory_order_acquire); }
    // Accessors (const or modify) now looking at the block.
    int accessCount() const { return m_AccessCount.load(std::memory_order_relaxed); }

    // A fresh, uninterned 64-byte digest of the bytes as they stand
    // (compressed bytes for a compressed block).
    RvoSmartPointer<RvoDataHash> hash() const;

    // Equal when both buffers hold the same bytes (same form required).
    bool operator==(const RvoDataBlock &other) const;
    bool operator!=(const RvoDataBlock &other) const { return !(*this == other); }

    // Deletes a block that its owner gives up, or, while saves of it are
    // queued, leaves the deletion to the last of them (a save request holds
    // the block's address without owning it).
    static void dispose(RvoDataBlock *block);

    // The largest block the manager accepts: its budget, at most 2^31 - 1.
    static qint64 maxBlockSize();
    // Always -1: live blocks are not counted.
    static int blockCount() { return -1; }

protected:
    friend class RvoConstAccessor;
    friend class RvoModifyAccessor;
    friend class RvoBlockLoad;
    friend class RvoDataBlockManagerWriteThread;

    // Serialises accessor-count changes. Lock order: after the manager's
    // delete lock (docs/ARCHITECTURE.md).
    RvoDdiMutex m_Mutex {0, RvoDdiMutex::Recursive};
    std::atomic<int> m_AccessCount {0};
    int m_SpareCount = 0;
    QByteArray m_Data;
    qint64 m_Size = 0;
    bool m_Compressed = false;
    // Set by the write thread once the block is on disk, read by others.
    std::atomic<bool> m_Cached {false};

private:
    // A save of this block was queued / has been done; endSave() is true
    // when the block was disposed of meanwhile and is now to be deleted.
    void beginSave();
    bool endSave();

    int m_PendingSaves RVODDI_THREAD_ANNOTATION(guarded_by(m_Mutex)) = 0;
    bool m_Disposed RVODDI_THREAD_ANNOTATION(guarded_by(m_Mutex)) = false;
};

#endif // RVODATABLOCK_H
