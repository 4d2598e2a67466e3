// Lists of variables as a programming tool exports them: any text is read or refused with one line.
// A list that is read makes a valid project file.

#include "Project.h"
#include "TagAddress.h"
#include "VariableList.h"
#include "complaint.h"

#include <QtCore/QSet>

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>

namespace {

using namespace micro850::host;

void checkFields(const QString& line)
{
    for (const QChar separator : {QChar(','), QChar(';'), QChar('\t')}) {
        QStringList fields;
        try {
            fields = csvFields(line, separator);
        } catch (const micro850::UserError&) {
            FUZZ_CHECK(line.contains('"'));
            continue;
        }
        FUZZ_CHECK(!fields.isEmpty() && fields.size() <= 1 + line.count(separator));
        FUZZ_CHECK(fields.join(QString()).size() <= line.size());
        if (!line.contains('"') && !line.contains('\n') && !line.contains('\r'))
            FUZZ_CHECK(fields == line.split(separator));
    }
}

// "line 7: MyTimer: why"
void checkPassedOver(const QString& problem, int lines)
{
    FUZZ_CHECK(problem.startsWith("line "));
    const int number = problem.section(' ', 1, 1).section(':', 0, 0).toInt();
    FUZZ_CHECK(number >= (problem.endsWith("Windows-1252") ? 1 : 2) && number <= lines);
}

void checkProject(const VariableList& list)
{
    nlohmann::json variables;
    for (const Variable& variable : list.variables) {
        nlohmann::json object = {{"tag", variable.tag.toStdString()}, {"length", variable.length}};
        if (variable.type)
            object["type"] = variable.type->name;
        object["unit"] = variable.unit.toStdString();
        object["comment"] = variable.comment.toStdString();
        variables.push_back(object);
    }
    const nlohmann::json root = {{"variables", variables}};
    const Project project = Project::fromText(QString::fromStdString(root.dump()), "p.json");
    FUZZ_CHECK(project.variables.size() == list.variables.size());
}

void check(const VariableList& list, int lines)
{
    const bool isOneByte = list.ignored.value(0).endsWith("Windows-1252");
    FUZZ_CHECK(list.variables.size() + list.ignored.size() < lines + (isOneByte ? 1 : 0));
    QSet<QString> names;
    for (const Variable& variable : list.variables) {
        FUZZ_CHECK(!variable.name.isEmpty() && variable.name.size() <= kLongestTag);
        FUZZ_CHECK(variable.tag == variable.name && variable.element == 0);
        FUZZ_CHECK(variable.length >= 1 && variable.length <= kLargestElement + 1);
        FUZZ_CHECK(variable.station >= 0 && variable.station <= 65535);
        FUZZ_CHECK(list.hasStations || variable.station == 1);
        names.insert(variable.name);
    }
    FUZZ_CHECK(names.size() == list.variables.size());
    for (const QString& problem : list.ignored)
        checkPassedOver(problem, lines);
    if (!list.variables.isEmpty())
        checkProject(list);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    const QByteArray content(reinterpret_cast<const char*>(bytes), static_cast<int>(size));
    checkFields(QString::fromUtf8(content));
    VariableList list;
    try {
        list = VariableList::fromBytes(content, QStringLiteral("v.csv"));
    } catch (const micro850::UserError& error) {
        fuzz::checkComplaint(error, "v.csv:");
        return 0;
    }
    // A list with a byte 00 is refused, unless it is UTF-16: it must not be cut there.
    const QByteArray begin = content.left(2);
    const bool isWide = begin == "\xFF\xFE" || begin == "\xFE\xFF" || begin.contains('\0');
    FUZZ_CHECK(isWide || !content.contains('\0'));
    check(list, content.count('\n') + 1);
    return 0;
}
