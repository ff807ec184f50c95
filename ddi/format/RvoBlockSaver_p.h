#ifndef RVOBLOCKSAVER_P_H
#define RVOBLOCKSAVER_P_H

#include "RvoBlockCodecSetting_p.h"
#include "RvoConditionVariable_p.h"
#include "RvoMutex_p.h"

#include <QByteArray>
#include <QString>

#include <chrono>
#include <deque>
#include <memory>
#include <thread>
#include <vector>

class RvoBlockCodec;

// Saves blocks into block files ahead of the write threads, on a few
// background threads shared by every cache root (one per core).
//
// A write thread serves its queue one save at a time, and compressing a
// block costs several times what writing its file does; with one thread per
// root doing both, a single core bounds how fast blocks reach the disk. Here
// each save is submitted as it is queued; a worker compresses the block and
// publishes its file, and when the save's turn comes the write thread only
// collects the outcome (and does the save itself when no worker could).
//
// The workers run at a lowered operating-system priority (Linux: nice 10),
// so that compressing and writing yield to the host's threads and to
// hashing and use cores that would otherwise idle; a write thread that
// catches up waits for them rather than saving at its own priority. At
// nice 10 a worker still gets about a tenth of a core that others want, so
// saves slow down on a saturated machine but never stop.
//
// A block file is written under a temporary name in its bucket directory and
// renamed when complete, so a reader never meets a half-written file and a
// killed process leaves at most a stray temporary file.
//
// Threading: every function may be called from any thread. m_Lock guards
// the job queue, every job's fields and m_Stopping; it is a leaf of the
// library's lock order (docs/ARCHITECTURE.md): nothing is called out of
// this class while it is held.
class RvoBlockSaver
{
public:
    class Job;
    using JobPtr = std::shared_ptr<Job>;

    // What became of a save. A save the file system refused is not
    // reported here: its caller decides whether and when to say so, since a
    // full disk refuses every save and each would say the same.
    struct Outcome
    {
        bool onDisk = false; // the block file is there: written, or found
        qint64 written = 0; // payload bytes this save wrote (0 when found)
        // Opening, writing or renaming the file failed (a full disk, an
        // IO error, no permission): the same save may succeed later.
        bool refused = false;
        QString report; // for a refused save: "Cannot Open File <name>" or
                        // "Cannot Write File <name>"
        QString error; // for a refused save: the system's reason
        // for a refused save: when the refused attempt began
        std::chrono::steady_clock::time_point attemptedAt {};
    };

    // The process's saver. Its threads start on the first submit().
    static RvoBlockSaver &instance();
    // Stops and joins the workers; queued jobs are left to finish().
    ~RvoBlockSaver();

    // Queues the save of `data` (a block's raw bytes; the job shares them, so
    // the block may go meanwhile) into directory/fileName, compressed as
    // `setting` says. Never fails; the result is never null.
    JobPtr submit(const QByteArray &data, const QString &directory, const QString &fileName,
                  const RvoBlockCodecSetting &setting = {});

    // The save of `data` into directory/fileName. When `job` was submitted
    // for that file, waits for a worker to do it (moving a queued job to the
    // front of the queue); saves here with `codec` when there is no job, no
    // worker took it (no workers, exit) or it was for another directory (the
    // sub-cache changed meanwhile), as codec.setting() says. Call at most once
    // per job.
    Outcome finish(const JobPtr &job, const QByteArray &data, const QString &directory,
                   const QString &fileName, RvoBlockCodec &codec);

    // Lets go of a job whose save is not wanted: a worker that has not
    // started it never will; one saving it now is waited for, so that no
    // file is written afterwards. Null and finished jobs are fine.
    void cancel(const JobPtr &job);

    // Jobs queued and not yet started by a worker (for tests).
    int pendingJobs() const;

    // Saves on the calling thread: nothing when the file exists, otherwise
    // compresses `data` as codec.setting() says and publishes the file.
    static Outcome save(RvoBlockCodec &codec, const QByteArray &data, const QString &directory,
                        const QString &fileName);
    // The same for a payload compressed already (`size`: the block's size).
    static Outcome save(qint64 size, const char *payload, qint64 length, const QString &directory,
                        const QString &fileName);

private:
    RvoBlockSaver();
    Q_DISABLE_COPY_MOVE(RvoBlockSaver)

    // Starts one worker per core, or as many as the system gives.
    void startWorkers() REQUIRES(m_Lock);
    void work();
    // Takes a job out of the workers' reach, with its bytes.
    QByteArray claim(Job &job) REQUIRES(m_Lock);
    // Whether a finish() of `job` is done waiting for the workers.
    bool settled(const Job &job) const REQUIRES(m_Lock);
    // Writes the block file of a payload (length -1: the block could not be
    // compressed), creating its bucket directory. Reports a block that can
    // never be written; a refused save is left to the caller.
    static Outcome write(qint64 size, const char *payload, qint64 length, const QString &directory,
                         const QString &fileName);
    // Writes header and payload to a temporary file and renames it to
    // directory/fileName. A refused outcome, with nothing left behind, when
    // that fails.
    static Outcome publish(const QString &directory, const QString &fileName, qint64 size,
                           const char *payload, qint64 length);

    // Guards m_Jobs, every job's fields (Job, in the .cpp file, cannot name
    // this lock for the analysis), m_Stopping and m_Workers. Lock order: a
    // leaf.
    mutable RvoMutex m_Lock;
    // Signalled when a job is queued, and when stopping.
    RvoConditionVariable m_Queued;
    // Signalled when a worker finishes a job and when stopping (finish()
    // and cancel() wait on it).
    RvoConditionVariable m_Finished;
    std::deque<JobPtr> m_Jobs GUARDED_BY(m_Lock);
    std::vector<std::thread> m_Workers GUARDED_BY(m_Lock);
    bool m_Stopping GUARDED_BY(m_Lock) = false;
};

#endif // RVOBLOCKSAVER_P_H
