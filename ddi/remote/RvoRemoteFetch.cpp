#include "RvoRemoteFetch_p.h"

#include "RvoBlockCodec_p.h"
#include "RvoBlockFile_p.h"
#include "RvoBlockSaver_p.h"
#include "RvoDiskUsage_p.h"
#include "RvoRemote_p.h"
#include "RvoTsan_p.h"

RvoRemoteFetch::RvoRemoteFetch(RvoRemoteTier &tier, RvoRemoteTier::FetchPtr fetch, int remote,
                               QByteArray file)
    : m_Tier(tier)
    , m_Fetch(std::move(fetch))
    , m_Remote(remote)
    , m_File(std::move(file))
{
    setAutoDelete(true);
}

void RvoRemoteFetch::run()
{
    rvoHappensAfter(this);
    const QString &name = m_Fetch->name;
    QByteArray bytes;
    RvoBlockFile::Header header;
    const RvoBlockFile::Fault fault
            = RvoBlockFile::verify(RvoBlockCodec::forThisThread(), m_File.constData(),
                                   m_File.size(), name, &bytes, &header);
    if (fault != RvoBlockFile::Sound) {
        m_Tier.remote(m_Remote).reject(name, QLatin1String(RvoBlockFile::faultText(fault)));
        m_Tier.ask(m_Fetch, m_Remote + 1);
        m_Tier.checked();
        return;
    }
    // Published like a save: under a temporary name, then renamed, before
    // the fetch ends (a load that misses the file meanwhile joins the
    // fetch). A root that refuses it leaves the block without a disk copy,
    // to be saved when it leaves memory.
    auto publish = [this, &header](const RvoBlockLoad &load) {
        const RvoBlockSaver::Outcome outcome
                = RvoBlockSaver::save(header.size, m_File.constData() + RvoBlockFile::kHeaderSize,
                                      header.payloadLength, load.directory(), load.fileName());
        if (outcome.written > 0 && load.diskUsage())
            load.diskUsage()->added(RvoBlockFile::kHeaderSize + outcome.written);
        return outcome.onDisk;
    };
    const bool onDisk = publish(m_Fetch->first);
    for (RvoBlockLoad &load : m_Tier.end(m_Fetch)) {
        // A load that waited under another sub-cache gets a copy there.
        const bool here = load.directory() == m_Fetch->first.directory() ? onDisk : publish(load);
        load.hash()->setPreloading(false);
        load.finish(bytes, header.size, here);
    }
    m_Tier.checked();
}
