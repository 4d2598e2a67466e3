#include "PageFiles.h"

#include "Compression.h"
#include "Problem.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <algorithm>
#include <array>

// A linker leaves the files of a library out unless something refers to them. The function that Qt
// declares here is in the global namespace.
static void loadFiles()
{
    Q_INIT_RESOURCE(page);
}

namespace micro850::gateway {

namespace {

const std::array<const char*, 2> kChartFiles = {"dygraph.min.css", "dygraph.min.js"};
// Many times the size of the charts' files: a wrong file does not fill the memory.
const qint64 kMostChartBytes = qint64(4) * 1024 * 1024;

QByteArray typeOf(const QString& name)
{
    if (name.endsWith(QLatin1String(".html")))
        return "text/html; charset=utf-8";
    if (name.endsWith(QLatin1String(".css")))
        return "text/css; charset=utf-8";
    if (name.endsWith(QLatin1String(".svg")))
        return "image/svg+xml";
    return "text/javascript; charset=utf-8";
}

QByteArray tagOf(const QByteArray& bytes)
{
    const int kEnough = 32;
    const QByteArray hash = QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex();
    return '"' + hash.left(kEnough) + '"';
}

// Whether If-None-Match has the tag. A proxy that compresses makes a weak one of it.
bool hasTag(const QByteArray& list, const QByteArray& tag)
{
    for (QByteArray one : list.split(',')) {
        one = one.trimmed();
        if (one.startsWith("W/"))
            one = one.mid(2);
        if (one == tag || one == "*")
            return true;
    }
    return false;
}

} // namespace

PageFiles::PageFiles(QString charts) : m_charts(std::move(charts))
{
    loadFiles();
    const QDir folder(QStringLiteral(":/page"));
    for (const QString& name : folder.entryList(QDir::Files)) {
        QFile file(folder.filePath(name));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        m_files[name] = fileOf(name, file.readAll());
    }
}

void PageFiles::addRoutes(Router& router)
{
    const auto answer = [](const HttpExchangePointer& exchange, HttpResponse response) {
        exchange->answer(std::move(response));
    };
    router.add("GET", "/", [=](const HttpExchangePointer& exchange, const Caller&) {
        answer(exchange, page(QStringLiteral("index.html"), exchange->request()));
    });
    router.add("GET", "/page/{name}", [=](const HttpExchangePointer& exchange, const Caller&) {
        answer(exchange, page(exchange->request().path.last(), exchange->request()));
    });
    router.add("GET", "/dygraphs/{name}", [=](const HttpExchangePointer& exchange, const Caller&) {
        answer(exchange, charts(exchange->request().path.last(), exchange->request()));
    });
}

HttpResponse PageFiles::page(const QString& name, const HttpRequest& request) const
{
    const auto file = m_files.constFind(name);
    if (file == m_files.constEnd())
        return problem(404, "", "the page has no such file");
    return responseOf(*file, request);
}

HttpResponse PageFiles::charts(const QString& name, const HttpRequest& request)
{
    const auto known = std::find_if(kChartFiles.begin(), kChartFiles.end(),
                                    [&](const char* one) { return name == QLatin1String(one); });
    if (known == kChartFiles.end())
        return problem(404, "", "the charts have no such file");
    QFile file(m_charts + QLatin1Char('/') + QLatin1String(*known));
    const QDateTime changed = QFileInfo(file).lastModified();
    File& kept = m_read[name];
    if (kept.bytes.isEmpty() || kept.changed != changed || kept.bytes.size() != file.size()) {
        if (!file.open(QIODevice::ReadOnly) || file.size() > kMostChartBytes)
            return problem(404, "", "the charts are not there: install the package libjs-dygraphs");
        kept = fileOf(name, file.readAll());
        kept.changed = changed;
    }
    return responseOf(kept, request);
}

PageFiles::File PageFiles::fileOf(const QString& name, const QByteArray& bytes)
{
    File file;
    file.type = typeOf(name);
    file.bytes = bytes;
    file.tag = tagOf(bytes);
    file.small = gzipped(bytes);
    return file;
}

// A browser asks each time whether its copy is still the file: after an update of the gateway, the
// page and its parts belong together.
HttpResponse PageFiles::responseOf(const File& file, const HttpRequest& request)
{
    HttpResponse response;
    const bool isSmall = takesGzip(request);
    // Other bytes have another tag.
    const QByteArray tag = isSmall ? file.tag.chopped(1) + "-gzip\"" : file.tag;
    response.headers = {{"ETag", tag}, {"Cache-Control", "no-cache"}, {"Vary", "Accept-Encoding"}};
    if (hasTag(request.header("if-none-match"), tag)) {
        response.status = 304;
        return response;
    }
    response.type = file.type;
    response.body = isSmall ? file.small : file.bytes;
    response.isBodyKept = true;
    if (isSmall)
        response.headers.append(HttpHeader{"Content-Encoding", "gzip"});
    return response;
}

} // namespace micro850::gateway
