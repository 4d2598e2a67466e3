#include "Prober.h"

#include "FrameText.h"

namespace micro850::host {

namespace {

const int kAttempts = 2;
// The driver needs at most so many calls until it begins a new connection; some return no frame.
const int kMostCalls = 8;

QString silenceText(const Counters& counters, qint64 bytes)
{
    if (counters.late > 0)
        return QStringLiteral("replies come later than the time-out (set a longer one with "
                              "--timeout)");
    if (bytes == 0)
        return QStringLiteral("no answer");
    return QStringLiteral("%1 %2 came, but no intact reply (another speed, or another protocol?)")
        .arg(QString::number(bytes), bytes == 1 ? QStringLiteral("byte") : QStringLiteral("bytes"));
}

} // namespace

// The driver connects because of the tag, which it never asks for.
Prober::Prober(const DriverApi& api, int station)
    : m_driver(api, station, 0), m_tag{station, QStringLiteral("_")}
{
    m_driver.declare({m_tag.name});
    m_driver.enableStation(station, true);
}

Protocol* Prober::request()
{
    for (int i = 0; i < kMostCalls; ++i) {
        if (Protocol* next = m_driver.next())
            return next;
        m_driver.queueLearn(0, m_tag);
    }
    return nullptr;
}

ProbeResult Prober::probe(Line& line, const Clock& clock, const PortSettings& settings,
                          const Exchange::Observer& observer,
                          const std::function<bool()>& interrupted)
{
    Exchange exchange(line, clock, settings);
    exchange.setObserver(observer);
    exchange.setInterrupt(interrupted);
    Counters counters;
    ProbeResult result = ask(line, exchange, counters);
    result.counters = counters;
    return result;
}

ProbeResult Prober::ask(const Line& line, Exchange& exchange, Counters& counters)
{
    ProbeResult result;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        Protocol* sent = request();
        if (!sent)
            break;
        const Answer answer = exchange.run(QByteArray(sent->frame), counters);
        m_driver.reportSilence(*sent); // so that the next attempt starts from the beginning
        if (answer.outcome == Answer::Outcome::DeviceGone) {
            result.error = line.lossText(counters.bytesReceived);
            return result;
        }
        if (answer.outcome == Answer::Outcome::Interrupted) {
            result.error = QStringLiteral("interrupted");
            return result;
        }
        if (answer.outcome == Answer::Outcome::TimedOut)
            continue;
        exchange.acknowledge();
        result.roundTrip = answer.roundTrip;
        result.identity = decodeIdentity(answer.reply.body.bytes());
        result.answered = answer.reply.good() && result.identity.valid;
        result.heard = true;
        if (!answer.reply.good())
            result.error = QStringLiteral("the controller does not tell its identity: ") +
                           statusPhrase(answer.reply);
        else if (!result.answered)
            result.error = QStringLiteral("the controller tells an identity that is cut short");
        return result;
    }
    result.error = silenceText(counters, line.unaskedBytes() + counters.bytesReceived);
    result.heard = counters.late > 0;
    result.unexplained = !result.heard;
    return result;
}

} // namespace micro850::host
