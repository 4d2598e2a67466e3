#include "world.h"

#include "Func_GetOrSetData.h"
#include "Func_Initi.h"
#include "line.h"
#include "serial_numbers.h"
#include "wire.h"

#include <sstream>

namespace {

const int kLink = 7;
const int kChannel = 9;
const int kSeconds = 997;

/// A tag of the host; of those with an index it is an element of an array.
struct Tag
{
    const char* name;
    const char* element;
    int start, count, area, kind, indexed;
    const char* value; ///< what a write has, after a byte that tells it from others
};

// Counts for which a cyclic read, a one-shot read and a write ask for different numbers of
// elements, and values that are padded or cut.
const Tag& tagOf(char letter)
{
    static const Tag tags[] = {{"A", "0", 0, 1, 5, 3, 0, "34 56"},
                               {"Bx", "3", 3, 4, 6, 12, 1, "02 10 04 05"},
                               {"C", "0", 0, 4, 5, 1, 1, "10 42"},
                               {"Dxy", "260", 260, 9, 5, 11, 1, "02 03 10 05 06 07 08 09"},
                               {"E", "2", 2, 3, 5, 0, 1, "00 11 00 10"},
                               {"F", "0", 0, 1, 5, 2, 0, "01"}};
    return tags[letter - 'A'];
}

model::Request requestFor(const Step& step)
{
    const Tag& tag = tagOf(step.tag);
    model::Request request;
    request.kind = tag.kind;
    request.number = 10 * step.station + tag.kind;
    request.link = kLink;
    request.tag = QLatin1String(tag.name);
    request.element = QLatin1String(tag.element);
    request.area = tag.area;
    request.start = tag.start;
    request.station = step.station;
    request.count = tag.count;
    request.indexed = tag.indexed;
    return request;
}

// ---- Callbacks ----------------------------------------------------------------------------------

std::vector<model::Notice> told;

void onFinished(int channel, int kind, int number, int status)
{
    told.push_back({channel, kind, number, status});
}

void onRefresh(QList<RW_VAR>* list, int kind, int flag)
{
    told.push_back(list && list->isEmpty() ? model::Notice{kind, flag} : model::Notice{});
}

void describe(Description& description, const std::vector<model::Notice>& notices)
{
    for (const model::Notice& notice : notices) {
        description.add("callback", static_cast<qint64>(notice.size()));
        for (int argument : notice)
            description.add("  argument", argument);
    }
}

} // namespace

// ---- Steps --------------------------------------------------------------------------------------

std::vector<Step> allSteps(int stations, const std::string& tags)
{
    std::vector<Step> steps;
    for (int station = 1; station <= stations; ++station) {
        for (char tag : tags) {
            for (Act act : {Act::ReadCyclically, Act::ReadOnce, Act::Write})
                steps.push_back({act, station, tag});
        }
        steps.push_back({Act::Disable, station});
        steps.push_back({Act::Enable, station});
    }
    for (Act act = Act::Rebuild; act <= Act::Forgotten;
         act = static_cast<Act>(static_cast<int>(act) + 1))
        steps.push_back({act});
    return steps;
}

std::string nameOf(const Step& step)
{
    static const char* names[] = {"read cyclically",
                                  "read once",
                                  "write",
                                  "disable",
                                  "enable",
                                  "rebuild",
                                  "empty list",
                                  "poll",
                                  "silent look",
                                  "look at good reply",
                                  "silence",
                                  "good reply",
                                  "error reply",
                                  "corrupt reply",
                                  "cut reply",
                                  "doubled reply",
                                  "late reply",
                                  "foreign number",
                                  "connection forgotten"};
    std::string name = names[static_cast<int>(step.act)];
    if (step.tag)
        name += std::string(" ") + tagOf(step.tag).name;
    if (step.station)
        name += " of station " + std::to_string(step.station);
    return name;
}

// ---- World --------------------------------------------------------------------------------------

World::World(const std::string& tags, bool stationsPerVariable, int writeMode)
    : m_tags(tags.rbegin(), tags.rend()), m_clock(QTime(0, 0, 0))
{
    std::array<int, model::Words>& words = m_state.model.words;
    for (int i = 0; i < model::DefaultStation; ++i)
        words[static_cast<std::size_t>(i)] = 100 + i; // the host's own
    words[model::DefaultStation] = 1;
    words[model::RetryLimit] = 1;
    words[model::StationsPerVariable] = stationsPerVariable ? 1 : 0;
    words[model::LocalLink] = kLink;
    words[model::WriteMode] = writeMode;
    words[model::Channel] = kChannel;
    m_state.driver = driver_copy::expected(m_state.model);

    SetComInfo(&driver_copy::settings());
    RegistCallBackFuncIntf(onFinished, onRefresh);
    QList<varName> names;
    for (char letter : std::string("ABCDEF")) {
        const Tag& tag = tagOf(letter);
        const varName name = {QLatin1String(tag.name), tag.indexed ? 2 : 1, 0, QList<QString>()};
        names.append(name);
        if (tag.indexed)
            m_state.model.indexedTags.insert(name.name);
    }
    PassVarName(&names);
}

bool World::take(const State& from, const Step& step)
{
    if (&from != &m_state)
        m_state = from;
    driver_copy::restore(m_state.driver);
    m_driver.clear();
    m_model.clear();
    told.clear();
    m_state.model.notices.clear();
    act(step);
    describe(m_driver, told);
    describe(m_model, m_state.model.notices);
    seen("the rest is untouched", driver_copy::restIsUntouched() ? 1 : 0, 1);
    m_seen = m_driver.text().size();
    m_state.driver = driver_copy::taken();
    m_driver.add(m_state.driver);
    m_model.add(driver_copy::expected(m_state.model));
    return m_driver.text() == m_model.text();
}

const std::string& World::key()
{
    static std::string bytes;
    bytes.assign(m_driver.text(), m_seen, std::string::npos);
    bytes.append(m_state.before.constData(), static_cast<std::size_t>(m_state.before.size()));
    return bytes;
}

void World::seen(const char* name, qint64 driver, qint64 model)
{
    m_driver.add(name, driver);
    m_model.add(name, model);
}

void World::act(const Step& step)
{
    // The serial numbers of set-ups follow the time, and the time follows the transaction numbers,
    // so that a frame that is built again differs from the first one.
    static std::vector<quint32> serials;
    while (serials.size() < kSeconds)
        serials.push_back(serial_numbers::at(static_cast<int>(serials.size())));
    int second = 0;
    for (const model::Station& station : m_state.model.stations)
        second += station.number;
    second %= kSeconds;
    m_clock.setSeconds(second);
    m_serial = serials[static_cast<std::size_t>(second)];
    if (step.act < Act::Poll)
        actOfHost(step);
    else
        actOfLine(step.act);
}

void World::actOfHost(const Step& step)
{
    model::Driver& model = m_state.model;
    model::Request request = step.tag ? requestFor(step) : model::Request();
    RW_VAR record = driver_copy::recordOf(request);
    switch (step.act) {
    case Act::ReadCyclically:
        return seen("AddListReadVar", AddListReadVar(&record), model.addCyclic(request));
    case Act::ReadOnce:
        seen("AddListOnceReadVar", AddListOnceReadVar(&record, 0), model.addOnce(request));
        m_driver.add("  completed", record);
        m_model.add("  completed", driver_copy::recordOf(request));
        return;
    case Act::Write:
        request.value = static_cast<char>(model.writes.size()) + wire::hex(tagOf(step.tag).value);
        return seen("SetRegisterData",
                    SetRegisterData(request.tag, request.area, request.element, request.station,
                                    request.value, request.count, request.kind, request.number),
                    model.write(request));
    case Act::Disable:
    case Act::Enable:
        EnCommStation(step.station, step.act == Act::Enable ? 1 : 0);
        return model.enable(step.station, step.act == Act::Enable);
    default:
        return rebuild(step.act == Act::RebuildEmpty);
    }
}

void World::rebuild(bool empty)
{
    QList<HOSTVAR> records;
    QList<model::Variable> variables;
    for (char letter : empty ? std::string() : m_tags) {
        const Tag& tag = tagOf(letter);
        const model::Variable variable = {tag.area, QLatin1String(tag.element),
                                          QLatin1String(tag.name), tag.count};
        variables.append(variable);
        const HOSTVAR record = {99,           static_cast<unsigned char>(tag.area),
                                98,           variable.element,
                                variable.tag, tag.count};
        records.append(record);
    }
    seen("ReCreatReadVarList", ReCreatReadVarList(&records), m_state.model.rebuild(variables));
}

void World::actOfLine(Act act)
{
    const Protocol* sent = ComCommunication();
    const model::Transaction* expected = m_state.model.poll(m_serial);
    seen("a frame is sent", sent ? 1 : 0, expected ? 1 : 0);
    if (sent)
        m_driver.add("  sent", *sent);
    if (!expected)
        return;
    const QByteArray answer = line::good(expected->frame, expected->request.station);
    m_model.add("  sent", driver_copy::transactionOf(*expected));
    if (act == Act::Poll)
        return;
    deliver(received(act, answer), act >= Act::Silence);
    m_state.before = answer;
}

QByteArray World::received(Act act, const QByteArray& answer) const
{
    switch (act) {
    case Act::Good:
    case Act::GoodLook:
        return answer;
    case Act::Refused:
        return line::refused(answer);
    case Act::Corrupt:
        return line::corrupt(answer);
    case Act::Cut:
        return line::cut(answer);
    case Act::Doubled:
        return answer + answer;
    case Act::Late:
        return m_state.before;
    case Act::Foreign:
        return line::foreign(answer);
    case Act::Forgotten:
        return line::forgotten(answer);
    default:
        return QByteArray();
    }
}

void World::deliver(const QByteArray& bytes, bool toVerdict)
{
    model::Driver& model = m_state.model;
    bool judged = false;
    do {
        const model::Transaction& head = model.queue.first();
        judged = !model.stations.value(head.request.station).connected || head.expected != -1;
        QByteArray atDriver = bytes;
        QByteArray atModel = bytes;
        RW_VAR* result = DataCom(&atDriver, bytes.size());
        seen("DataCom", result->retValue, model.answer(atModel, bytes.size(), m_serial));
        seen("  returns its record", result == &PLC_driver.result ? 1 : 0, 1);
        m_driver.add("  reply", atDriver);
        m_model.add("  reply", atModel);
    } while (toVerdict && !judged);
}

bool World::fetch(int stations, const std::string& tags, std::uint64_t& fetched)
{
    m_driver.clear();
    m_model.clear();
    model::Driver model = m_state.model;
    PLCDataStorage = m_state.driver.stations;
    for (int station = 1; station <= stations; ++station) {
        for (char letter : tags) {
            const Tag& tag = tagOf(letter);
            const QString name = QLatin1String(tag.name);
            const QString element = QLatin1String(tag.element);
            QByteArray out, expected;
            seen("GetRegisterData", GetRegisterData(name, 0, element, station, out, tag.count),
                 model.fetch(name, element, station, tag.count, expected));
            m_driver.add("  value", out);
            m_model.add("  value", expected);
            ++fetched;
        }
    }
    return m_driver.text() == m_model.text();
}

void World::setNumbers(quint16 number)
{
    for (model::Station& station : m_state.model.stations)
        station.number = number;
    m_state.driver = driver_copy::expected(m_state.model);
}

void World::makeReadable()
{
    m_driver.makeReadable();
    m_model.makeReadable();
}

std::string World::difference() const
{
    std::istringstream driver(m_driver.text());
    std::istringstream model(m_model.text());
    std::string text;
    while (driver && model && text.size() < 2000) {
        std::string actual, expected;
        std::getline(driver, actual);
        std::getline(model, expected);
        if (actual != expected)
            text.append("  driver: ").append(actual).append("\n  model:  ").append(expected) +=
                '\n';
    }
    return text;
}
