#include "Driver.h"

#include "ReplyCollector.h"

namespace micro850::host {

namespace {

Driver* theDriver = nullptr;

const int kIndexedName = 2;
const int kQueuedWrites = 2;
const int kStatusDone = 1;
// Any kind outside 1 to 11: failure codes then name the failure alone.
const int kOperationKind = 0;

// How AddListOnceReadVar() takes a record.
const int kCompleted = 0;
const int kUnchanged = 1;

// More than the driver takes to find a reply incomplete for good.
const int kMostJudgements = 32;

// Values of a result's retValue.
const int kNotFinished = 0;
const int kNoConnection = 201;
const int kFirstFailure = 11;
const int kNotStored = 100;

Verdict verdictOf(const RW_VAR& result)
{
    if (result.retValue == kNotFinished)
        return Verdict::Repeat;
    if (result.retValue == kNoConnection)
        return Verdict::NoConnection;
    const bool failed = result.retValue >= kFirstFailure && result.retValue != kNotStored;
    return failed ? Verdict::Dropped : Verdict::Done;
}

} // namespace

Driver::Driver(const DriverApi& api, int defaultStation, int retryLimit) : m_api(api)
{
    theDriver = this;
    m_settings.defaultStation = defaultStation;
    m_settings.retryLimit = retryLimit;
    // Stations per variable, also where there is one: a failure then drops the writes of its own
    // station only.
    m_settings.multiStation = 1;
    m_settings.writeMode = kQueuedWrites;
    m_api.setComInfo(&m_settings);
    m_api.registerCallbacks(&Driver::onFinished, &Driver::onRefresh);
    m_api.flashLocalRegister(m_localWords.data(), m_localWords.data(), m_localWords.data());
}

Driver::~Driver()
{
    QList<HOSTVAR> none;
    m_api.recreateReadList(&none);
    m_api.registerCallbacks(nullptr, nullptr);
    m_api.flashLocalRegister(nullptr, nullptr, nullptr);
    m_api.setComInfo(nullptr);
    theDriver = nullptr;
}

// Called with the driver's list lock held, so that it only takes a note.
void Driver::onFinished(int, int, int varIndex, int status)
{
    if (theDriver)
        theDriver->m_finished.append({varIndex, status == kStatusDone});
}

// This host looks at its values after every transaction, so that there is nothing to refresh.
void Driver::onRefresh(QList<RW_VAR>*, int, int) {}

void Driver::declare(const QStringList& tags)
{
    QList<varName> names;
    for (const QString& tag : tags)
        names.append(varName{tag, kIndexedName, 0, QList<QString>()});
    m_api.passVarName(&names);
}

void Driver::enableStation(int station, bool enabled)
{
    m_api.enableStation(station, enabled ? 1 : 0);
}

void Driver::setCyclicReads(const ReadPlan& plan)
{
    QList<HOSTVAR> merged = plan.merged;
    m_api.recreateReadList(&merged);
    for (RW_VAR request : plan.single)
        m_api.addRead(&request);
}

void Driver::queue(const Operation& operation, const Tag& tag)
{
    if (operation.kind == Operation::Kind::Write)
        queueWrite(operation, tag);
    else
        queueRead(operation, tag);
}

void Driver::queueRead(const Operation& operation, const Tag& tag)
{
    RW_VAR request = RW_VAR();
    request.varType = kOperationKind;
    request.varIndex = operation.id;
    request.linkId = m_settings.localLink;
    request.tagName = operation.tag.name;
    request.addressText = QString::number(operation.element);
    request.stationNo = operation.tag.station;
    request.onceFlag = 1;
    if (operation.kind == Operation::Kind::Learn) {
        // As a name outside the catalogue: one element at index 0, whether the driver knows the
        // class or not. Only a record that it does not complete can say so.
        request.count = 1;
        m_api.addOneShotRead(&request, kUnchanged);
    } else {
        request.count = oneShotCount(typeClassOf(tag.typeCode), operation.elements);
        m_api.addOneShotRead(&request, kCompleted);
    }
}

void Driver::queueWrite(const Operation& operation, const Tag& tag)
{
    const HostValue value = toHostLayout(*tag.type, operation.value);
    m_api.setRegisterData(operation.tag.name, tag.area, QString::number(operation.element),
                          operation.tag.station, value.bytes, value.count, kOperationKind,
                          operation.id);
}

Verdict Driver::handOver(Protocol& sent, const QByteArray& data)
{
    const bool setUp = sent.var.tagName.isEmpty();
    QByteArray reply = replyForDriver(data, !setUp);
    const int varies = -1;
    // A reply of varying length is judged by one call, which notes its length, and taken by the
    // next.
    if (sent.replyLength == varies && m_api.dataCom(&reply, reply.size())->retValue == kNotFinished)
        return Verdict::Repeat;
    // The length that the driver expects, which after a time-out is one that no reply has: the
    // reply is known to be complete.
    return verdictOf(*m_api.dataCom(&reply, sent.replyLength));
}

// The bytes behind an error status would be taken for the tag's type, for good, and for its value.
// The driver stores replies to reads and acknowledges those to writes, so the queued copy of the
// request becomes one that is acknowledged.
Verdict Driver::handOverRefusal(Protocol& sent, const QByteArray& data)
{
    const int acknowledgedOnly = 1;
    sent.var.accessMode = acknowledgedOnly;
    return handOver(sent, data);
}

// A silence is judged several times, as a host may hand over its bytes piece by piece, before it
// counts as one failure.
Verdict Driver::reportSilence(Protocol& sent)
{
    QByteArray nothing;
    const int varies = -1;
    for (int i = 0; i < kMostJudgements && sent.replyLength == varies; ++i)
        m_api.dataCom(&nothing, 0);
    return verdictOf(*m_api.dataCom(&nothing, 0));
}

Verdict Driver::dropConnection(Protocol& sent)
{
    Verdict verdict = Verdict::Repeat;
    for (int i = 0; i <= m_settings.retryLimit && verdict == Verdict::Repeat; ++i)
        verdict = reportSilence(sent);
    return verdict;
}

QByteArray Driver::storedValue(const TagKey& tag, quint16 typeCode, int element,
                               const QByteArray& replyValues) const
{
    const TypeClass typeClass = typeClassOf(typeCode);
    QByteArray bytes;
    m_api.getRegisterData(tag.name, 0, QString::number(element), tag.station, bytes,
                          fetchCount(typeClass, replyValues.size()));
    return fromHostLayout(typeClass, bytes, replyValues);
}

QVector<QPair<int, bool>> Driver::takeFinished()
{
    QVector<QPair<int, bool>> finished;
    finished.swap(m_finished);
    return finished;
}

} // namespace micro850::host
