#include "RvoBlockTable_p.h"

RvoDataBlock *RvoBlockTable::find(const RvoDataHash *hash) const
{
    const auto it = m_Entries.find(hash);
    return it == m_Entries.end() ? nullptr : it->second.block;
}

RvoBlockTable::Entry *RvoBlockTable::entry(const RvoDataHash *hash)
{
    const auto it = m_Entries.find(hash);
    return it == m_Entries.end() ? nullptr : &it->second;
}

bool RvoBlockTable::insert(RvoDataHash *hash, RvoDataBlock *block)
{
    return m_Entries.emplace(hash, Entry {hash, block}).second;
}

RvoDataBlock *RvoBlockTable::take(const RvoDataHash *hash)
{
    const auto it = m_Entries.find(hash);
    if (it == m_Entries.end())
        return nullptr;
    RvoDataBlock *block = it->second.block;
    if (it->second.inLru)
        unlink(&it->second);
    m_Entries.erase(it);
    return block;
}

bool RvoBlockTable::inLru(const RvoDataHash *hash) const
{
    const auto it = m_Entries.find(hash);
    return it != m_Entries.end() && it->second.inLru;
}

bool RvoBlockTable::touch(const RvoDataHash *hash)
{
    Entry *e = entry(hash);
    if (!e)
        return false;
    if (e == m_Head)
        return true;
    if (e->inLru)
        unlink(e);
    linkFront(e);
    return true;
}

bool RvoBlockTable::removeFromLru(const RvoDataHash *hash)
{
    Entry *e = entry(hash);
    if (!e || !e->inLru)
        return false;
    unlink(e);
    return true;
}

void RvoBlockTable::clear()
{
    m_Entries.clear();
    m_Head = nullptr;
    m_Tail = nullptr;
    m_LruSize = 0;
}

void RvoBlockTable::unlink(Entry *e)
{
    (e->newer ? e->newer->older : m_Head) = e->older;
    (e->older ? e->older->newer : m_Tail) = e->newer;
    e->newer = nullptr;
    e->older = nullptr;
    e->inLru = false;
    --m_LruSize;
}

void RvoBlockTable::linkFront(Entry *e)
{
    e->newer = nullptr;
    e->older = m_Head;
    (m_Head ? m_Head->newer : m_Tail) = e;
    m_Head = e;
    e->inLru = true;
    ++m_LruSize;
}
