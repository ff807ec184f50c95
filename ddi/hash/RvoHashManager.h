#ifndef RVOHASHMANAGER_H
#define RVOHASHMANAGER_H

#include "RvoDataHash.h"
#include "RvoDdiGlobal.h"
#include "RvoDdiMutex.h"
#include "RvoHashHandle.h"
#include "RvoSmartPointer.h"

#include <QList>
#include <QSet>
#include <QString>

// The process-wide registry that interns digests: for every distinct digest
// referenced anywhere there is exactly one registered RvoDataHash, and every
// request for that digest (from bytes, from its text form or from a digest
// object) returns a pointer to that one object. A digest leaves the registry
// when its last reference goes (RvoDataHash::decRef -> removeHash).
//
// Threading: every operation may be called from any thread. The registry
// lock is never held while a digest's own lock is taken: found digests are
// pinned by a bare count increment under the registry lock, which removeHash
// re-checks, and handed out after the registry lock is released.
//
// The instance is made on first use; the first call is to come from one
// thread before others use the library.
class RVODDI_EXPORT RvoHashManager
{
public:
    static RvoHashManager &instance();

    // Interns the 64-byte (Skein-512-512) digest of `length` bytes at `data`:
    // the identity of block contents.
    RvoSmartPointer<RvoDataHash> getHash(const unsigned char *data, qint64 length);
    RvoSmartPointer<RvoDataHash> getHash(const QByteArray &data);
    // Interns the digest named by a text form. A malformed text (not 8, 16 or
    // 32 words) names no digest: the result is null.
    RvoSmartPointer<RvoDataHash> getHash(const QString &text);

    // Interns a digest object that the caller created; ownership passes to
    // the registry. When an equal digest is registered already, `hash` is
    // deleted and the registered object is returned.
    // REQUIRES: no one else holds or counts `hash`.
    RvoSmartPointer<RvoDataHash> addHash(RvoDataHash *hash);

    // Whether the digest named by `text` is registered.
    bool isHashLive(const QString &text);
    // Registered digests.
    int hashCount() const;
    // Appends a pointer to every registered digest to `out` (not cleared).
    void snapshot(QList<RvoSmartPointer<RvoDataHash>> &out) const;

    void clearStats();
    void dumpStats() const;
    void printDebugInfo() const;
    // Reports every registered digest that is not marked don't-cache; a
    // consistency check for the self-checks, run when no ordinary digest
    // should be referenced any more. Reports only.
    void validateState() const;

    RvoHashManager(const RvoHashManager &) = delete;
    RvoHashManager &operator=(const RvoHashManager &) = delete;

protected:
    friend class RvoDataHash;
    // Called by RvoDataHash::decRef, with that digest's lock held, after its
    // count fell to 0. Returns false when the digest was revived meanwhile
    // (it stays registered and alive); true when the caller is to delete it.
    bool removeHash(RvoDataHash *hash);

private:
    RvoHashManager();
    ~RvoHashManager();

    // Interns `fresh` (owned by the call).
    RvoSmartPointer<RvoDataHash> intern(RvoDataHash *fresh, bool countRequest)
            RVODDI_THREAD_ANNOTATION(locks_excluded(m_Lock));
    // A counted pointer to every registered digest, pinned by bare
    // increments under the lock.
    QList<RvoSmartPointer<RvoDataHash>> pinAll() const
            RVODDI_THREAD_ANNOTATION(locks_excluded(m_Lock));

    // Lock order: after any digest's own lock; while it is held no digest
    // lock is ever taken (docs/ARCHITECTURE.md).
    mutable RvoDdiMutex m_Lock {0, RvoDdiMutex::Recursive};
    QSet<RvoHashHandle> m_Table RVODDI_THREAD_ANNOTATION(guarded_by(m_Lock));
    // Statistics.
    int m_Requests RVODDI_THREAD_ANNOTATION(guarded_by(m_Lock)) = 0;
    int m_Hits RVODDI_THREAD_ANNOTATION(guarded_by(m_Lock)) = 0;
    int m_Misses RVODDI_THREAD_ANNOTATION(guarded_by(m_Lock)) = 0;
    int m_Removes RVODDI_THREAD_ANNOTATION(guarded_by(m_Lock)) = 0;
};

#endif // RVOHASHMANAGER_H
