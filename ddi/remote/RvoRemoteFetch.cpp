#include "RvoRemoteFetch_p.h"

#include "RvoBlockCodec_p.h"
#include "RvoBlockFile_p.h"
#include "RvoBlockSaver_p.h"
#include "RvoDdiDiagnostics_p.h"
#include "RvoDiskUsage_p.h"
#include "RvoRemoteTier_p.h"
#include "RvoTsan_p.h"

#include <QThreadPool>

bool RvoRemoteFetch::start(const std::shared_ptr<RvoRemoteTier> &tier, const RvoBlockLoad &load)
{
    int remote = -1;
    QByteArray file = tier->get(load.fileName(), 0, &remote);
    if (remote < 0)
        return false;
    auto *task = new RvoRemoteFetch(tier, remote, std::move(file), load);
    rvoHappensBefore(task);
    QThreadPool::globalInstance()->start(task);
    return true;
}

RvoRemoteFetch::RvoRemoteFetch(std::shared_ptr<RvoRemoteTier> tier, int remote, QByteArray file,
                               RvoBlockLoad load)
    : m_Tier(std::move(tier))
    , m_Remote(remote)
    , m_File(std::move(file))
    , m_Load(std::move(load))
{
    setAutoDelete(true);
}

void RvoRemoteFetch::run()
{
    rvoHappensAfter(this);
    const QString &name = m_Load.fileName();
    QByteArray bytes;
    RvoBlockFile::Header header;
    for (;;) {
        const RvoBlockFile::Fault fault
                = RvoBlockFile::verify(RvoBlockCodec::forThisThread(), m_File.constData(),
                                       m_File.size(), name, &bytes, &header);
        if (fault == RvoBlockFile::Sound)
            break;
        m_Tier->reject(m_Remote, name, QLatin1String(RvoBlockFile::faultText(fault)));
        m_File = m_Tier->get(name, m_Remote + 1, &m_Remote);
        if (m_Remote < 0) {
            qCDebug(lcDdi, "Cannot Open File %s to read. Exist?=0", qPrintable(m_Load.path()));
            m_Load.hash()->setPreloading(false);
            m_Load.fail();
            return;
        }
    }
    // Published like a save: under a temporary name, then renamed. A root
    // that refuses it leaves the block without a disk copy, to be saved when
    // it leaves memory.
    const RvoBlockSaver::Outcome outcome
            = RvoBlockSaver::save(header.size, m_File.constData() + RvoBlockFile::kHeaderSize,
                                  header.payloadLength, m_Load.directory(), name);
    if (outcome.written > 0 && m_Load.diskUsage())
        m_Load.diskUsage()->added(RvoBlockFile::kHeaderSize + outcome.written);
    m_File.clear();
    m_Load.hash()->setPreloading(false);
    m_Load.finish(std::move(bytes), header.size, outcome.onDisk);
}
