// Digests: Skein's known answers, the text form, the registry under threads.

#include "RvoSelfCheckRun_p.h"

#include "RvoDataBlock.h"
#include "RvoDataHash.h"
#include "RvoHashManager.h"
#include "RvoSelfCheckHooks_p.h"
#include "RvoSkein.h"
#include "RvoSkeinKnownAnswers_p.h"

#include <QThread>
#include <QtEndian>

#include <atomic>
#include <memory>
#include <vector>

namespace {

// The 64-byte digest of the empty input, in its text form: the name its
// block file has always had.
const char kEmptyDigestText[]
        = "975632339-1283425033-1894762725-2902449573-3268842107-581035436-1499184485-"
          "4288897074-3031750688-2488158661-2058569812-650452923-2304816374-2480836384-"
          "1914929037-3084864332";

// The text form built from the digest bytes directly: each 32-bit
// little-endian word in decimal, joined by "-".
QString wordsText(const unsigned char *digest, int bytes)
{
    QStringList words;
    for (int i = 0; i + 4 <= bytes; i += 4)
        words << QString::number(qFromLittleEndian<quint32>(digest + i));
    return words.join(QLatin1Char('-'));
}

QString hex(const unsigned char *bytes, int size)
{
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char *>(bytes), size).toHex());
}

} // namespace

RvoSelfCheckRun::Result RvoSelfCheckRun::checkKnownAnswers(int stateBits)
{
    QVector<RvoSkeinKnownAnswers::Vector> answers = RvoSkeinKnownAnswers::all();
    if (m_Options.hooks)
        m_Options.hooks->knownAnswersLoaded(answers);
    int checked = 0;
    for (const RvoSkeinKnownAnswers::Vector &answer : std::as_const(answers)) {
        if (RvoSkeinKnownAnswers::stateBits(answer.hashBits) != stateBits)
            continue;
        const QString where = QStringLiteral("Skein-%1-%2 of %3 bits, %4")
                                      .arg(stateBits)
                                      .arg(answer.hashBits)
                                      .arg(answer.messageBits)
                                      .arg(answer.source);
        const auto *message = reinterpret_cast<const unsigned char *>(answer.message.constData());
        QByteArray digest((answer.hashBits + 7) / 8, '\0');
        const int status = RvoSkein::Hash(
                answer.hashBits, answer.message.isEmpty() ? nullptr : message, answer.messageBits,
                reinterpret_cast<unsigned char *>(digest.data()));
        if (status != RvoSkein::Success)
            return mismatch(QStringLiteral("status 0"), QString::number(status), where);
        if (digest != answer.digest) {
            return mismatch(QString::fromLatin1(answer.digest.toHex()),
                            QString::fromLatin1(digest.toHex()), where);
        }
        // Digest objects of the state's own size go through the same
        // function: whole-byte messages are checked through them too.
        if (answer.hashBits == stateBits && answer.messageBits % 8 == 0) {
            const RvoDataHash object(message, qint64(answer.messageBits / 8),
                                     RvoDataHash::Size(stateBits / 8));
            const QByteArray bytes(reinterpret_cast<const char *>(object.data()),
                                   object.byteCount());
            if (bytes != answer.digest) {
                return mismatch(QString::fromLatin1(answer.digest.toHex()),
                                QString::fromLatin1(bytes.toHex()),
                                where + QStringLiteral(", as an RvoDataHash"));
            }
        }
        ++checked;
    }
    if (checked == 0)
        return mismatch(QStringLiteral("known answers to check"), QStringLiteral("none"));
    return pass(QStringLiteral("%1 vectors").arg(checked));
}

RvoSelfCheckRun::Result RvoSelfCheckRun::checkTextForms()
{
    RvoHashManager &registry = RvoHashManager::instance();
    const QString emptyText = QString::fromLatin1(kEmptyDigestText);
    {
        const RvoSmartPointer<RvoDataHash> empty = registry.getHash(nullptr, 0);
        if (!empty || empty->toString() != emptyText) {
            return mismatch(emptyText, empty ? empty->toString() : QStringLiteral("no digest"),
                            QStringLiteral("the empty input"));
        }
        unsigned char raw[64];
        RvoSkein::Hash(512, nullptr, 0, raw);
        if (wordsText(raw, 64) != emptyText) {
            return mismatch(emptyText, wordsText(raw, 64),
                            QStringLiteral("the words of Skein-512-512 of the empty input"));
        }
    }

    // A malformed text names no digest.
    if (!RvoDataHash(QStringLiteral("1-2-3")).isEmpty())
        return mismatch(QStringLiteral("an empty digest"), QStringLiteral("a digest"),
                        QStringLiteral("the text \"1-2-3\""));
    if (registry.getHash(QStringLiteral("1-2-3")))
        return mismatch(QStringLiteral("no digest"), QStringLiteral("one"),
                        QStringLiteral("the registry asked for \"1-2-3\""));

    Result result;
    if (!haveSamples(&result))
        return result;
    const QVector<QByteArray> &blocks = m_Samples.blocks();
    const int count = qMin(8, int(blocks.size()));
    int checked = 1;
    for (int i = 0; i < count; ++i) {
        const QByteArray &block = blocks.at(i);
        const auto *data = reinterpret_cast<const unsigned char *>(block.constData());
        for (const RvoDataHash::Size size :
             {RvoDataHash::Skein256, RvoDataHash::Skein512, RvoDataHash::Skein1024}) {
            const QString where = QStringLiteral("%1-byte digest of %2")
                                          .arg(int(size))
                                          .arg(m_Samples.origin(i));
            const RvoDataHash digest(data, block.size(), size);
            const QString text = digest.toString();
            if (text != wordsText(digest.data(), digest.byteCount()))
                return mismatch(wordsText(digest.data(), digest.byteCount()), text, where);
            const RvoDataHash back(text);
            if (back.size() != size || back != digest) {
                return mismatch(hex(digest.data(), digest.byteCount()),
                                hex(back.data(), back.byteCount()),
                                where + QStringLiteral(", read back from its text form"));
            }
            ++checked;
        }

        // The registry: by content and by text, one object; a block names
        // its bytes the same way.
        const RvoSmartPointer<RvoDataHash> byContent = registry.getHash(block);
        const QString text = byContent->toString();
        const RvoSmartPointer<RvoDataHash> byText = registry.getHash(text);
        if (byText != byContent) {
            return mismatch(QStringLiteral("one digest object for content and text"),
                            QStringLiteral("two"), m_Samples.origin(i));
        }
        if (!registry.isHashLive(text))
            return mismatch(QStringLiteral("a live digest"), QStringLiteral("none"), text);
        const RvoDataBlock asBlock(block);
        if (asBlock.hash()->toString() != text)
            return mismatch(text, asBlock.hash()->toString(),
                            QStringLiteral("RvoDataBlock::hash of %1").arg(m_Samples.origin(i)));
    }
    return pass(QStringLiteral("%1 digests").arg(checked));
}

RvoSelfCheckRun::Result RvoSelfCheckRun::checkRegistryUnderThreads()
{
    Result result;
    if (!haveSamples(&result))
        return result;
    constexpr int kThreads = 4;
    constexpr int kContents = 64;
    // Digests every thread takes and drops at once, so that last releases
    // race with lookups of the same digest.
    constexpr int kChurn = 8;
    constexpr int kRounds = 20;

    RvoHashManager &registry = RvoHashManager::instance();
    const int baseline = registry.hashCount();
    QVector<QByteArray> contents;
    QStringList texts;
    for (int i = 0; i < kContents + kChurn; ++i) {
        contents << variant(100 + i).left(4096);
        texts << RvoDataHash(contents.last(), RvoDataHash::Skein512).toString();
    }
    const int objectBaseline = RvoDataHash::hashCount();

    using Table = QVector<RvoSmartPointer<RvoDataHash>>;
    // One slot per thread, written by that thread alone.
    std::vector<Table> held(kThreads);
    std::atomic<int> splits {0};
    std::vector<std::unique_ptr<QThread>> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back(QThread::create([&, t] {
            Table mine(kContents);
            for (int round = 0; round < kRounds; ++round) {
                for (int k = 0; k < kContents; ++k) {
                    const int c = (k + t * 17) % kContents;
                    // By content and by text in turn: both must meet.
                    const RvoSmartPointer<RvoDataHash> hash = round % 2 == 0
                            ? registry.getHash(contents.at(c))
                            : registry.getHash(texts.at(c));
                    if (!mine[c])
                        mine[c] = hash;
                    else if (mine[c] != hash)
                        splits.fetch_add(1);
                    RvoSmartPointer<RvoDataHash> churn
                            = registry.getHash(contents.at(kContents + (round + k) % kChurn));
                    churn.reset();
                }
            }
            held[t] = std::move(mine);
        }));
    }
    for (auto &thread : threads)
        thread->start();
    for (auto &thread : threads) {
        if (!thread->wait(120000)) {
            // A thread stuck in the registry cannot be ended: it is left
            // behind, and so is what it uses.
            for (auto &stuck : threads)
                (void)stuck.release();
            return mismatch(QStringLiteral("the interning threads to finish within 120 s"),
                            QStringLiteral("them still running"));
        }
    }
    threads.clear();

    if (splits.load() != 0)
        return mismatch(QStringLiteral("one object per digest within each thread"),
                        QStringLiteral("%1 different objects").arg(splits.load()));
    for (int c = 0; c < kContents; ++c) {
        const RvoSmartPointer<RvoDataHash> reference = registry.getHash(contents.at(c));
        for (int t = 0; t < kThreads; ++t) {
            if (held[t][c] != reference)
                return mismatch(QStringLiteral("one object for digest %1 in every thread").arg(c),
                                QStringLiteral("thread %1 holding another").arg(t));
        }
        if (reference->refCount() != kThreads + 1)
            return mismatch(QStringLiteral("%1 references to digest %2").arg(kThreads + 1).arg(c),
                            QString::number(reference->refCount()));
    }
    if (registry.hashCount() != baseline + kContents)
        return mismatch(QStringLiteral("%1 live digests").arg(baseline + kContents),
                        QString::number(registry.hashCount()));
    held.clear();
    if (registry.hashCount() != baseline)
        return mismatch(QStringLiteral("%1 live digests once released").arg(baseline),
                        QString::number(registry.hashCount()));
    for (const QString &text : std::as_const(texts)) {
        if (registry.isHashLive(text))
            return mismatch(QStringLiteral("no live digest once released"),
                            QStringLiteral("%1 still live").arg(text));
    }
    if (RvoDataHash::hashCount() != objectBaseline)
        return mismatch(QStringLiteral("%1 digest objects once released").arg(objectBaseline),
                        QString::number(RvoDataHash::hashCount()));
    return pass(QStringLiteral("%1 threads, %2 lookups")
                        .arg(kThreads)
                        .arg(kThreads * kRounds * kContents * 2));
}
