#ifndef LOCALSERVER_H
#define LOCALSERVER_H

// A real server from Debian's packages, run by a test or a benchmark as a
// child of this process, in a temporary directory of its own and listening
// on 127.0.0.1 only, at a free port picked on the first start and kept
// across restarts. The server dies with the thread that started it, so a
// test that crashes leaves none running.
//
// Nginx: /usr/sbin/nginx as a block store, WebDAV PUT and GET under
// http://127.0.0.1:PORT/tiles. One process (no master), in the foreground,
// with every path it writes in dir(). The access log has one line per
// request: <connection serial number> <method> <uri> <status>.
// Redis: /usr/bin/redis-server on 127.0.0.1:PORT, in the foreground, keeping
// nothing on disk (no snapshots, no append-only file): a restart starts
// empty.
// S3: s3rver (from npm, in build/npm) holding the bucket "tiles" in dir(),
// path-style, with the keys S3RVER:S3RVER (it checks no signature).
//
// Threading: driven by one thread, the one that starts it, which must
// outlive the server.

#include "ChildProcess.h"
#include "RvoRemoteEndpoint_p.h"

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <signal.h>

class LocalServer
{
public:
    enum Kind { Nginx, Redis, S3 };

    explicit LocalServer(Kind kind);
    ~LocalServer();
    LocalServer(const LocalServer &) = delete;
    LocalServer &operator=(const LocalServer &) = delete;

    // Why a test must skip: the server's program is missing ("nginx is not
    // installed (/usr/sbin/nginx): ..."), or this build of RvoDdi lacks its
    // kind of remote (the setting's refusal); empty when neither.
    QString notUsable() const;

    // Starts the server and waits, at most 10 seconds, until its port
    // accepts connections. False, with error(), when it does not come up.
    bool start();
    // SIGTERM (resuming a paused server), then waits for the end; SIGKILL
    // when it takes longer than 10 seconds.
    void stop();
    // SIGKILL: the server ends without closing anything itself.
    void kill();
    // SIGSTOP and SIGCONT. A paused server's port still accepts connections
    // (the kernel queues them) but nothing answers: how a test provokes an
    // operation timeout.
    void pause() { m_Process.signal(SIGSTOP); }
    void resume() { m_Process.signal(SIGCONT); }
    // stop(), then start() on the same port.
    bool restart()
    {
        stop();
        return start();
    }

    int port() const { return m_Port; }
    // The server's process id while it runs (for its CPU time).
    qint64 pid() const { return m_Process.pid(); }
    // The temporary directory: configuration, logs, data.
    QString dir() const { return m_Dir.path(); }
    QString error() const { return m_Error; }

    // The server as the remote-storage setting names it:
    // "http://127.0.0.1:PORT/tiles", "redis://127.0.0.1:PORT",
    // "s3://S3RVER:S3RVER@tiles/blocks|endpoint=http://127.0.0.1:PORT";
    // with `via`, at that port instead (a DelayProxy's in front of it).
    QString url(int via = 0) const;
    // The server for a client: 100 ms to connect, 2 s per operation.
    RvoRemoteEndpoint endpoint(int via = 0) const;

    // From the next start on, the server asks for `password`: nginx from
    // `user` (basic authentication), Redis from anyone and from the ACL user
    // `user`.
    void requirePassword(const QString &user, const QString &password);
    // Nginx, from the next start on: HTTPS only, with a self-signed
    // certificate for 127.0.0.1 (certificatePath(), made with openssl on that
    // start), and url() and endpoint() name https.
    void useTls() { m_Tls = true; }
    QString certificatePath() const { return dir() + QStringLiteral("/cert.pem"); }

    // Nginx: the directory that url() serves, where the block file stored
    // under a name is documentRoot()/<first 2 characters>/<name>
    // (filePath(name)), and the access log. S3: the same of the objects.
    QString documentRoot() const;
    QString filePath(const QString &name) const;
    QString accessLogPath() const;

private:
    // The arguments that run the server on port(), after writing what it
    // reads in dir(). Empty, with *error set, when that fails.
    QStringList arguments(QString *error);
    bool launch();

    const Kind m_Kind;
    const QString m_Name;
    const QString m_Program;
    QString m_User;
    QString m_Password;
    bool m_Tls = false;
    QTemporaryDir m_Dir;
    mutable ChildProcess m_Process; // reaped when found ended
    int m_Port = 0;
    QString m_Error;
};

// Sockets on 127.0.0.1, closed on exec: one listening at a port the kernel
// picks (*port), and one connected to `port`; -1 when that fails.
int listenOnLoopback(int *port);
int connectToLoopback(int port);

// In a test: skips it when the server is not usable, fails it when the
// server does not start.
#define START_OR_SKIP(server)                                                                      \
    if (!(server).notUsable().isEmpty())                                                           \
        GTEST_SKIP() << (server).notUsable().toStdString();                                        \
    ASSERT_TRUE((server).start()) << (server).error().toStdString()

#endif // LOCALSERVER_H
