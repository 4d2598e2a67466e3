#include "ConfigurationPart.h"

#include "Visible.h"

#include <QtCore/QDir>

namespace micro850::gateway {

QString pathOf(const JsonNode& node, const QString& folder)
{
    const QString path = QString::fromStdString(node.text());
    if (path.isEmpty())
        node.fail("a path has at least one character");
    if (host::visible(path) != path)
        node.fail("a path has no control or format characters, such as a line feed");
    return QDir::cleanPath(QDir::isAbsolutePath(path) ? path : folder + QLatin1Char('/') + path);
}

} // namespace micro850::gateway
