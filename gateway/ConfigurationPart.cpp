#include "ConfigurationPart.h"

#include "Message.h"
#include "Visible.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

namespace micro850::gateway {

void expectObject(const JsonNode& node, const char* remedy)
{
    if (!host::jsonOf(node).is_object())
        node.fail(node.found() + " is not an object { ... }" + remedy);
}

QString pathOf(const JsonNode& node, const QString& folder)
{
    const QString path = QString::fromStdString(node.text());
    if (path.isEmpty())
        node.fail("a path has at least one character");
    if (host::visible(path) != path)
        node.fail("a path has no control or format characters, such as a line feed");
    return QDir::cleanPath(QDir::isAbsolutePath(path) ? path : folder + QLatin1Char('/') + path);
}

// The lock stays beside a database when the service ends; one that a damaged database lost its
// first bytes of is still known by it.
QString databasePathOf(const JsonNode& node, const QString& folder)
{
    const QString path = pathOf(node, folder);
    const QFileInfo info(path);
    if (info.exists() && !info.isFile())
        node.fail(path.toStdString() + " is not a file (choose another path)");
    QFile file(path);
    const QByteArray mark("SQLite format 3", 16);
    if (info.size() == 0 || QFileInfo::exists(path + QStringLiteral(".lock")) ||
        !file.open(QIODevice::ReadOnly) || file.read(mark.size()) == mark)
        return path;
    node.fail(path.toStdString() + " is there and is no database (choose another path)");
}

} // namespace micro850::gateway
