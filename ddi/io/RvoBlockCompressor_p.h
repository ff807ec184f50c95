#ifndef RVOBLOCKCOMPRESSOR_P_H
#define RVOBLOCKCOMPRESSOR_P_H

#include "RvoBufferPool_p.h"

#include <QByteArray>
#include <QString>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class RvoBlockCodec;

// Compresses queued blocks for the write threads ahead of time, on a few
// background threads shared by every cache root (one per core).
//
// A write thread writes its files one at a time, and compressing a block
// costs several times what writing its file does; with one thread per root
// doing both, a single core bounds how fast blocks reach the disk. Here the
// write thread submits each save as it is queued and, when the save's turn
// comes, takes the payload that a worker has usually made by then.
//
// The workers run at a lowered operating-system priority (Linux: nice 10),
// so that compression yields to the host's threads and to hashing and uses
// cores that would otherwise idle; a write thread that catches up waits for
// them rather than compressing at its own priority. At nice 10 a worker
// still gets about a tenth of a core that others want, so writes slow down
// on a saturated machine but never stop.
//
// Threading: every function may be called from any thread. m_Lock guards
// the job queue, every job's state and m_Stopping; it is a leaf of the
// library's lock order (RvoDataBlockManager.h): nothing is called out of
// this class while it is held.
class RvoBlockCompressor
{
public:
    class Job;
    using JobPtr = std::shared_ptr<Job>;

    // A block file's payload in a pooled buffer; size -1 when there is none.
    struct Payload
    {
        RvoBufferPool::Buffer buffer;
        qint64 size = -1;
        bool isNull() const { return size < 0; }
        const char *data() const { return buffer.data(); }
    };

    // Compresses data into a pooled buffer on the calling thread.
    static Payload compress(RvoBlockCodec &codec, const QByteArray &data);
    // Gives the payload's buffer back to the pool.
    static void release(Payload payload);

    // The process's compressor. Its threads start on the first submit().
    static RvoBlockCompressor &instance();
    // Stops and joins the workers; queued jobs are dropped.
    ~RvoBlockCompressor();

    // Queues the compression of `data` (a block's raw bytes; the job shares
    // them, so the block may go meanwhile). A worker that finds a file at
    // `path` by the time it starts skips the job: the write thread will not
    // need its payload. Never fails; the result is never null.
    JobPtr submit(const QByteArray &data, const QString &path);

    // The job's payload (RvoBlockCodec::compress of its bytes; release() it
    // when written). Waits for a
    // worker to make it, moving the job to the front of the queue; compresses
    // here with `codec` only when a worker skipped the job, when there are no
    // workers, or at exit. Null when the bytes cannot be compressed. Call at
    // most once per job.
    Payload take(const JobPtr &job, RvoBlockCodec &codec);

    // Lets go of a job whose payload is not wanted: a worker that has not
    // started it never will, and its bytes are released now. Null is fine.
    void cancel(const JobPtr &job);

    // Jobs queued and not yet started by a worker (for tests).
    int pendingJobs() const;

    // Payloads being made or made and not yet taken, at most, per worker
    // (a wanted job goes beyond): workers wait
    // rather than run far ahead of the write threads, since each payload
    // holds a buffer as large as its block.
    static constexpr int kReadyPerWorker = 2;

private:
    RvoBlockCompressor();
    Q_DISABLE_COPY_MOVE(RvoBlockCompressor)

    // Starts one worker per core, or as many as the system gives. Requires
    // m_Lock.
    void startWorkers();
    void work();
    // Whether a worker may take the front job now. Requires m_Lock.
    bool canStart() const;
    // A ready payload was taken or dropped. Requires m_Lock.
    void tookReady();
    // Takes the job out of the workers' reach and its bytes out of the job.
    // Requires m_Lock.
    static QByteArray claim(Job &job);

    // Guards m_Jobs, every job's fields, m_Ready, m_MaxReady, m_Stopping and
    // m_Workers.
    // Lock order: a leaf (see RvoDataBlockManager.h).
    mutable std::mutex m_Lock;
    // Signalled when a job is queued, wanted or may start, and when stopping.
    std::condition_variable m_Queued;
    // Signalled when a worker finishes a job and when stopping (take()
    // waits on it).
    std::condition_variable m_Finished;
    std::deque<JobPtr> m_Jobs;
    std::vector<std::thread> m_Workers;
    // Payloads being made or made and not taken yet.
    int m_Ready = 0;
    int m_MaxReady = 0;
    bool m_Stopping = false;
};

#endif // RVOBLOCKCOMPRESSOR_P_H
