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

// The line or the station failed: no other tag can be read either.
[[noreturn]] void refuse(const QString& why, bool isNotWritten)
{
    if (isNotWritten)
        throw NotWritten(why.toStdString());
    throw UserError(why.toStdString(), kExitRefused);
}

} // namespace

void requireReachable(const CipType& type, int element, int elements, const QString& name)
{
    if (type.kind == CipKind::String && (element != 0 || elements != 1)) {
        throw UserError(name.toStdString() + ": of a string only element 0 can be read and "
                                             "written (leave the index out)");
    }
}

Session::Session(const DriverApi& api, Line& line, const Clock& clock, const Project& project)
    : m_project(project), m_ownLoop(std::make_unique<PollLoop>(api, line, clock, project)),
      m_loop(*m_ownLoop)
{
}

Session::Session(PollLoop& loop, const Project& project) : m_project(project), m_loop(loop) {}

Session::~Session()
{
    Session::finish();
}

void Session::finish()
{
    if (m_ownLoop)
        m_ownLoop->finish();
}

void Session::setInterrupt(const std::function<bool()>& interrupt)
{
    m_interrupt = interrupt;
    if (m_ownLoop)
        m_ownLoop->setInterrupt(interrupt);
}

Operation Session::run(int id, const QString& what, bool heedsInterrupt)
{
    const Operation* outcome = m_loop.outcome(id);
    for (; !outcome; outcome = m_loop.outcome(id)) {
        const bool heeds = heedsInterrupt || !m_ownLoop;
        if (m_loop.interrupted() || (heeds && m_interrupt && m_interrupt()))
            refuse(QStringLiteral("interrupted"), m_loop.abandon(id));
        m_loop.step();
        if (!m_loop.lineIsUp())
            refuse(m_project.port.text() + QStringLiteral(": ") + m_loop.lineError(),
                   m_loop.abandon(id));
    }
    const Operation done = *outcome;
    m_loop.forget(id);
    if (done.state == Operation::State::Failed) {
        const QString remedy = done.failure.remedy;
        refuse(what + QStringLiteral(": ") + done.error + QStringLiteral(" (") +
                   m_project.port.text() +
                   (remedy.isEmpty() ? remedy : QStringLiteral("; ") + remedy) +
                   QStringLiteral(")"),
               done.kind == Operation::Kind::Write && !done.unanswered);
    }
    return done;
}

const CipType& Session::typeOf(const TagKey& key)
{
    if (m_loop.tag(key).state != Tag::State::Known) {
        const Operation done = run(m_loop.learn(key), key.name, true);
        if (done.state == Operation::State::Refused)
            throw TagRefused(key.name.toStdString(), done.error.toStdString());
    }
    const Tag tag = m_loop.tag(key);
    if (!tag.type)
        throw TagRefused(key.name.toStdString(), tag.error.toStdString());
    return *tag.type;
}

QVector<QByteArray> Session::read(const TagKey& key, int element, int elements,
                                  const std::function<void(int)>& progress)
{
    const CipType& type = typeOf(key);
    requireReachable(type, element, elements, key.name);
    Variable wanted;
    wanted.element = element;
    wanted.length = elements;
    QVector<QByteArray> values;
    for (const Run& part : runsOf(wanted, type)) {
        values += readRun(key, type, part);
        if (progress)
            progress(values.size());
    }
    return values;
}

QVector<QByteArray> Session::readRun(const TagKey& key, const CipType& type, const Run& part)
{
    const int last = part.element + part.elements - 1;
    const QString what = placeOf(key, part.element);
    const Operation done = run(m_loop.read(key, part.element, part.elements), what);
    if (done.state == Operation::State::Refused && part.element == last)
        throw TagRefused(what.toStdString(), done.error.toStdString(), last);
    if (done.state == Operation::State::Refused) {
        throwFirstRefused(key, part.element, last);
        // Each element alone can be read.
        throw TagRefused(key.name.toStdString(), done.error.toStdString());
    }
    const QVector<QByteArray> elements = elementsOf(type, done.result);
    if (elements.size() == part.elements)
        return elements;
    throw TagRefused(what.toStdString(),
                     QStringLiteral("the reply holds %1 of %2 elements")
                         .arg(elements.size())
                         .arg(part.elements)
                         .toStdString(),
                     part.element);
}

void Session::requireElements(const TagKey& key, int element, int elements)
{
    requireReachable(typeOf(key), element, elements, key.name);
    const int last = element + elements - 1;
    // Learning the type has read element 0.
    if (last != 0)
        throwFirstRefused(key, element, last);
}

std::optional<QString> Session::refusalOf(const TagKey& key, int element)
{
    const Operation done = run(m_loop.read(key, element, 1), placeOf(key, element));
    return done.state == Operation::State::Refused ? std::make_optional(done.error) : std::nullopt;
}

// The elements that exist come first, so that bisecting finds the first one that does not.
void Session::throwFirstRefused(const TagKey& key, int first, int last)
{
    std::optional<QString> why = refusalOf(key, last);
    if (!why)
        return;
    int refused = last;
    for (int good = first - 1; refused - good > 1;) {
        const int middle = good + (refused - good) / 2;
        if (const std::optional<QString> whyMiddle = refusalOf(key, middle)) {
            refused = middle;
            why = whyMiddle;
        } else {
            good = middle;
        }
    }
    throw TagRefused(placeOf(key, refused).toStdString(), why->toStdString(), refused);
}

void Session::write(const TagKey& key, int element, const QByteArray& value)
{
    const CipType& type = typeOf(key);
    requireWritable(type, key.name);
    requireReachable(type, element, 1, key.name);
    const QString what = placeOf(key, element);
    const Operation done = run(m_loop.write(key, element, value), what);
    if (done.state == Operation::State::Refused)
        throw TagRefused(what.toStdString(), done.error.toStdString(), element);
}

} // namespace micro850::host
