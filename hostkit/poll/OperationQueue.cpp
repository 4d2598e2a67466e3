#include "OperationQueue.h"

#include <algorithm>

namespace micro850::host {

namespace {

// How often an operation is started whose connection is lost or whose tag's type is not learnt.
const int kAttempts = 3;

const CipType* typeFor(const Operation& operation, const TypeRegistry& types)
{
    return types.isKnown(operation.tag) ? types.tag(operation.tag).type : nullptr;
}

Failure whyOutOfService(const Station& station)
{
    return station.state() == Station::State::Disabled ? disabledStation(station.number())
                                                       : station.failure();
}

} // namespace

void OperationQueue::declare(const TagKey& key)
{
    if (m_types.declare(key))
        m_driver.declare({key.name});
}

int OperationQueue::add(Operation operation)
{
    declare(operation.tag);
    operation.id = ++m_lastId;
    m_operations.insert(operation.id, operation);
    m_waiting[operation.tag.station].enqueue(operation.id);
    if (operation.variable >= 0 && !operation.timed)
        m_readsOf[operation.variable].append(operation.id);
    m_mayWait = true;
    return operation.id;
}

void OperationQueue::askForType(const TagKey& key)
{
    m_types.markAsking(key);
    Operation operation;
    operation.kind = Operation::Kind::Learn;
    operation.tag = key;
    add(operation);
}

const Operation* OperationQueue::outcome(int id) const
{
    const auto found = m_operations.constFind(id);
    return found != m_operations.constEnd() && found->finished() ? &*found : nullptr;
}

const Operation* OperationQueue::find(int id, const TagKey& key) const
{
    const auto found = m_operations.constFind(id);
    return found != m_operations.constEnd() && found->tag == key ? &*found : nullptr;
}

bool OperationQueue::abandon(int id)
{
    const auto found = m_operations.find(id);
    if (found == m_operations.end())
        return false;
    const bool mayBeDone = found->unanswered || found->state == Operation::State::Done;
    const bool isUndone = found->kind == Operation::Kind::Write && !mayBeDone;
    if (found->state == Operation::State::InDriver) {
        found->awaited = false;
        found->abandoned = true;
        m_someAbandoned = true;
    } else {
        m_operations.erase(found);
    }
    return isUndone;
}

bool OperationQueue::isAbandoned(int id, const TagKey& key) const
{
    const Operation* operation = find(id, key);
    return operation && operation->abandoned && operation->kind == Operation::Kind::Write;
}

void OperationQueue::pump(const QMap<int, Station>& stations)
{
    if (!m_mayWait)
        return;
    for (const Station& station : stations)
        pumpStation(station);
    const auto isEmpty = [](const QQueue<int>& waiting) { return waiting.isEmpty(); };
    m_mayWait = !std::all_of(m_waiting.cbegin(), m_waiting.cend(), isEmpty);
}

void OperationQueue::pumpStation(const Station& station)
{
    QQueue<int>& waiting = m_waiting[station.number()];
    while (!waiting.isEmpty() && !m_inDriver.contains(station.number())) {
        const auto found = m_operations.find(waiting.dequeue());
        if (found == m_operations.end())
            continue;
        Operation& operation = *found;
        if (!station.inService())
            fail(operation, whyOutOfService(station));
        else if (operation.kind == Operation::Kind::Learn || typeFor(operation, m_types))
            giveToDriver(operation);
        else
            deferUntilTyped(operation);
    }
}

void OperationQueue::giveToDriver(Operation& operation)
{
    operation.state = Operation::State::InDriver;
    m_inDriver.insert(operation.tag.station, operation.id);
    const Tag tag = m_types.tag(operation.tag);
    switch (operation.kind) {
    case Operation::Kind::Learn:
        m_driver.queueLearn(operation.id, operation.tag);
        break;
    case Operation::Kind::Read:
        m_driver.queueRead(operation.id, operation.tag, *tag.type,
                           {operation.element, operation.elements});
        break;
    case Operation::Kind::Write:
        m_driver.queueWrite(operation.id, operation.tag, *tag.type, tag.area, operation.element,
                            operation.value);
        break;
    }
}

// The operation waits for a read that learns the type and goes ahead of it. When the type cannot be
// learnt, the operation ends.
void OperationQueue::deferUntilTyped(Operation& operation)
{
    const QString refusal = m_types.tag(operation.tag).error;
    if (!refusal.isEmpty()) {
        end(operation, Operation::State::Refused, refusal);
        return;
    }
    if (++operation.attempts > kAttempts) {
        fail(operation, m_lastFailure);
        return;
    }
    const TagKey key = operation.tag;
    QQueue<int>& waiting = m_waiting[key.station];
    waiting.prepend(operation.id);
    askForType(key);
    waiting.prepend(waiting.takeLast());
}

void OperationQueue::endFinished(const ReplyStatus& status)
{
    const QVector<Finished> all = m_driver.popFinished();
    for (const Finished& finished : all) {
        const auto operation = m_operations.find(finished.id);
        if (operation == m_operations.end() || operation->state != Operation::State::InDriver)
            continue;
        m_inDriver.remove(operation->tag.station);
        applyOutcome(*operation, finished.succeeded, status);
    }
}

void OperationQueue::applyOutcome(Operation& operation, bool succeeded, const ReplyStatus& status)
{
    // A controller that does not know the connection did not carry out the request, unless it did
    // when the request was sent before.
    if (succeeded && status.refusal.isEmpty())
        end(operation, Operation::State::Done);
    else if (succeeded)
        end(operation, Operation::State::Refused, status.refusal);
    else if (operation.unanswered)
        failUnanswered(operation, status);
    else if (!operation.abandoned && status.connectionLost && ++operation.attempts < kAttempts)
        waitAgain(operation);
    else
        fail(operation, status.failure);
}

bool OperationQueue::noteUnanswered(int id, const TagKey& key)
{
    const auto found = m_operations.find(id);
    if (found == m_operations.end() || !(found->tag == key) ||
        found->kind != Operation::Kind::Write)
        return false;
    found->unanswered = true;
    return true;
}

void OperationQueue::failUnanswered(Operation& operation, const ReplyStatus& status)
{
    fail(operation, status.connectionLost ? lostReply() : status.failure);
}

// The driver reports only the write in flight. A write that it still had in its list was not sent,
// so that it may be queued again.
void OperationQueue::handleDroppedConnection(int station, const ReplyStatus& status)
{
    const int id = m_inDriver.value(station, 0);
    endFinished(status);
    const auto left = m_operations.find(id);
    if (left != m_operations.end() && left->state == Operation::State::InDriver &&
        left->kind == Operation::Kind::Write)
    {
        m_inDriver.remove(station);
        if (left->abandoned || left->unanswered)
            failUnanswered(*left, status);
        else
            waitAgain(*left);
    }
}

void OperationQueue::waitAgain(Operation& operation)
{
    operation.state = Operation::State::Waiting;
    m_waiting[operation.tag.station].prepend(operation.id);
    m_mayWait = true;
}

// All variables of a station can be asked for again at once. The ids therefore stay in the queue
// until they may be half of it: to look for each one would take too long.
void OperationQueue::removeReads(int station, int variable)
{
    int& removed = m_removed[station];
    for (const int id : m_readsOf.take(variable)) {
        const auto found = m_operations.find(id);
        if (found == m_operations.end() || found->state != Operation::State::Waiting)
            continue;
        m_operations.erase(found);
        ++removed;
    }
    QQueue<int>& waiting = m_waiting[station];
    if (2 * removed <= waiting.size())
        return;
    const auto isRemoved = [this](int id) { return !m_operations.contains(id); };
    waiting.erase(std::remove_if(waiting.begin(), waiting.end(), isRemoved), waiting.end());
    removed = 0;
}

void OperationQueue::failAll(int station, const Failure& failure)
{
    QQueue<int> ids = m_waiting.take(station);
    ids += m_inDriver.take(station);
    for (const int id : ids) {
        const auto found = m_operations.find(id);
        if (found != m_operations.end())
            fail(*found, failure);
    }
}

void OperationQueue::fail(Operation& operation, const Failure& failure)
{
    m_lastFailure = failure.cause == Failure::Cause::None ? noReply() : failure;
    operation.failure = m_lastFailure;
    end(operation, Operation::State::Failed, m_lastFailure.text);
}

void OperationQueue::end(Operation& operation, Operation::State state, const QString& error)
{
    operation.state = state;
    operation.error = error;
    if (operation.kind == Operation::Kind::Learn)
        m_types.markUnanswered(operation.tag);
    if (!operation.awaited)
        m_operations.remove(operation.id);
}

} // namespace micro850::host
