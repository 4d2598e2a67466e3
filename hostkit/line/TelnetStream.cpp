#include "TelnetStream.h"

#include <cstring>

namespace micro850::host {

namespace {

const char kIac = '\xFF';
const quint8 kParametersBegin = 0xFA;
const quint8 kParametersEnd = 0xF0;

} // namespace

void TelnetStream::feed(const QByteArray& bytes)
{
    const char* at = bytes.constData();
    const char* const end = at + bytes.size();
    while (at != end) {
        if (m_state != State::Data) {
            handleByte(*at++);
            continue;
        }
        const void* const found = std::memchr(at, 0xFF, static_cast<size_t>(end - at));
        const char* const iac = found ? static_cast<const char*>(found) : end;
        if (iac != at)
            m_receiver.handleData(at, static_cast<int>(iac - at));
        at = iac;
        if (iac != end) {
            m_state = State::Command;
            ++at;
        }
    }
}

// A byte that is not simply data.
void TelnetStream::handleByte(char byte)
{
    const auto value = static_cast<quint8>(byte);
    switch (m_state) {
    case State::Data:
    case State::Command:
        handleCommand(value);
        break;
    case State::Offer:
        m_state = State::Data;
        m_receiver.handleOffer(m_verb, value);
        break;
    case State::Option:
        m_option = value;
        m_parameters.clear();
        m_tooLong = false;
        m_state = State::Parameters;
        break;
    case State::Parameters:
        if (byte == kIac)
            m_state = State::ParametersCommand;
        else
            keepParameter(byte);
        break;
    case State::ParametersCommand:
        m_state = State::Parameters;
        if (byte == kIac) {
            keepParameter(byte);
            break;
        }
        // Another command than the end: the end was lost, and the parameters with it.
        if (value == kParametersEnd && !m_tooLong) {
            m_state = State::Data;
            m_receiver.handleParameters(m_option, m_parameters);
        } else {
            handleCommand(value);
        }
        break;
    }
}

void TelnetStream::handleCommand(quint8 command)
{
    m_state = State::Data;
    if (command == static_cast<quint8>(kIac)) {
        m_receiver.handleData(&kIac, 1);
    } else if (command >= kTelnetWill) {
        m_verb = command;
        m_state = State::Offer;
    } else if (command == kParametersBegin) {
        m_state = State::Option;
    }
}

void TelnetStream::keepParameter(char byte)
{
    m_tooLong = m_tooLong || m_parameters.size() >= kMostParameters;
    if (!m_tooLong)
        m_parameters.append(byte);
}

QByteArray TelnetStream::escaped(const QByteArray& data)
{
    if (!data.contains(kIac))
        return data;
    QByteArray bytes = data;
    return bytes.replace(QByteArray(1, kIac), QByteArray(2, kIac));
}

QByteArray TelnetStream::offer(quint8 verb, quint8 option)
{
    return QByteArray(1, kIac).append(static_cast<char>(verb)).append(static_cast<char>(option));
}

QByteArray TelnetStream::parameters(quint8 option, const QByteArray& parameters)
{
    return offer(kParametersBegin, option) + escaped(parameters) +
           QByteArray(1, kIac).append(static_cast<char>(kParametersEnd));
}

} // namespace micro850::host
