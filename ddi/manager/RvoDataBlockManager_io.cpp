// Driving the IO threads: flushing and stopping them.

#include "RvoDataBlockManager.h"

#include "RvoDataBlock.h"
#include "RvoDataBlockManagerReadThread_p.h"
#include "RvoDataBlockManagerWriteThread_p.h"
#include "RvoDdiDiagnostics_p.h"
#include "RvoDdiMutexLocker.h"

#include <QThread>

void RvoDataBlockManager::flush(bool writeAll, ThreadType threads)
{
    checkInitialized();
    // The waits run without the delete lock: a write thread takes it to
    // finish a save.
    auto flushThreads = [this, threads] {
        if (threads & ReadThreads) {
            for (RvoDataBlockManagerReadThread *reader : readThreads())
                reader->flush();
        }
        if (threads & WriteThreads) {
            for (RvoDataBlockManagerWriteThread *writer : writeThreads())
                writer->flush();
        }
    };
    flushThreads();
    if (writeAll) {
        {
            RvoDdiMutexLocker locker(&m_DeleteLock);
            for (auto it = m_Blocks.constBegin(); it != m_Blocks.constEnd(); ++it) {
                RvoDataHash *hash = it.key();
                if (!hash) {
                    rvoReport(QStringLiteral("Null Value in Hash to Block Map"));
                    continue;
                }
                if (hash->isDontCache() || it.value()->cached())
                    continue;
                const int index = cacheIndex(hash);
                if (index >= 0 && index < m_WriteThreads.size()) {
                    m_WriteThreads.at(index)->writeBlock(
                            PreloadNormal, RvoSmartPointer<RvoDataHash>(hash), it.value(), false);
                }
            }
        }
        flushThreads();
    }
    QThread::msleep(1);
}

void RvoDataBlockManager::stopAllIoThreads()
{
    checkInitialized();
    flush(false, AllThreads);

    // Taken out under the delete lock, stopped outside it: a thread may need
    // the lock to finish what it is doing.
    QVector<RvoDataBlockManagerReadThread *> readers;
    QVector<RvoDataBlockManagerWriteThread *> writers;
    {
        RvoDdiMutexLocker locker(&m_DeleteLock);
        readers.swap(m_ReadThreads);
        writers.swap(m_WriteThreads);
    }
    for (RvoDataBlockManagerReadThread *reader : std::as_const(readers)) {
        reader->closeDown();
        reader->wait();
        delete reader;
    }
    for (RvoDataBlockManagerWriteThread *writer : std::as_const(writers)) {
        writer->closeDown();
        writer->wait();
        delete writer;
    }
}
