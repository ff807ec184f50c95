#ifndef RVODATAHASH_H
#define RVODATAHASH_H

#include "RvoDdiGlobal.h"
#include "RvoDdiMutex.h"
#include "RvoSmartPointer.h"

#include <QByteArray>
#include <QString>

#include <atomic>
#include <memory>

class RvoHashManager;

// The identity of a data block: a Skein digest of its bytes (32, 64 or 128
// bytes; content digests are always 64), with the little per-block state kept
// beside it: a reference count, a user id, a don't-cache and a preloading flag,
// and a per-digest recursive lock.
//
// Digests are interned by RvoHashManager, so while a digest is referenced one
// object stands for it and identity is pointer identity. Objects are shared
// through RvoSmartPointer<RvoDataHash>; when the last pointer goes, the digest
// leaves the registry, the block stored under it is released and the object
// deletes itself.
//
// States: unregistered (a temporary, or just built by the registry) ->
// registered with count >= 1 -> count 0 and removed from the registry ->
// deleted. A registered object whose count touches 0 may be revived by a
// concurrent lookup; removal re-checks the count under the registry lock.
//
// Threading: the digest bytes are fixed once the object is shared; the count,
// user id and flags may be read and changed from any thread.
class RVODDI_EXPORT RvoDataHash
{
public:
    // The digest length in bytes; the Skein output is eight times as many bits.
    enum Size { Skein256 = 32, Skein512 = 64, Skein1024 = 128 };

    // Size 32, no bytes: an empty digest.
    RvoDataHash();
    // Adopts an existing digest: copies `size` bytes at `digest`.
    RvoDataHash(Size size, const unsigned char *digest);
    // Computes the digest of `length` bytes at `data`.
    RvoDataHash(const unsigned char *data, qint64 length, Size size);
    RvoDataHash(const QByteArray &data, Size size);
    // Parses the text form (see fromString); a malformed text leaves the
    // digest empty.
    explicit RvoDataHash(const QString &text);
    // Copies size, bytes and user id; count 0 and flags clear.
    RvoDataHash(const RvoDataHash &other);
    ~RvoDataHash();

    // Copies size, bytes and user id only; count, flags and lock stay.
    RvoDataHash &operator=(const RvoDataHash &other);

    Size size() const { return m_Size; }
    // The digest bytes; byteCount() of them (size() once the digest is set).
    const unsigned char *data() const { return m_Large ? m_Large.get() : m_Inline; }
    int byteCount() const { return m_Length; }
    bool isEmpty() const { return m_Length == 0; }

    int refCount() const { return m_RefCount.load(std::memory_order_acquire); }
    int userId() const { return m_UserId.load(std::memory_order_relaxed); }
    void setUserId(int id) { m_UserId.store(id, std::memory_order_relaxed); }
    bool isDontCache() const { return m_DontCache.load(std::memory_order_relaxed); }
    void setDontCache(bool dontCache) { m_DontCache.store(dontCache, std::memory_order_relaxed); }
    bool isPreloading() const { return m_Preloading.load(std::memory_order_relaxed); }
    void setPreloading(bool preloading)
    {
        m_Preloading.store(preloading, std::memory_order_relaxed);
    }

    // The per-digest lock, also used by callers as a per-block lock.
    // Lock order: a digest's lock comes before the registry lock. Outside
    // the thread-safety analysis: the manager takes it in one function and
    // lets it go in another (eviction hands it to freeBlock).
    bool tryLock() RVODDI_THREAD_ANNOTATION(no_thread_safety_analysis) { return m_Lock.tryLock(); }
    void unlock() RVODDI_THREAD_ANNOTATION(no_thread_safety_analysis) { m_Lock.unlock(); }

    // Equal when sizes, byte lengths and bytes are equal.
    bool operator==(const RvoDataHash &other) const;
    bool operator!=(const RvoDataHash &other) const { return !(*this == other); }

    // qHash of the digest bytes: the registry's key hash.
    RvoQHashType qhash(RvoQHashType seed = 0) const;

    // The text form: each 32-bit little-endian word in decimal, joined by
    // "-". It names block files, so it never changes.
    QString toString() const;
    // Parses the text form. A text of other than 8, 16 or 32 words leaves
    // the bytes empty and the size unchanged; a word that is not a decimal
    // number reads as 0.
    void fromString(const QString &text);

    // Live RvoDataHash objects in the process.
    static int hashCount();

protected:
    // Computes the digest of `length` bytes at `data` into this object,
    // at the current size.
    void calculate(const unsigned char *data, qint64 length);

    void incRef();
    // Drops one count. A count that stays positive takes only this digest's
    // lock; the last one goes through the block manager, which removes the
    // digest from the registry and its block from memory, then deletes this
    // object.
    void decRef();

private:
    friend class RvoSmartPointer<RvoDataHash>;
    friend class RvoHashManager;
    friend class RvoDataBlockManager;

    // Drops the count that the caller holds as the last one; true when it
    // reached zero and the registry let the digest go (the caller then
    // deletes it), false when a lookup revived it meanwhile.
    // REQUIRES: the block manager's delete lock held.
    bool dropLastReference();

    // Raises the count without the digest's lock. Only for the registry,
    // under its own lock, where removeHash re-checks the count.
    void bareIncRef() { m_RefCount.fetch_add(1, std::memory_order_acq_rel); }

    // Sets size and reserves `size` zero bytes; false for an unusable size.
    bool resize(int size);
    unsigned char *writableData() { return m_Large ? m_Large.get() : m_Inline; }

    Size m_Size = Skein256;
    int m_Length = 0; // bytes held: 0 or m_Size
    std::atomic<int> m_RefCount {0};
    std::atomic<int> m_UserId {0};
    std::atomic<bool> m_DontCache {false};
    std::atomic<bool> m_Preloading {false};
    // Guards count transitions (of an atomic count: no field for the
    // analysis to check). Lock order: before the registry lock; never taken
    // while the registry lock is held.
    RvoDdiMutex m_Lock {0, RvoDdiMutex::Recursive};
    // Digests of up to 64 bytes live inline; 128-byte ones on the heap.
    std::unique_ptr<unsigned char[]> m_Large;
    unsigned char m_Inline[Skein512];

    static std::atomic<int> m_NumHashes;
};

#endif // RVODATAHASH_H
