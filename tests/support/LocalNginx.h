#ifndef LOCALNGINX_H
#define LOCALNGINX_H

#include "LocalServer.h"

// nginx (/usr/sbin/nginx) as a block store: WebDAV PUT and GET under
// http://127.0.0.1:PORT/tiles, optionally behind basic authentication. One
// process (no master), in the foreground, with every path it writes in
// dir(). The access log has one line per request:
//   <connection serial number> <method> <uri> <status>
class LocalNginx : public LocalServer
{
public:
    LocalNginx();

    // Asks for basic authentication as `user` with `password` from the
    // next start on.
    void setBasicAuth(const QString &user, const QString &password);

    // The directory that url() serves: a block file stored under a name is
    // documentRoot()/<first 2 characters>/<name>.
    QString documentRoot() const;
    // Where the block file stored under `name` is.
    QString filePath(const QString &name) const;
    QString accessLogPath() const;

protected:
    QStringList arguments(QString *error) override;

private:
    QString m_User;
    QString m_Password;
};

#endif // LOCALNGINX_H
