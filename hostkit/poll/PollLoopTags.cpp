// What the poll loop knows of tags: their types, their values, and what the controller refuses.

#include "PollLoop.h"

#include <algorithm>
#include <utility>

namespace micro850::host {

namespace {

// How often what is due is looked for.
const std::chrono::milliseconds kLookInterval(100);
// When a tag that the controller refused is tried again: a program download may bring it.
const std::chrono::seconds kRefusedPause(10);
// When the type of a tag whose station did not answer is asked for again.
const std::chrono::seconds kUnansweredPause(1);
// How often an operation is begun when its connection is lost meanwhile.
const int kAttempts = 3;
const Duration kNever = Duration::max();

} // namespace

// Asks for the type of every tag that a variable shows, and lets variables back into the cycle.
void PollLoop::lookAfterTags()
{
    const Duration now = m_clock.now();
    if (now < m_nextLook)
        return;
    m_nextLook = now + kLookInterval;
    for (auto left = m_leftOut.begin(); left != m_leftOut.end();) {
        const bool due = left.value() <= now;
        m_replan = m_replan || due;
        left = due ? m_leftOut.erase(left) : left + 1;
    }
    for (auto of = m_variablesOf.constBegin(); of != m_variablesOf.constEnd(); ++of) {
        const Tag tag = m_tags.value(of.key());
        const bool open = tag.state == Tag::State::Unknown || tag.state == Tag::State::Refused;
        const Station station = m_stations.value(of.key().station);
        if (open && tag.retryAt <= now && station.inService() && !station.probing)
            askFor(of.key());
    }
}

void PollLoop::askFor(const TagKey& key)
{
    Tag& tag = m_tags[key];
    if (tag.state != Tag::State::Known)
        tag.state = Tag::State::Asking;
    Operation operation;
    operation.kind = Operation::Kind::Learn;
    operation.tag = key;
    add(operation);
}

void PollLoop::replan()
{
    m_replan = false;
    const QList<int> leftOut = m_leftOut.keys();
    m_driver.setCyclicReads(planReads(m_project, m_tags, QSet<int>(leftOut.begin(), leftOut.end()),
                                      m_driver.localLink()));
}

void PollLoop::takeValues(const RW_VAR& sent, const Request& request, const Reply& reply)
{
    const TagKey key = {sent.stationNo, sent.tagName};
    Tag& tag = m_tags[key];
    const bool learnt = learnType(tag, reply);
    // The driver asks for element 0 while it does not know the class, whatever the request says.
    const bool asAsked = static_cast<int>(request.element) == sent.startAddress;
    if (tag.type && tag.typeCode == reply.typeCode() && asAsked) {
        m_arrived = Arrived{key, sent.startAddress, reply.values(), m_clock.now()};
        const auto operation = m_operations.find(sent.varIndex);
        if (operation != m_operations.end() && operation->tag == key)
            operation->result = storeArrived();
    }
    if (learnt)
        checkVariables(key);
}

// The line would stand still meanwhile, so that this waits until the next request has gone out, or
// until there is none.
QByteArray PollLoop::storeArrived()
{
    if (!m_arrived)
        return QByteArray();
    const Arrived arrived = *std::exchange(m_arrived, std::nullopt);
    const Tag& tag = m_tags[arrived.key];
    const QByteArray bytes =
        m_driver.storedValue(arrived.key, tag.typeCode, arrived.element, arrived.values);
    m_values.store(arrived.key, arrived.element, *tag.type, bytes, arrived.at);
    return bytes;
}

// True when the tag's type is new. The driver keeps the first one for good.
bool PollLoop::learnType(Tag& tag, const Reply& reply)
{
    const quint16 code = reply.typeCode();
    if (tag.state == Tag::State::Known && code == tag.typeCode)
        return false;
    if (tag.state != Tag::State::Known) {
        tag.typeCode = code;
        tag.type = cipTypeOf(code);
        tag.error = tag.type ? QString()
                             : QStringLiteral("type %1 is not an elementary type")
                                   .arg(code, 4, 16, QLatin1Char('0'));
    } else {
        tag.type = nullptr;
        tag.error = QStringLiteral("type changed in the controller (start again to take it over)");
    }
    tag.state = Tag::State::Known;
    m_replan = true;
    return true;
}

void PollLoop::checkVariables(const TagKey& key)
{
    const Tag tag = m_tags.value(key);
    for (const int variable : m_variablesOf.value(key)) {
        checkVariable(variable, tag);
        readOnce(variable);
    }
}

// A variable whose type is not what the project says, or that cannot be reached, is not read: a
// value is never guessed.
void PollLoop::checkVariable(int variable, const Tag& tag)
{
    const Variable& asked = m_project.variables.at(variable);
    QString error = tag.error;
    if (error.isEmpty() && asked.type && asked.type != tag.type) {
        error = QStringLiteral("is %1 in the controller, %2 in the project")
                    .arg(QLatin1String(tag.type->name), QLatin1String(asked.type->name));
    } else if (error.isEmpty() && tag.type->kind == CipKind::String &&
               (asked.element != 0 || asked.length != 1))
    {
        error = QStringLiteral("of a string only element 0 and length 1 can be read");
    }
    if (error.isEmpty())
        return;
    m_values.setError(variable, error);
    m_leftOut[variable] = kNever;
}

void PollLoop::readOnce(int variable)
{
    const Variable& asked = m_project.variables.at(variable);
    const TagKey key = {asked.station, asked.tag};
    const Tag tag = m_tags.value(key);
    if (asked.poll != PollMode::Once || m_leftOut.contains(variable) || !tag.type)
        return;
    for (const Run& run : runsOf(asked, *tag.type)) {
        Operation operation;
        operation.variable = variable;
        operation.tag = key;
        operation.element = run.element;
        operation.elements = run.elements;
        add(operation);
    }
}

void PollLoop::takeRefusal(const RW_VAR& sent, const Request& request)
{
    const TagKey key = {sent.stationNo, sent.tagName};
    if (request.service != kReadTagFragmented)
        return;
    if (m_tags.value(key).state != Tag::State::Known) {
        refuseTag(key, m_refusal);
        return;
    }
    const auto operation = m_operations.constFind(sent.varIndex);
    const bool ours = operation != m_operations.constEnd() && operation->tag == key;
    const int variable = ours ? operation->variable : variableOf(sent.varIndex);
    if (variable >= 0) {
        m_values.setError(variable, m_refusal);
        m_leftOut[variable] = m_clock.now() + kRefusedPause;
    } else if (!ours) {
        // One of those that the driver merged reaches beyond the tag: each is read on its own.
        m_tags[key].mergeable = false;
    }
    m_replan = true;
}

void PollLoop::refuseTag(const TagKey& key, const QString& why)
{
    Tag& tag = m_tags[key];
    tag.state = Tag::State::Refused;
    tag.error = why;
    tag.retryAt = m_clock.now() + kRefusedPause;
    for (const int variable : m_variablesOf.value(key))
        m_values.setError(variable, why);
}

int PollLoop::read(const TagKey& tag, int element, int elements)
{
    Operation operation;
    operation.kind = Operation::Kind::Read;
    operation.tag = tag;
    operation.element = element;
    operation.elements = elements;
    operation.awaited = true;
    return add(operation);
}

int PollLoop::write(const TagKey& tag, int element, const QByteArray& value)
{
    Operation operation;
    operation.kind = Operation::Kind::Write;
    operation.tag = tag;
    operation.element = element;
    operation.value = value;
    operation.awaited = true;
    return add(operation);
}

int PollLoop::learn(const TagKey& tag)
{
    Operation operation;
    operation.kind = Operation::Kind::Learn;
    operation.tag = tag;
    operation.awaited = true;
    return add(operation);
}

int PollLoop::add(const Operation& operation)
{
    declare(operation.tag);
    Operation added = operation;
    added.id = ++m_lastId;
    m_operations.insert(added.id, added);
    m_waiting[added.tag.station].enqueue(added.id);
    return added.id;
}

const Operation* PollLoop::outcome(int id) const
{
    const auto found = m_operations.constFind(id);
    return found != m_operations.constEnd() && found->finished() ? &*found : nullptr;
}

// The driver gets one operation of a station at a time: what it drops with a connection, or with a
// station that is taken out, is then known.
void PollLoop::pumpOperations()
{
    for (Station& station : m_stations)
        pumpStation(station);
}

void PollLoop::pumpStation(Station& station)
{
    QQueue<int>& waiting = m_waiting[station.number];
    while (!waiting.isEmpty() && !m_queued.contains(station.number)) {
        const int id = waiting.head();
        Operation& operation = m_operations[id];
        if (!station.inService()) {
            const bool disabled = station.state == Station::State::Disabled;
            waiting.dequeue();
            end(operation, Operation::State::Failed,
                QStringLiteral("station %1 ").arg(station.number) +
                    QLatin1String(disabled ? "is disabled" : "does not answer"));
        } else if (isReady(operation)) {
            waiting.dequeue();
            operation.state = Operation::State::Queued;
            m_queued.insert(station.number, id);
            m_driver.queue(operation, m_tags.value(operation.tag));
        }
    }
}

// True when the operation can be handed to the driver. It needs the type of its tag, which takes a
// read of its own that goes ahead; without hope for one the operation ends here.
bool PollLoop::isReady(Operation& operation)
{
    const Tag tag = m_tags.value(operation.tag);
    if (operation.kind == Operation::Kind::Learn || (tag.state == Tag::State::Known && tag.type))
        return true;
    QQueue<int>& waiting = m_waiting[operation.tag.station];
    if (!tag.error.isEmpty()) {
        waiting.dequeue();
        end(operation, Operation::State::Refused, tag.error);
    } else if (++operation.attempts > kAttempts) {
        waiting.dequeue();
        end(operation, Operation::State::Failed, QStringLiteral("no answer"));
    } else {
        askFor(operation.tag);
        waiting.prepend(waiting.takeLast());
    }
    return false;
}

void PollLoop::takeFinished()
{
    for (const QPair<int, bool>& finished : m_driver.takeFinished()) {
        const auto operation = m_operations.find(finished.first);
        if (operation == m_operations.end() || operation->state != Operation::State::Queued)
            continue;
        m_queued.remove(operation->tag.station);
        takeOutcome(*operation, finished.second);
    }
}

void PollLoop::takeOutcome(Operation& operation, bool succeeded)
{
    // A request that the controller refused for want of a connection was not carried out.
    if (!succeeded && m_connectionLost && ++operation.attempts < kAttempts) {
        operation.state = Operation::State::Waiting;
        m_waiting[operation.tag.station].prepend(operation.id);
    } else if (!succeeded) {
        end(operation, Operation::State::Failed, QStringLiteral("no answer"));
    } else if (!m_refusal.isEmpty()) {
        end(operation, Operation::State::Refused, m_refusal);
    } else {
        end(operation, Operation::State::Done);
    }
}

void PollLoop::end(Operation& operation, Operation::State state, const QString& error)
{
    operation.state = state;
    operation.error = error;
    Tag& tag = m_tags[operation.tag];
    if (operation.kind == Operation::Kind::Learn && tag.state == Tag::State::Asking) {
        tag.state = Tag::State::Unknown;
        tag.retryAt = m_clock.now() + kUnansweredPause;
    }
    if (!operation.awaited)
        m_operations.remove(operation.id);
}

} // namespace micro850::host
