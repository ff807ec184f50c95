#include "RvoBlockCompressor_p.h"

#include "RvoBlockCodec_p.h"

#include <QFile>
#include <QThread>

#ifdef Q_OS_LINUX
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

#include <algorithm>
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
    pthread_setname_np(pthread_self(), "rvoddi-compress");
    // On Linux the nice value is per thread (a thread id names it). Failure
    // only leaves the worker at its normal priority.
    setpriority(PRIO_PROCESS, id_t(syscall(SYS_gettid)), WorkerNice);
#endif
}

} // namespace

// A job's states: queued (Queued, in m_Jobs), being compressed by a worker
// (Running), finished by a worker (Done, with its payload, or skipped when
// the file existed), or claimed by take() or cancel() (Claimed), after which
// no worker touches it.
class RvoBlockCompressor::Job
{
public:
    enum State { Queued, Running, Done, Claimed };

    State state = Queued;
    bool skipped = false;
    bool cancelled = false; // while Running: nobody wants the payload
    bool wanted = false; // a write thread waits for it: start it first
    QByteArray data;
    QString path;
    Payload payload;
};

RvoBlockCompressor::RvoBlockCompressor()
{
    // Workers hand buffers back until the destructor joins them: the pool
    // is made first so that it is destroyed after this.
    RvoBufferPool::instance();
}

RvoBlockCompressor::~RvoBlockCompressor()
{
    {
        std::lock_guard<std::mutex> locker(m_Lock);
        m_Stopping = true;
    }
    m_Queued.notify_all();
    m_Finished.notify_all();
    for (std::thread &worker : m_Workers)
        worker.join();
}

RvoBlockCompressor &RvoBlockCompressor::instance()
{
    static RvoBlockCompressor compressor;
    return compressor;
}

RvoBlockCompressor::JobPtr RvoBlockCompressor::submit(const QByteArray &data, const QString &path)
{
    auto job = std::make_shared<Job>();
    job->data = data;
    job->path = path;
    {
        std::lock_guard<std::mutex> locker(m_Lock);
        if (m_Stopping) {
            // Exit has begun: take() compresses on the caller.
            job->state = Job::Claimed;
            return job;
        }
        if (m_Workers.empty())
            startWorkers();
        // Without workers take() compresses every job on its caller.
        if (!m_Workers.empty())
            m_Jobs.push_back(job);
        else
            job->state = Job::Claimed;
    }
    m_Queued.notify_one();
    return job;
}

void RvoBlockCompressor::startWorkers()
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
    m_MaxReady = kReadyPerWorker * qMax(1, int(m_Workers.size()));
}

QByteArray RvoBlockCompressor::claim(Job &job)
{
    job.state = Job::Claimed;
    job.path.clear();
    return std::exchange(job.data, QByteArray());
}

RvoBlockCompressor::Payload RvoBlockCompressor::compress(RvoBlockCodec &codec,
                                                         const QByteArray &data)
{
    Payload payload;
    const qint64 bound = codec.compressBound(data.size());
    if (bound < 0)
        return payload;
    payload.buffer = RvoBufferPool::instance().acquire(bound);
    if (!payload.buffer.isNull()) {
        payload.size = codec.compress(data.constData(), data.size(), payload.buffer.data(),
                                      payload.buffer.capacity());
    }
    return payload;
}

void RvoBlockCompressor::release(Payload payload)
{
    RvoBufferPool::instance().release(std::move(payload.buffer));
}

RvoBlockCompressor::Payload RvoBlockCompressor::take(const JobPtr &job, RvoBlockCodec &codec)
{
    if (!job)
        return Payload();
    QByteArray data;
    {
        std::unique_lock<std::mutex> locker(m_Lock);
        if (job->state == Job::Queued) {
            // Wanted now: it goes before the jobs queued ahead of it, and a
            // worker starts it even when the ready payloads are at their
            // limit (those may wait for this one to be written first).
            job->wanted = true;
            const auto queued = std::find(m_Jobs.begin(), m_Jobs.end(), job);
            if (queued != m_Jobs.end() && queued != m_Jobs.begin()) {
                m_Jobs.erase(queued);
                m_Jobs.push_front(job);
            }
            m_Queued.notify_all();
        }
        // The caller waits for the workers rather than compressing at its own
        // priority: compression stays background work even when the write
        // thread has caught up with it.
        m_Finished.wait(locker, [this, &job] {
            return job->state == Job::Done || job->state == Job::Claimed
                    || (job->state == Job::Queued && m_Stopping);
        });
        if (job->state == Job::Done && !job->skipped) {
            job->state = Job::Claimed;
            tookReady();
            return std::exchange(job->payload, Payload());
        }
        // Skipped (the file was there then), submitted without workers, or
        // left behind at exit: compress here.
        data = job->state == Job::Claimed ? std::exchange(job->data, QByteArray()) : claim(*job);
    }
    return compress(codec, data);
}

void RvoBlockCompressor::cancel(const JobPtr &job)
{
    if (!job)
        return;
    // Released outside the lock.
    QByteArray data;
    Payload payload;
    {
        std::lock_guard<std::mutex> locker(m_Lock);
        if (job->state == Job::Running) {
            // Left to finish; the worker sees the claim and lets go of it.
            job->cancelled = true;
            return;
        }
        if (job->state == Job::Done && !job->skipped)
            tookReady();
        data = claim(*job);
        payload = std::exchange(job->payload, Payload());
    }
    release(std::move(payload));
}

void RvoBlockCompressor::tookReady()
{
    --m_Ready;
    // A worker held back by the limit may start the next job.
    m_Queued.notify_one();
}

bool RvoBlockCompressor::canStart() const
{
    if (m_Jobs.empty())
        return false;
    const Job &front = *m_Jobs.front();
    // Claimed jobs are only popped; a wanted one is started at any count.
    return front.state != Job::Queued || front.wanted || m_Ready < m_MaxReady;
}

int RvoBlockCompressor::pendingJobs() const
{
    std::lock_guard<std::mutex> locker(m_Lock);
    int pending = 0;
    for (const JobPtr &job : m_Jobs)
        pending += job->state == Job::Queued ? 1 : 0;
    return pending;
}

void RvoBlockCompressor::work()
{
    becomeBackgroundWorker();
    // One compressor per worker, kept for the thread's life.
    RvoBlockCodec codec;
    std::unique_lock<std::mutex> locker(m_Lock);
    for (;;) {
        m_Queued.wait(locker, [this] { return m_Stopping || canStart(); });
        if (m_Stopping)
            return;
        JobPtr job = std::move(m_Jobs.front());
        m_Jobs.pop_front();
        if (job->state != Job::Queued)
            continue; // claimed before its turn (its bytes are gone already)
        job->state = Job::Running;
        ++m_Ready; // its payload's place, held from the start
        QByteArray data = job->data;
        const QString path = job->path;
        locker.unlock();

        // The file may exist already (equal content saved before, or by
        // another process sharing the root): then nothing is compressed.
        const bool skipped = QFile::exists(path);
        Payload payload;
        if (!skipped)
            payload = compress(codec, data);

        locker.lock();
        job->state = job->cancelled ? Job::Claimed : Job::Done;
        job->skipped = skipped;
        if (job->cancelled || skipped)
            --m_Ready; // no payload to wait for a taker
        // A skipped job keeps its bytes: take() compresses them if the file
        // is gone again by the time the write thread looks.
        if (!skipped || job->cancelled)
            data = std::exchange(job->data, QByteArray());
        if (!job->cancelled)
            job->payload = std::exchange(payload, Payload());
        locker.unlock();
        m_Finished.notify_all();
        // Whatever nobody took is let go of outside the lock.
        release(std::move(payload));
        data = QByteArray();
        job.reset();
        locker.lock();
    }
}
