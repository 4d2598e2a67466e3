#include "workload.h"

#include "Func_GetOrSetData.h"
#include "Func_Initi.h"
#include "tagcommunication.h"
#include "wire.h"

#include <cstdio>
#include <cstdlib>

namespace {

const int kStation = 1;

struct Kind
{
    const char* name;
    quint16 type;
    int elements;
    int listCount;     ///< in the cyclic list, where a run of wide elements has one more than its
                       ///< elements
    int fetchCount;    ///< 16-bit words that the host fetches
    const char* value; ///< bytes of one element
    int digits = 0;    ///< least number of digits in a tag's name
};

const Kind kKinds[] = {
    {"int", 0xC3, 1, 1, 1, "34 12"},
    {"dint", 0xC4, 1, 2, 2, "78 56 34 12"},
    {"dint10", 0xC4, 10, 11, 20, "78 56 34 12"},
    {"dint62", 0xC4, 62, 63, 124, "78 56 34 12"},
    // Names are equally long in short and in long lists, so that only the number of variables
    // differs.
    {"growth", 0xC3, 1, 1, 1, "34 12", 5},
    {"int15", 0xC3, 15, 15, 15, "34 12"},
    {"lreal", 0xCB, 1, 4, 4, "18 2D 44 54 FB 21 09 40"},
    {"string20", 0xDA, 1, 10, 10, "14 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50 51 52 53 54"},
};
const char* const kWriteKind = "write";
const char* const kHandshakeKind = "handshake";

[[noreturn]] void fail(const char* what, const std::string& name)
{
    std::fprintf(stderr, "bench: %s: \"%s\"\n", what, name.c_str());
    std::abort();
}

// A write and a connection set-up are measured with one INT variable.
const Kind& kindOf(const std::string& name)
{
    for (const Kind& kind : kKinds) {
        if (name == kind.name)
            return kind;
    }
    if (name != kWriteKind && name != kHandshakeKind)
        fail("no such workload", name);
    return kKinds[0];
}

QString tagName(int number, int digits)
{
    return QString::fromLatin1("Tag%1").arg(number, digits, 10, QLatin1Char('0'));
}

} // namespace

std::vector<std::string> Workload::names()
{
    std::vector<std::string> names;
    for (const Kind& kind : kKinds)
        names.emplace_back(kind.name);
    names.emplace_back(kWriteKind);
    names.emplace_back(kHandshakeKind);
    return names;
}

Workload::Workload(const std::string& name, int variables)
    : m_settings(), m_count(0), m_next(0), m_wireBytes(0)
{
    const Kind& kind = kindOf(name);
    m_settings.defaultStation = kStation;
    m_settings.retryLimit = 2;
    m_settings.writeMode = 2;
    m_count = kind.fetchCount;
    m_value = wire::hex(kind.value).repeated(kind.elements);
    m_readReply = wire::readReply(1, kind.type, m_value);
    m_writeReply = wire::writeReply(1);
    m_identityReply = wire::identityReply(1);
    m_forwardOpenReply = wire::forwardOpenReply(2, wire::hex("5A 3C"));
    SetComInfo(&m_settings);

    QList<varName> catalogue;
    for (int i = 0; i < variables; ++i) {
        HOSTVAR variable = HOSTVAR();
        variable.tagName = tagName(i, kind.digits);
        variable.addressText = QString::fromLatin1("0");
        variable.count = kind.listCount;
        m_variables.append(variable);
        varName entry = varName();
        entry.name = variable.tagName;
        entry.kind = 2;
        if (kind.elements > 1)
            catalogue.append(entry);
    }
    PassVarName(&catalogue);
    rebuild();
    connect();
    for (int i = 0; i < variables; ++i)
        readOne();
    if (name == kWriteKind)
        m_step = [this] { set(); };
    else if (name == kHandshakeKind)
        m_step = [this] { connect(); };
    else
        m_step = [this] {
            readOne();
            fetch();
        };
}

std::function<void()> Workload::operation(const std::string& name)
{
    if (name == "step")
        return m_step;
    if (name == "cyclic")
        return [this] { readOne(); };
    if (name == "fetch")
        return [this] { fetch(); };
    if (name == "set")
        return [this] { set(); };
    if (name == "rebuild")
        return [this] { rebuild(); };
    return nullptr;
}

void Workload::rebuild()
{
    ReCreatReadVarList(&m_variables);
}

void Workload::exchange(const QByteArray& reply, int calls)
{
    const Protocol* request = ComCommunication();
    if (!request)
        fail("nothing to send for", reply.toHex().toStdString());
    m_wireBytes = request->frame.size() + reply.size();
    QByteArray received = reply;
    for (int i = 0; i < calls; ++i) {
        if (DataCom(&received, received.size())->retValue != 1)
            fail("not accepted", reply.toHex().toStdString());
    }
}

void Workload::connect()
{
    setHandshakeInformation(kStation, false);
    exchange(m_identityReply, 1);
    exchange(m_forwardOpenReply, 1);
}

void Workload::readOne()
{
    exchange(m_readReply, 2);
}

void Workload::fetch()
{
    const HOSTVAR& variable = m_variables.at(m_next);
    m_next = (m_next + 1) % m_variables.size();
    GetRegisterData(variable.tagName, 0, variable.addressText, kStation, m_fetched, m_count);
    if (m_fetched.isEmpty())
        fail("no value of", variable.tagName.toStdString());
}

void Workload::set()
{
    const HOSTVAR& variable = m_variables.at(m_next);
    m_next = (m_next + 1) % m_variables.size();
    SetRegisterData(variable.tagName, 0, variable.addressText, kStation, m_value, m_count, 1, 1);
    exchange(m_writeReply, 2);
    // Allows the next burst of writes, as the cyclic read after five writes does.
    PLC_driver.writeBurst = 0;
}
