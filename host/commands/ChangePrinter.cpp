#include "ChangePrinter.h"

namespace micro850::host {

Json changeObject(const Plant& plant, const Project& project, int variable, const QDateTime& time)
{
    const Variable& asked = project.variables.at(variable);
    const CipType* type = plant.values().type(variable);
    Json object = {{"time", time.toUTC().toString(Qt::ISODateWithMs).toStdString()},
                   {"name", asked.name.toStdString()},
                   {"station", asked.station},
                   {"tag", asked.tag.toStdString()},
                   {"element", asked.element},
                   {"type", type ? Json(type->name) : Json()},
                   {"value", plant.values().wasRead(variable)
                                 ? jsonOf(plant.values().values(variable))
                                 : Json()},
                   {"quality", qualityText(plant.quality(variable)).toStdString()}};
    if (!asked.unit.isEmpty())
        object["unit"] = asked.unit.toStdString();
    if (!plant.values().error(variable).isEmpty())
        object["error"] = plant.values().error(variable).toStdString();
    return object;
}

void ChangePrinter::update(Duration now)
{
    if (now < m_next)
        return;
    m_next = now + m_interval;
    print(now);
}

void ChangePrinter::close(Duration now)
{
    print(now);
}

QString ChangePrinter::hintFor(int variable) const
{
    const ValueStore& values = m_plant.values();
    const bool isUnknown = !values.error(variable).isEmpty() && !values.type(variable);
    return isUnknown ? m_hints.value(variable) : QString();
}

void ChangePrinter::print(Duration now)
{
    const QDateTime time = QDateTime::currentDateTime();
    for (const int variable : m_changes.popVariables(now)) {
        const QString hint = hintFor(variable);
        Json object = m_output.json() ? changeObject(m_plant, m_project, variable, time) : Json();
        if (object.contains("error"))
            object["error"] = object["error"].get<std::string>() + hint.toStdString();
        m_output.data(object, time.toString(QStringLiteral("HH:mm:ss.zzz ")) +
                                  m_table.changeLine(variable) + hint);
    }
    for (const QString& state : m_changes.popStates())
        m_output.note(state);
}

} // namespace micro850::host
