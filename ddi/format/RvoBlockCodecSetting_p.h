#ifndef RVOBLOCKCODECSETTING_P_H
#define RVOBLOCKCODECSETTING_P_H

#include "rvoddi_export.h"

#include <QString>

// How new block files are written: the codec of their payloads and, where it
// matters, its level. A host names it as text (setBlockCodec, or the
// environment variable RVODDI_BLOCK_CODEC):
//
//   zlib           qCompress's format (ISA-L or libdeflate), the default
//   lz4            LZ4, the fastest to read: playback
//   zstd, zstd:N   Zstandard at level N (-50 to 22, not 0; default 2): the
//                  smallest
//
// LZ4 and Zstandard payloads are written after a byte shuffle (element i of
// every `shuffle` bytes goes to plane i), which turns interleaved pixel
// channels into smooth planes; bench/RESULTS.md has the measurements behind
// the default level and the element size. Every reader reads every codec
// whatever the setting (RvoBlockCodec), so the setting only says how files
// are written.
class RVODDI_EXPORT RvoBlockCodecSetting
{
public:
    enum Kind { Zlib, Lz4, Zstd };

    static constexpr int kDefaultZstdLevel = 2;
    static constexpr int kMinZstdLevel = -50;
    static constexpr int kMaxZstdLevel = 22;
    // The shuffle's element: a pixel of half-float RGBA, two of 8-bit RGBA
    // (whose channels then still fall into planes of their own).
    static constexpr int kShuffleElement = 8;
    // The largest element a payload may name; readers refuse larger ones.
    static constexpr int kMaxShuffleElement = 16;

    RvoBlockCodecSetting() = default;
    static RvoBlockCodecSetting zlib() { return {}; }
    static RvoBlockCodecSetting lz4() { return {Lz4, 0, kShuffleElement}; }
    static RvoBlockCodecSetting zstd(int level = kDefaultZstdLevel)
    {
        return {Zstd, level, kShuffleElement};
    }

    // Parses `text` (surrounding blanks and case ignored; empty means zlib).
    // False, with *error saying what is wrong, and *setting untouched, when
    // it names no setting.
    static bool parse(const QString &text, RvoBlockCodecSetting *setting, QString *error);
    // The setting's text in its one canonical form: "zlib", "lz4", "zstd:2".
    QString toString() const;
    // "zlib", "lz4" or "zstd".
    static const char *kindName(Kind kind);

    Kind kind() const { return m_Kind; }
    int level() const { return m_Level; }
    // 1: no shuffle.
    int shuffle() const { return m_Shuffle; }
    // The same, shuffling in elements of `element` bytes (1 to
    // kMaxShuffleElement); zlib payloads are never shuffled.
    RvoBlockCodecSetting withShuffle(int element) const;

    bool operator==(const RvoBlockCodecSetting &other) const
    {
        return m_Kind == other.m_Kind && m_Level == other.m_Level && m_Shuffle == other.m_Shuffle;
    }
    bool operator!=(const RvoBlockCodecSetting &other) const { return !(*this == other); }

private:
    RvoBlockCodecSetting(Kind kind, int level, int shuffle)
        : m_Kind(kind)
        , m_Level(level)
        , m_Shuffle(shuffle)
    {
    }

    Kind m_Kind = Zlib;
    int m_Level = 0;
    int m_Shuffle = 1;
};

#endif // RVOBLOCKCODECSETTING_P_H
