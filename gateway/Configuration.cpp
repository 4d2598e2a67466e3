#include "Configuration.h"

#include "JsonFile.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>

namespace micro850::gateway {

namespace {

LineSettings lineOf(const JsonNode& node, const QString& folder)
{
    node.expectKeys({"name", "project"});
    LineSettings line;
    line.name = QString::fromStdString(node.at("name").text());
    const QString file = QString::fromStdString(node.at("project").text());
    line.projectFile = QFileInfo(file).isAbsolute() ? file : folder + QLatin1Char('/') + file;
    QFile content(line.projectFile);
    if (!content.open(QIODevice::ReadOnly))
        node.at("project").fail(line.projectFile.toStdString() + ": " +
                                content.errorString().toStdString());
    line.projectText = content.readAll();
    line.project = host::Project::fromText(QString::fromUtf8(line.projectText), line.projectFile);
    return line;
}

} // namespace

Configuration Configuration::fromFile(const QString& path)
{
    const JsonNode root = JsonNode::fromFile(path.toStdString());
    root.expectKeys({"$schema", "lines", "socket", "history"});
    Configuration configuration;
    const QString folder = QFileInfo(path).absolutePath();
    for (const JsonNode& line : root.at("lines").elements())
        configuration.lines.append(lineOf(line, folder));
    if (root.has("socket")) {
        const JsonNode socket = root.at("socket");
        socket.expectKeys({"path", "mostClients"});
        configuration.socket.path =
            QString::fromStdString(socket.text("path", configuration.socket.path.toStdString()));
        configuration.socket.mostClients = static_cast<int>(
            socket.integer("mostClients", 1, 10000, configuration.socket.mostClients));
    }
    if (root.has("history")) {
        const JsonNode history = root.at("history");
        history.expectKeys({"file", "keepDays", "keepMegabytes"});
        configuration.history.file = QString::fromStdString(history.text("file", ""));
        configuration.history.keepDays =
            static_cast<int>(history.integer("keepDays", 1, 36500, configuration.history.keepDays));
        configuration.history.keepMegabytes = static_cast<int>(
            history.integer("keepMegabytes", 1, 1000000, configuration.history.keepMegabytes));
    }
    return configuration;
}

} // namespace micro850::gateway
