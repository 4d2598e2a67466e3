#include "PageFiles.h"

#include "http_response.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QRegularExpression>
#include <QtCore/QTemporaryDir>

#include <gtest/gtest.h>

namespace micro850::gateway {

namespace {

HttpRequest requestWith(const char* header, const QByteArray& value)
{
    HttpRequest request;
    request.headers.insert(header, value);
    return request;
}

QDir sourceFolder()
{
    return QDir(QStringLiteral(MICRO850_SOURCE_DIR "/gateway/page"));
}

QByteArray contentOf(const QString& path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString();
    return file.readAll();
}

QString textOf(const QString& name)
{
    return QString::fromUtf8(PageFiles().page(name, HttpRequest()).body);
}

// The files of the page that a file names by their addresses.
QStringList namesIn(const QString& name)
{
    const QString text = textOf(name);
    const QRegularExpression address(QStringLiteral("\"/page/([^\"]+)\""));
    QStringList names;
    for (auto match = address.globalMatch(text); match.hasNext();) {
        const QString found = match.next().captured(1);
        if (!names.contains(found))
            names.append(found);
    }
    return names;
}

} // namespace

TEST(PageFiles, HasEveryFileOfItsFolder)
{
    QStringList expected = sourceFolder().entryList(QDir::Files, QDir::Name);
    expected.removeAll(QStringLiteral("page.qrc"));
    EXPECT_EQ(PageFiles().names(), expected);
}

TEST(PageFiles, ServesEachFileAsItIsInTheTree)
{
    const PageFiles files;
    for (const QString& name : files.names()) {
        const HttpResponse response = files.page(name, HttpRequest());
        EXPECT_EQ(response.status, 200);
        EXPECT_EQ(response.body, contentOf(sourceFolder().filePath(name))) << name.toStdString();
        EXPECT_EQ(headerOf(response, "Cache-Control"), "no-cache");
    }
}

TEST(PageFiles, TellsTheTypeThatABrowserNeedsToTakeAFile)
{
    const PageFiles files;
    EXPECT_EQ(files.page("index.html", HttpRequest()).type, "text/html; charset=utf-8");
    EXPECT_EQ(files.page("style.css", HttpRequest()).type, "text/css; charset=utf-8");
    EXPECT_EQ(files.page("app.js", HttpRequest()).type, "text/javascript; charset=utf-8");
    EXPECT_EQ(files.page("icon.svg", HttpRequest()).type, "image/svg+xml");
}

TEST(PageFiles, SendsAFileThatTheClientHasNoSecondTime)
{
    const PageFiles files;
    const QByteArray tag = headerOf(files.page("app.js", HttpRequest()), "ETag");
    ASSERT_TRUE(tag.startsWith('"') && tag.endsWith('"') && tag.size() > 2);
    const QByteArray lists[] = {tag, "W/" + tag, "\"other\", " + tag, "*"};
    for (const QByteArray& list : lists) {
        const HttpResponse again = files.page("app.js", requestWith("if-none-match", list));
        EXPECT_EQ(again.status, 304) << list.toStdString();
        EXPECT_TRUE(again.body.isEmpty());
        EXPECT_EQ(headerOf(again, "ETag"), tag);
    }
}

TEST(PageFiles, SendsSmallFilesToABrowserThatTakesThem)
{
    const PageFiles files;
    int all = 0;
    for (const QString& name : files.names()) {
        HttpRequest request = requestWith("accept-encoding", "br, gzip;q=0.8");
        const HttpResponse plain = files.page(name, HttpRequest());
        const HttpResponse small = files.page(name, request);
        EXPECT_EQ(headerOf(small, "Content-Encoding"), "gzip");
        EXPECT_EQ(headerOf(small, "Vary"), "Accept-Encoding");
        EXPECT_EQ(headerOf(plain, "Vary"), "Accept-Encoding");
        EXPECT_EQ(headerOf(plain, "Content-Encoding"), "");
        EXPECT_NE(headerOf(small, "ETag"), headerOf(plain, "ETag"));
        EXPECT_EQ(unpacked(small.body), plain.body) << name.toStdString();
        request.headers.insert("if-none-match", headerOf(small, "ETag"));
        EXPECT_EQ(files.page(name, request).status, 304);
        request.headers.insert("accept-encoding", "gzip;q=0");
        EXPECT_EQ(files.page(name, request).body, plain.body);
        all += small.body.size();
    }
    EXPECT_LT(all, 75000);
}

TEST(PageFiles, SendsAFileWhenTheClientHasAnotherVersion)
{
    const PageFiles files;
    const QByteArray other = headerOf(files.page("style.css", HttpRequest()), "ETag");
    for (const QByteArray& list : {other, QByteArray(), QByteArray("\""), QByteArray(",")})
        EXPECT_EQ(files.page("app.js", requestWith("if-none-match", list)).status, 200);
}

// Names come decoded: a slash in them is possible.
TEST(PageFiles, KnowsNoNameThatIsAPath)
{
    const PageFiles files;
    for (const char* name :
         {"", ".", "..", "../page/app.js", "../../etc/passwd", "/etc/passwd", ":/page/app.js",
          "app.js/", "app.js ", "APP.JS", "page.qrc", "nothing", "app.js?x", "dygraph.min.js"})
    {
        EXPECT_EQ(files.page(QString::fromLatin1(name), HttpRequest()).status, 404) << name;
    }
    EXPECT_EQ(files.page(QString::fromLatin1("app.js\0", 7), HttpRequest()).status, 404);
}

TEST(PageFiles, ServesTheChartsFromWhereTheirPackagePutsThem)
{
    PageFiles files;
    const HttpResponse script = files.charts("dygraph.min.js", HttpRequest());
    EXPECT_EQ(script.status, 200);
    EXPECT_EQ(script.type, "text/javascript; charset=utf-8");
    EXPECT_EQ(script.body, contentOf("/usr/share/javascript/dygraphs/dygraph.min.js"));
    const QByteArray tag = headerOf(script, "ETag");
    EXPECT_EQ(files.charts("dygraph.min.js", requestWith("if-none-match", tag)).status, 304);
    EXPECT_EQ(files.charts("dygraph.min.css", HttpRequest()).type, "text/css; charset=utf-8");
}

TEST(PageFiles, ServesNothingElseOfTheChartsFolder)
{
    PageFiles files;
    for (const char* name : {"", "..", "index.js", "dygraph.js", "../jquery/jquery.js", "src",
                             "dygraph.min.js.map", "./dygraph.min.js"})
    {
        EXPECT_EQ(files.charts(QString::fromLatin1(name), HttpRequest()).status, 404) << name;
    }
}

// Whoever reads slowly takes no memory by it, and an update of the package needs no restart.
TEST(PageFiles, KeepsTheChartsUntilTheirPackageChanges)
{
    const QTemporaryDir folder;
    const QString path = folder.filePath("dygraph.min.css");
    const auto write = [&](const QByteArray& text) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(text);
    };
    write("first");
    PageFiles files(folder.path());
    const HttpResponse first = files.charts("dygraph.min.css", HttpRequest());
    EXPECT_EQ(first.body, "first");
    EXPECT_TRUE(first.isBodyKept);
    EXPECT_EQ(files.charts("dygraph.min.css", HttpRequest()).body.constData(),
              first.body.constData());
    write("another");
    EXPECT_EQ(files.charts("dygraph.min.css", HttpRequest()).body, "another");
    ASSERT_TRUE(QFile::remove(path));
    EXPECT_EQ(files.charts("dygraph.min.css", HttpRequest()).status, 404);
}

TEST(PageFiles, SaysWhichPackageIsMissingWithoutTheCharts)
{
    const QTemporaryDir folder;
    const HttpResponse response = PageFiles(folder.path()).charts("dygraph.min.js", HttpRequest());
    EXPECT_EQ(response.status, 404);
    EXPECT_TRUE(response.body.contains("libjs-dygraphs")) << response.body.toStdString();
}

// The policy of the page allows nothing inline and nothing from elsewhere; a browser would only
// tell in its console.
TEST(PageFiles, HasNothingThatThePolicyRefuses)
{
    const PageFiles files;
    const QByteArray page = files.page("index.html", HttpRequest()).body;
    const QRegularExpression inlined(
        QStringLiteral("<script(?![^>]*\\bsrc=)|<style|\\sstyle=|\\son\\w+=|javascript:|data:"));
    EXPECT_FALSE(QString::fromUtf8(page).contains(inlined));
    const QRegularExpression refused(QStringLiteral(
        "\\beval\\(|\\bnew Function\\b|innerHTML|outerHTML|insertAdjacentHTML|document\\.write|"
        "setAttribute\\([^,]*'style'|\\bstyle: *['\"`]"));
    const QRegularExpression elsewhere(QStringLiteral("(?:https?:)?//\\w+\\.\\w+"));
    for (const QString& name : files.names()) {
        const QString text = QString::fromUtf8(files.page(name, HttpRequest()).body);
        EXPECT_FALSE(text.contains(refused)) << name.toStdString();
        if (!name.endsWith(QLatin1String(".svg"))) { // it names its format by an address
            EXPECT_FALSE(text.contains(elsewhere)) << name.toStdString();
        }
    }
}

// 150 KB are the most that the first page may take to a browser, which also gets values and
// headers.
TEST(PageFiles, FirstPageIsSmall)
{
    const PageFiles files;
    int bytes = files.page("index.html", HttpRequest()).body.size();
    for (const QString& name : namesIn("index.html") + QStringList("worker.js"))
        bytes += files.page(name, HttpRequest()).body.size();
    EXPECT_LT(bytes, 130 * 1000);
}

// Else the browser learns of a module only when it has read the one before.
TEST(PageFiles, FirstPageNamesEveryModuleThatItNeeds)
{
    QStringList needed("app.js");
    for (int i = 0; i < needed.size(); ++i) {
        const QString text = textOf(needed.at(i));
        const QRegularExpression import(QStringLiteral("^import (?:[^;]* from )?'\\./([^']+)';"),
                                        QRegularExpression::MultilineOption);
        for (auto match = import.globalMatch(text); match.hasNext();) {
            const QString name = match.next().captured(1);
            if (!needed.contains(name))
                needed.append(name);
        }
    }
    ASSERT_GT(needed.size(), 5);
    for (const QString& name : needed)
        EXPECT_TRUE(namesIn("index.html").contains(name)) << name.toStdString();
}

TEST(PageFiles, FirstPageNamesOnlyFilesThatThereAre)
{
    const QStringList names = namesIn("index.html");
    ASSERT_FALSE(names.isEmpty());
    for (const QString& name : names)
        EXPECT_TRUE(PageFiles().names().contains(name)) << name.toStdString();
}

} // namespace micro850::gateway
