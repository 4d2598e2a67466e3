#include "Driver.h"

#include "ReplyCollector.h"

#include <utility>

namespace micro850::host {

namespace {

Driver* theDriver = nullptr;

const int kIndexedName = 2;
const int kQueuedWrites = 2;
const int kStatusDone = 1;
// A kind outside 1 to 11, so that a failure code says only which failure it is.
const int kOperationKind = 0;

// Whether AddListOnceReadVar() completes a record.
const int kCompleted = 0;
const int kUnchanged = 1;

// More calls than the driver needs to decide that a reply stays incomplete.
const int kMostJudgements = 32;

// Values of the retValue of a result.
const int kNotFinished = 0;
const int kNoConnection = 201;
const int kFirstFailure = 11;
const int kNotStored = 100;

// A variable that is no array is element 0: this text need not be made for every value.
QString elementText(int element)
{
    return element == 0 ? QStringLiteral("0") : QString::number(element);
}

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
    // Stations per variable, even if there is only one station: a failure then drops only the
    // writes of its own station.
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

// The driver holds its list lock during this call, so that it must not call the driver.
void Driver::onFinished(int, int, int varIndex, int status)
{
    if (theDriver)
        theDriver->m_finished.append({varIndex, status == kStatusDone});
}

// This host fetches values after every transaction, so that it needs no notice.
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

RW_VAR Driver::oneShotRead(int id, const TagKey& tag, int element) const
{
    RW_VAR request = RW_VAR();
    request.varType = kOperationKind;
    request.varIndex = id;
    request.linkId = m_settings.localLink;
    request.tagName = tag.name;
    request.addressText = QString::number(element);
    request.stationNo = tag.station;
    request.onceFlag = 1;
    return request;
}

// The request is that of a name outside the catalogue: one element at index 0, whether the driver
// knows the class or not. Only a record that the driver does not complete can ask for that.
void Driver::queueLearn(int id, const TagKey& tag)
{
    RW_VAR request = oneShotRead(id, tag, 0);
    request.count = 1;
    m_api.addOneShotRead(&request, kUnchanged);
}

void Driver::queueRead(int id, const TagKey& tag, const CipType& type, const Run& run)
{
    RW_VAR request = oneShotRead(id, tag, run.element);
    request.count = oneShotCount(typeClassOf(type.code), run.elements);
    m_api.addOneShotRead(&request, kCompleted);
}

void Driver::queueWrite(int id, const TagKey& tag, const CipType& type, int area, int element,
                        const QByteArray& value)
{
    const HostValue converted = toHostLayout(type, value);
    m_api.setRegisterData(tag.name, area, QString::number(element), tag.station, converted.bytes,
                          converted.count, kOperationKind, id);
}

Verdict Driver::handOver(Protocol& sent, const QByteArray& frame)
{
    const bool setUp = sent.var.tagName.isEmpty();
    QByteArray reply = replyForDriver(frame, !setUp);
    const int varies = -1;
    // A reply of varying length takes two calls: the first one notes its length, the second one
    // accepts it.
    if (sent.replyLength == varies && m_api.dataCom(&reply, reply.size())->retValue == kNotFinished)
        return Verdict::Repeat;
    // The reply is known to be complete. The length is therefore the one that the driver expects,
    // even after a time-out, when it expects a length that no reply has.
    return verdictOf(*m_api.dataCom(&reply, sent.replyLength));
}

// The driver would store the bytes after an error status as the tag's type, for good, and as its
// value. It stores replies to reads, but only acknowledges replies to writes. The queued request
// therefore becomes one whose reply is only acknowledged.
Verdict Driver::handOverRefusal(Protocol& sent, const QByteArray& frame)
{
    const int acknowledgedOnly = 1;
    sent.var.accessMode = acknowledgedOnly;
    return handOver(sent, frame);
}

// Several calls without bytes count as one failure, because a host may pass its bytes piece by
// piece.
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

QByteArray Driver::storedValue(const TagKey& tag, const CipType& type, int element,
                               const ByteSlice& replyValues) const
{
    const TypeClass typeClass = typeClassOf(type.code);
    QByteArray bytes;
    m_api.getRegisterData(tag.name, 0, elementText(element), tag.station, bytes,
                          fetchCount(typeClass, replyValues.size()));
    return fromHostLayout(typeClass, bytes, replyValues);
}

QVector<Finished> Driver::popFinished()
{
    return std::exchange(m_finished, {});
}

} // namespace micro850::host
