#include "Output.h"

#include "UserError.h"
#include "ValueStore.h"

#include <cmath>
#include <iostream>
#include <unistd.h>

namespace micro850::host {

void Output::data(const Json& object, const QString& text) const
{
    if (m_json)
        std::cout << object.dump(-1, ' ', false, Json::error_handler_t::replace) << std::endl;
    else if (!text.isEmpty())
        std::cout << text.toStdString() << std::endl;
    if (!std::cout)
        throw UserError("standard output cannot be written (is its disk full?)", kExitRefused);
}

void Output::note(const QString& text) const
{
    if (!m_quiet)
        error(text);
}

void Output::error(const QString& text) const
{
    std::cout.flush();
    std::cerr << "micro850-host: " << oneLine(text.toStdString()) << std::endl;
}

Progress::Progress(const Output& output, const QString& what, int total)
    : m_what(what), m_total(total), m_shown(!output.quiet() && isatty(STDERR_FILENO) == 1)
{
}

void Progress::show(int done)
{
    if (!m_shown)
        return;
    m_drawn = true;
    std::cerr << '\r' << progressText(m_what, done, m_total).toStdString() << "\x1b[K"
              << std::flush;
}

void Progress::clear()
{
    if (m_drawn)
        std::cerr << "\r\x1b[K" << std::flush;
    m_drawn = false;
}

QString progressText(const QString& what, int done, int total)
{
    const int width = 20;
    const int full = total > 0 ? width * std::min(done, total) / total : width;
    return QStringLiteral("%1 [%2] %3/%4")
        .arg(what, QString(full, '#') + QString(width - full, '.'), QString::number(done),
             QString::number(total));
}

Json jsonOf(const QString& text)
{
    return Json(text.toStdString());
}

Json jsonOf(const CipType& type, const QByteArray& element)
{
    const QString text = elementText(type, element);
    switch (type.kind) {
    case CipKind::Boolean:
        return Json(text == QLatin1String("true"));
    case CipKind::Signed:
        return Json(text.toLongLong());
    case CipKind::Unsigned:
        return Json(text.toULongLong());
    case CipKind::Bits:
        return Json(text.toULongLong(nullptr, 16));
    case CipKind::Real: {
        // From the text, whose digits are as many as the type has.
        const double value = text.toDouble();
        return std::isfinite(value) ? Json(value) : jsonOf(text);
    }
    case CipKind::String:
        break;
    }
    return jsonOf(text);
}

Json jsonOf(const CipType& type, const QVector<QByteArray>& elements)
{
    if (elements.size() == 1)
        return jsonOf(type, elements.first());
    Json all = Json::array();
    for (const QByteArray& element : elements)
        all.push_back(jsonOf(type, element));
    return all;
}

} // namespace micro850::host
