#include "Session.h"

#include "Writable.h"

#include <algorithm>

namespace micro850::host {

namespace {

QString placeOf(const TagKey& key, int element)
{
    return element == 0 ? key.name
                        : QStringLiteral("%1[%2]").arg(key.name, QString::number(element));
}

[[noreturn]] void refuseTag(const QString& what, const QString& why)
{
    throw TagRefused(what.toStdString(), why.toStdString());
}

// The line or the station failed: no other tag can be read either.
[[noreturn]] void refuse(const QString& what, const QString& why)
{
    throw UserError((what + QStringLiteral(": ") + why).toStdString(), kExitRefused);
}

} // namespace

Session::Session(const DriverApi& api, Line& line, const Clock& clock, const Project& project)
    : m_project(project), m_loop(api, line, clock, project)
{
}

Session::~Session()
{
    m_loop.finish();
}

Operation Session::run(int id, const QString& what)
{
    const Operation* outcome = m_loop.outcome(id);
    for (; !outcome; outcome = m_loop.outcome(id)) {
        m_loop.step();
        if (!m_loop.lineIsUp())
            refuse(m_project.port.text(), m_loop.lineError());
    }
    const Operation done = *outcome;
    m_loop.forget(id);
    if (done.state == Operation::State::Failed) {
        refuse(what, done.error + QStringLiteral(" (") + m_project.port.text() +
                         QStringLiteral("; check cable, speed and station)"));
    }
    if (done.state == Operation::State::Refused)
        refuseTag(what, done.error);
    return done;
}

const CipType& Session::typeOf(const TagKey& key)
{
    if (m_loop.tag(key).state != Tag::State::Known)
        run(m_loop.learn(key), key.name);
    const Tag tag = m_loop.tag(key);
    if (!tag.type)
        refuseTag(key.name, tag.error);
    return *tag.type;
}

QVector<QByteArray> Session::read(const TagKey& key, int element, int elements,
                                  const std::function<void(int)>& progress)
{
    const CipType& type = typeOf(key);
    if (type.kind == CipKind::String && (element != 0 || elements != 1)) {
        throw UserError(key.name.toStdString() + ": of a string only element 0 can be read");
    }
    Variable wanted;
    wanted.element = element;
    wanted.length = elements;
    QVector<QByteArray> values;
    for (const Run& part : runsOf(wanted, type)) {
        const QString what = placeOf(key, part.element);
        const Operation done = run(m_loop.read(key, part.element, part.elements), what);
        const QVector<QByteArray> got = elementsOf(type, done.result);
        if (got.size() != part.elements)
            refuseTag(what, QStringLiteral("the reply holds %1 of %2 elements")
                                .arg(got.size())
                                .arg(part.elements));
        values += got;
        if (progress)
            progress(values.size());
    }
    return values;
}

void Session::write(const TagKey& key, int element, const QByteArray& value)
{
    requireWritable(typeOf(key), key.name);
    run(m_loop.write(key, element, value), placeOf(key, element));
}

} // namespace micro850::host
