#include "RvoBlockSaver_p.h"

#include "RvoBlockCodec_p.h"
#include "RvoBlockFile_p.h"
#include "RvoBufferPool_p.h"
#include "RvoDdiDiagnostics_p.h"
#include "RvoDiskLayout_p.h"
#include "RvoMutexLocker_p.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QThread>

#ifdef Q_OS_LINUX
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <atomic>
#include <limits>
#include <system_error>
#include <utility>

namespace {

// How far the workers step back. At nice 10 a worker gets about a tenth of a
// core that a host thread also wants, so it still makes progress there, and
// all of an idle core.
constexpr int WorkerNice = 10;

// Names the worker for `top -H` and debuggers and lowers its priority.
void becomeBackgroundWorker()
{
#ifdef Q_OS_LINUX
    pthread_setname_np(pthread_self(), "rvoddi-save");
    // On Linux the nice value is per thread (a thread id names it). Failure
    // only leaves the worker at its normal priority.
    setpriority(PRIO_PROCESS, id_t(syscall(SYS_gettid)), WorkerNice);
#endif
}

// Whether the block file is there already: equal content saved before, or
// by another process sharing the root. Asked under the block-file lock, so
// that no collector deletes the file on an older look at the registry.
bool alreadySaved(const QString &directory, const QString &fileName)
{
    RvoMutexLocker fileLocker(blockFileLock());
    return QFile::exists(directory + QDir::separator() + fileName);
}

// A save that finds its file there already.
RvoBlockSaver::Outcome found()
{
    RvoBlockSaver::Outcome outcome;
    outcome.onDisk = true;
    return outcome;
}

} // namespace

// A job's states: queued (Queued, in m_Jobs), being saved by a worker
// (Running), saved by a worker (Done, with its outcome), or claimed by
// finish() or cancel() before a worker started it (Claimed), after which no
// worker touches it.
class RvoBlockSaver::Job
{
public:
    enum State { Queued, Running, Done, Claimed };

    State state = Queued;
    QByteArray data;
    QString directory;
    QString fileName;
    RvoBlockCodecSetting setting;
    Outcome outcome;
};

RvoBlockSaver::RvoBlockSaver()
{
    // Workers hand buffers back until the destructor joins them: the pool
    // is made first so that it is destroyed after this.
    RvoBufferPool::instance();
}

RvoBlockSaver::~RvoBlockSaver()
{
    std::vector<std::thread> workers;
    {
        RvoMutexLocker locker(m_Lock);
        m_Stopping = true;
        workers.swap(m_Workers);
    }
    m_Queued.notifyAll();
    m_Finished.notifyAll();
    for (std::thread &worker : workers)
        worker.join();
}

RvoBlockSaver &RvoBlockSaver::instance()
{
    static RvoBlockSaver saver;
    return saver;
}

RvoBlockSaver::JobPtr RvoBlockSaver::submit(const QByteArray &data, const QString &directory,
                                            const QString &fileName,
                                            const RvoBlockCodecSetting &setting)
{
    auto job = std::make_shared<Job>();
    job->data = data;
    job->directory = directory;
    job->fileName = fileName;
    job->setting = setting;
    {
        RvoMutexLocker locker(m_Lock);
        if (!m_Stopping && m_Workers.empty())
            startWorkers();
        // Exit has begun, or the system gave no threads: finish() saves on
        // its caller.
        if (m_Stopping || m_Workers.empty()) {
            job->state = Job::Claimed;
            return job;
        }
        m_Jobs.push_back(job);
    }
    m_Queued.notifyOne();
    return job;
}

void RvoBlockSaver::startWorkers()
{
    const int count = qMax(1, QThread::idealThreadCount());
    for (int i = 0; i < count; ++i) {
        try {
            m_Workers.emplace_back([this] { work(); });
        } catch (const std::system_error &) {
            // The system has no thread for us: run with those we have.
            break;
        }
    }
}

bool RvoBlockSaver::settled(const Job &job) const
{
    return job.state == Job::Done || job.state == Job::Claimed
            || (job.state == Job::Queued && m_Stopping);
}

QByteArray RvoBlockSaver::claim(Job &job)
{
    job.state = Job::Claimed;
    return std::exchange(job.data, QByteArray());
}

RvoBlockSaver::Outcome RvoBlockSaver::finish(const JobPtr &job, const QByteArray &data,
                                             const QString &directory, const QString &fileName,
                                             RvoBlockCodec &codec)
{
    if (job) {
        RvoMutexLocker locker(m_Lock);
        const bool sameFile = job->directory == directory && job->fileName == fileName;
        if (job->state == Job::Queued && sameFile && !m_Stopping) {
            // Wanted now: it goes before the jobs queued ahead of it.
            const auto queued = std::find(m_Jobs.begin(), m_Jobs.end(), job);
            if (queued != m_Jobs.end() && queued != m_Jobs.begin()) {
                m_Jobs.erase(queued);
                m_Jobs.push_front(job);
            }
        } else if (job->state == Job::Queued) {
            claim(*job); // saved below, to the file wanted now
        }
        // The caller waits for the workers rather than saving at its own
        // priority: saving stays background work even when the write thread
        // has caught up with it.
        while (!settled(*job))
            m_Finished.wait(m_Lock);
        if (job->state == Job::Queued)
            claim(*job); // left behind at exit
        else if (job->state == Job::Done && sameFile)
            return job->outcome;
    }
    return save(codec, data, directory, fileName);
}

void RvoBlockSaver::cancel(const JobPtr &job)
{
    if (!job)
        return;
    QByteArray data; // released outside the lock
    {
        RvoMutexLocker locker(m_Lock);
        // A save in progress is let finish: its caller may remove the
        // directory as soon as this returns.
        while (job->state == Job::Running)
            m_Finished.wait(m_Lock);
        if (job->state == Job::Queued)
            data = claim(*job);
    }
}

int RvoBlockSaver::pendingJobs() const
{
    RvoMutexLocker locker(m_Lock);
    int pending = 0;
    for (const JobPtr &job : m_Jobs)
        pending += job->state == Job::Queued ? 1 : 0;
    return pending;
}

void RvoBlockSaver::work()
{
    becomeBackgroundWorker();
    // One compressor per worker, kept for the thread's life: its working
    // state is large, and made only for the codecs the jobs ask for.
    RvoBlockCodec codec;
    RvoMutexLocker locker(m_Lock);
    for (;;) {
        while (!m_Stopping && m_Jobs.empty())
            m_Queued.wait(m_Lock);
        if (m_Stopping)
            return;
        JobPtr job = std::move(m_Jobs.front());
        m_Jobs.pop_front();
        if (job->state != Job::Queued)
            continue; // claimed before its turn (its bytes are gone already)
        job->state = Job::Running;
        QByteArray data = std::exchange(job->data, QByteArray());
        const QString directory = job->directory;
        const QString fileName = job->fileName;
        codec.setSetting(job->setting);
        locker.unlock();

        const Outcome outcome = save(codec, data, directory, fileName);
        data = QByteArray();

        locker.relock();
        job->outcome = outcome;
        job->state = Job::Done;
        locker.unlock();
        m_Finished.notifyAll();
        job.reset();
        locker.relock();
    }
}

RvoBlockSaver::Outcome RvoBlockSaver::save(RvoBlockCodec &codec, const QByteArray &data,
                                           const QString &directory, const QString &fileName)
{
    // Nothing to compress then.
    if (alreadySaved(directory, fileName))
        return found();
    const qint64 bound = codec.compressBound(data.size());
    RvoBufferPool::Buffer buffer;
    qint64 length = -1;
    if (bound >= 0)
        buffer = RvoBufferPool::instance().acquire(bound);
    if (!buffer.isNull())
        length = codec.compress(data.constData(), data.size(), buffer.data(), buffer.capacity());
    const Outcome outcome = write(data.size(), buffer.data(), length, directory, fileName);
    RvoBufferPool::instance().release(std::move(buffer));
    return outcome;
}

RvoBlockSaver::Outcome RvoBlockSaver::save(qint64 size, const char *payload, qint64 length,
                                           const QString &directory, const QString &fileName)
{
    if (alreadySaved(directory, fileName))
        return found();
    return write(size, payload, length, directory, fileName);
}

RvoBlockSaver::Outcome RvoBlockSaver::write(qint64 size, const char *payload, qint64 length,
                                            const QString &directory, const QString &fileName)
{
    if (length < 0 || length > std::numeric_limits<qint32>::max()) {
        rvoReport(QStringLiteral("Block %1 of %2 bytes does not fit a block file")
                          .arg(fileName)
                          .arg(size));
        return {};
    }
    // A bucket directory that exists already is left as it is; one that
    // cannot be made shows as the temporary file failing to open.
    QDir().mkpath(directory);
    return publish(directory, fileName, size, payload, length);
}

RvoBlockSaver::Outcome RvoBlockSaver::publish(const QString &directory, const QString &fileName,
                                              qint64 size, const char *payload, qint64 length)
{
    // Taken before the attempt: a thread preempted after its write failed
    // must not pass a refusal from before saves succeeded again for a new
    // one.
    const auto attemptedAt = std::chrono::steady_clock::now();
    auto refused = [&fileName, attemptedAt](const char *report, const QString &error) {
        Outcome outcome;
        outcome.refused = true;
        outcome.report = QLatin1String(report) + fileName;
        outcome.error = error;
        outcome.attemptedAt = attemptedAt;
        return outcome;
    };
    static std::atomic<quint64> serial {0};
    // Never exactly 15 "-": the collector cannot take it for a block file.
    const QString temporary = directory + QDir::separator()
            + QStringLiteral("write-%1-%2-%3.tmp")
                      .arg(fileName)
                      .arg(QCoreApplication::applicationPid())
                      .arg(serial.fetch_add(1, std::memory_order_relaxed));
    QFile file(temporary);
    // Unbuffered: a refused write fails at once, with the system's reason.
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered))
        return refused("Cannot Open File ", file.errorString());
    char header[RvoBlockFile::kHeaderSize];
    RvoBlockFile::writeHeader(header, size, qint32(length));
    // A full disk takes part of a write without an error; the write of the
    // rest then fails with the system's reason.
    auto writeAll = [&file](const char *bytes, qint64 count) {
        while (count > 0) {
            const qint64 done = file.write(bytes, count);
            if (done <= 0)
                return false;
            bytes += done;
            count -= done;
        }
        return true;
    };
    const bool written = writeAll(header, RvoBlockFile::kHeaderSize) && writeAll(payload, length);
    const QString writeError = file.errorString();
    file.close();
    if (!written) {
        QFile::remove(temporary);
        return refused("Cannot Write File ", writeError);
    }
    // rename never replaces: when another writer published the same digest
    // first, its file holds the same content and this copy goes. The file
    // met there counts as saved, so it is met under the block-file lock.
    const QString path = directory + QDir::separator() + fileName;
    RvoMutexLocker fileLocker(blockFileLock());
    if (!file.rename(path)) {
        const QString renameError = file.errorString();
        QFile::remove(temporary);
        if (!QFile::exists(path))
            return refused("Cannot Write File ", renameError);
    }
    Outcome outcome;
    outcome.onDisk = true;
    outcome.written = length;
    return outcome;
}
