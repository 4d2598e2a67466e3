#include "TableWrite.h"

#include "Scaling.h"

namespace micro850::host {

namespace {

/// A write in progress, for the words on what came of it.
struct Progress
{
    bool isSent = false;
    bool isWritten = false;
};

QString whyText(const UserError& error)
{
    return QString::fromUtf8(error.what());
}

QString failedText(const WriteRequest& request, const Progress& progress, const QString& why)
{
    if (progress.isWritten)
        return request.name + QStringLiteral(": was written, but not read back: ") + why;
    if (progress.isSent)
        return request.name + QStringLiteral(": nobody knows whether it was written: ") + why;
    return request.name + QStringLiteral(": not written: ") + why;
}

QString carriedOut(TagAccess& tags, const Variable& variable, const WriteRequest& request,
                   Progress& progress)
{
    const TagKey tag = {variable.station, variable.tag};
    const int element = variable.element + request.index;
    const CipType& type = tags.typeOf(tag);
    if (&type != request.type)
        return QStringLiteral("%1: not written: it is %2 in the controller now")
            .arg(request.name, QLatin1String(type.name));
    tags.requireAllowed(tag, element, request.value);
    progress.isSent = true;
    tags.write(tag, element, request.value);
    progress.isWritten = true;
    const QByteArray read = tags.read(tag, element, 1).first();
    const QString change = QStringLiteral("%1: %2 -> ").arg(request.name, request.oldText) +
                           Scaling(variable).text(type, decodeElement(type, read)) +
                           (variable.unit.isEmpty() ? QString() : ' ' + variable.unit);
    if (read == request.value)
        return change + QStringLiteral(" written and read back");
    return change + QStringLiteral(" was read back after %1 was written (the program may set it)")
                        .arg(request.newText);
}

} // namespace

QString writtenText(TagAccess& tags, const Project& project, const WriteRequest& request)
{
    Progress progress;
    try {
        return carriedOut(tags, project.variables.at(request.variable), request, progress);
    } catch (const TagRefused& error) {
        progress.isSent = false;
        return failedText(request, progress, QString::fromStdString(error.why()));
    } catch (const NotWritten& error) {
        progress.isSent = false;
        return failedText(request, progress, whyText(error));
    } catch (const UserError& error) {
        return failedText(request, progress, whyText(error));
    }
}

} // namespace micro850::host
