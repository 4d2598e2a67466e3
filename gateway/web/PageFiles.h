#ifndef MICRO850_GATEWAY_WEB_PAGEFILES_H
#define MICRO850_GATEWAY_WEB_PAGEFILES_H

#include "Router.h"

#include <QtCore/QDateTime>
#include <QtCore/QMap>

namespace micro850::gateway {

/// The files of the page. They are within the program, those of the charts where their package
/// puts them; a name that is asked for is only looked up in a list, it never becomes a path.
class PageFiles
{
public:
    /// `charts` is the folder of dygraphs.
    explicit PageFiles(QString charts = QStringLiteral("/usr/share/javascript/dygraphs"));

    /// The routes "/", "/page/{name}" and "/dygraphs/{name}".
    void addRoutes(Router& router);

    /// The file under "/page/"; 304 when the client has it, 404 when there is none of this name.
    HttpResponse page(const QString& name, const HttpRequest& request) const;
    /// The same of the charts; 404 also when their package is not installed. An update of the
    /// package shows at once.
    HttpResponse charts(const QString& name, const HttpRequest& request);
    /// The files under "/page/", for tests.
    QStringList names() const { return m_files.keys(); }

private:
    struct File
    {
        QByteArray type;
        QByteArray bytes;
        QByteArray tag;
        QByteArray small;  ///< compressed
        QDateTime changed; ///< of a file of the charts
    };
    static File fileOf(const QString& name, const QByteArray& bytes);
    static HttpResponse responseOf(const File& file, const HttpRequest& request);

    QString m_charts;
    QMap<QString, File> m_files; ///< of the page
    QMap<QString, File> m_read;  ///< of the charts, as they were read last
};

} // namespace micro850::gateway

#endif
