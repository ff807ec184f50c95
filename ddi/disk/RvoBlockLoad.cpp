#include "RvoBlockLoad_p.h"

#include "RvoDataBlock.h"
#include "RvoDiskHost_p.h"
#include "RvoTsan_p.h"

#include <QDir>

RvoBlockLoad::RvoBlockLoad(RvoDiskHost &host, RvoSmartPointer<RvoDataHash> hash, bool makeLive,
                           QString directory, QString fileName, std::shared_ptr<RvoDiskUsage> usage)
    : m_Host(&host)
    , m_Hash(std::move(hash))
    , m_MakeLive(makeLive)
    , m_Directory(std::move(directory))
    , m_FileName(std::move(fileName))
    , m_Usage(std::move(usage))
{
    m_Promise.reportStarted();
}

QString RvoBlockLoad::path() const
{
    return m_Directory + QDir::separator() + m_FileName;
}

void RvoBlockLoad::finish(QByteArray bytes, qint64 size, bool onDisk)
{
    auto *block = new RvoDataBlock(0, 0);
    block->m_Data = std::move(bytes);
    block->m_Size = size;
    block->m_Compressed = false;
    block->m_Cached.store(onDisk, std::memory_order_release);
    if (m_MakeLive) {
        // The manager owns it from here and may drop it as a duplicate.
        m_Host->makeBlockLive(m_Hash.data(), block);
        block = nullptr;
    } else {
        rvoHappensBefore(block);
    }
    m_Promise.reportResult(block);
    m_Promise.reportFinished();
}

void RvoBlockLoad::fail()
{
    m_Promise.reportCanceled();
    m_Promise.reportFinished();
}
