#include "LocalNginx.h"

#include <QDir>
#include <QFile>

LocalNginx::LocalNginx()
    : LocalServer(QStringLiteral("nginx"), QStringLiteral("/usr/sbin/nginx"),
                  RvoRemoteEndpoint::Http, QStringLiteral("/tiles"))
{
}

void LocalNginx::setBasicAuth(const QString &user, const QString &password)
{
    m_User = user;
    m_Password = password;
}

QString LocalNginx::documentRoot() const
{
    return dir() + QStringLiteral("/www/tiles");
}

QString LocalNginx::filePath(const QString &name) const
{
    return QStringLiteral("%1/%2/%3").arg(documentRoot(), name.left(2), name);
}

QString LocalNginx::accessLogPath() const
{
    return dir() + QStringLiteral("/access.log");
}

static bool writeFile(const QString &path, const QString &text, QString *error)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate)
        && file.write(text.toUtf8()) == text.toUtf8().size())
        return true;
    *error = QStringLiteral("cannot write %1: %2").arg(path, file.errorString());
    return false;
}

QStringList LocalNginx::arguments(QString *error)
{
    const QString d = dir();
    if (!QDir().mkpath(documentRoot())) {
        *error = QStringLiteral("cannot create %1").arg(documentRoot());
        return {};
    }
    QString auth;
    if (!m_User.isEmpty()) {
        // nginx takes a password in the clear behind the {PLAIN} scheme.
        if (!writeFile(d + QStringLiteral("/htpasswd"),
                       QStringLiteral("%1:{PLAIN}%2\n").arg(m_User, m_Password), error))
            return {};
        auth = QStringLiteral("auth_basic rvoddi; auth_basic_user_file %1/htpasswd;").arg(d);
    }
    // No master process: the server is one process that pause() stops
    // whole, and that writes the document root as whoever runs the test,
    // root included (a master would hand requests to workers running as
    // "nobody").
    const QString config
            = QStringLiteral("daemon off;\n"
                             "master_process off;\n"
                             "pid %1/nginx.pid;\n"
                             "error_log %1/error.log info;\n"
                             "events { worker_connections 256; }\n"
                             "http {\n"
                             "    log_format rvoddi '$connection $request_method $uri $status';\n"
                             "    access_log %1/access.log rvoddi;\n"
                             "    client_body_temp_path %1/client_body;\n"
                             "    proxy_temp_path %1/proxy;\n"
                             "    fastcgi_temp_path %1/fastcgi;\n"
                             "    uwsgi_temp_path %1/uwsgi;\n"
                             "    scgi_temp_path %1/scgi;\n"
                             "    default_type application/octet-stream;\n"
                             "    server {\n"
                             "        listen 127.0.0.1:%2;\n"
                             "        root %1/www;\n"
                             "        location /tiles/ {\n"
                             "            dav_methods PUT;\n"
                             "            create_full_put_path on;\n"
                             "            client_max_body_size 0;\n"
                             "            %3\n"
                             "        }\n"
                             "    }\n"
                             "}\n")
                      .arg(d)
                      .arg(port())
                      .arg(auth);
    if (!writeFile(d + QStringLiteral("/nginx.conf"), config, error))
        return {};
    return {QStringLiteral("-p"), d, QStringLiteral("-c"), d + QStringLiteral("/nginx.conf")};
}
