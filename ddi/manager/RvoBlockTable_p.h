#ifndef RVOBLOCKTABLE_P_H
#define RVOBLOCKTABLE_P_H

#include <QtGlobal>

#include <unordered_map>

class RvoDataBlock;
class RvoDataHash;

// The blocks in memory, keyed by their interned digest, with the evictable
// ones in least-recently-used order. The LRU is a list threaded through the
// table's own entries (whose addresses never move), so a lookup, a pin and
// a move to the front are a hash probe and a few pointer changes, whatever
// the number of blocks.
//
// A digest is in the LRU only while its block is in the table and is
// neither pinned nor don't-cache; the table does not check the flags, the
// manager decides.
//
// Threading: none of its own; the manager guards it with its delete lock.
class RvoBlockTable
{
public:
    RvoBlockTable() = default;
    RvoBlockTable(const RvoBlockTable &) = delete;
    RvoBlockTable &operator=(const RvoBlockTable &) = delete;

    RvoDataBlock *find(const RvoDataHash *hash) const;
    bool contains(const RvoDataHash *hash) const { return find(hash) != nullptr; }
    // False (and nothing changed) when the digest has a block already.
    bool insert(RvoDataHash *hash, RvoDataBlock *block);
    // Removes the digest from the table and the LRU; its block, or null.
    RvoDataBlock *take(const RvoDataHash *hash);

    bool inLru(const RvoDataHash *hash) const;
    // Puts a digest of the table at the front, or moves it there. False
    // when the digest has no block here.
    bool touch(const RvoDataHash *hash);
    // False when the digest was not in the LRU.
    bool removeFromLru(const RvoDataHash *hash);
    // The least recently used digest, or null.
    RvoDataHash *leastRecentlyUsed() const { return m_Tail ? m_Tail->hash : nullptr; }

    qint64 size() const { return qint64(m_Entries.size()); }
    qint64 lruSize() const { return m_LruSize; }

    // Calls f(hash, block) for every entry; f must not change the table.
    template<class F>
    void forEach(F f) const
    {
        for (const auto &entry : m_Entries)
            f(entry.second.hash, entry.second.block);
    }

    // Empties the table; the blocks are the caller's.
    void clear();

private:
    struct Entry
    {
        RvoDataHash *hash;
        RvoDataBlock *block;
        Entry *newer = nullptr; // toward the front
        Entry *older = nullptr; // toward the back
        bool inLru = false;
    };

    Entry *entry(const RvoDataHash *hash);
    void unlink(Entry *e);
    void linkFront(Entry *e);

    std::unordered_map<const RvoDataHash *, Entry> m_Entries;
    Entry *m_Head = nullptr; // most recently used
    Entry *m_Tail = nullptr; // least recently used
    qint64 m_LruSize = 0;
};

#endif // RVOBLOCKTABLE_P_H
