#ifndef RVOPROGRESS_H
#define RVOPROGRESS_H

#include <QElapsedTimer>
#include <QString>
#include <QtGlobal>

// A progress line on standard error, redrawn in place, as git draws it:
//
//     Verifying block files:  45% (450/1000), 120.5 MiB | 60.2 MiB/s, ETA 2s
//     Verifying block files: 100% (1000/1000), 240.0 MiB | 61.0 MiB/s, done.
//
// It is drawn only when standard error is a terminal (and the caller has not
// silenced it): a script or a log file never sees it.
//
// Threading: one thread calls update() and finish().
class RvoProgress
{
public:
    RvoProgress(const QString &title, qint64 totalCount, qint64 totalBytes, bool enabled);
    // Finishes the line if finish() was not called.
    ~RvoProgress();

    bool shown() const { return m_Enabled; }
    // Redraws when 100 ms have passed since the last drawing.
    void update(qint64 count, qint64 bytes);
    // Draws the final line and ends it.
    void finish();

private:
    Q_DISABLE_COPY(RvoProgress)

    void draw(bool done);

    const QString m_Title;
    const qint64 m_TotalCount;
    const qint64 m_TotalBytes;
    bool m_Enabled;
    qint64 m_Count = 0;
    qint64 m_Bytes = 0;
    qint64 m_LastDrawMs = -1;
    int m_LastLength = 0;
    QElapsedTimer m_Clock;
};

#endif // RVOPROGRESS_H
