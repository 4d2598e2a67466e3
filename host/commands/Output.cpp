#include "Output.h"

#include "PlainText.h"
#include "StandardStreams.h"
#include "UserError.h"
#include "Visible.h"

#include <iostream>
#include <unistd.h>

namespace micro850::host {

void Output::data(const Json& object, const QString& text) const
{
    data(object, text.isEmpty() ? QStringList() : QStringList({text}));
}

void Output::data(const Json& object, const QStringList& lines) const
{
    std::string text;
    // A substitute would be another value.
    const bool escapes = !localeHasUnicode() && isatty(STDOUT_FILENO) == 1;
    if (m_json)
        text = visibleJson(object.dump(-1, ' ', escapes, Json::error_handler_t::replace)) + '\n';
    for (const QString& line : m_json ? QStringList() : lines)
        text += visible(line.toStdString()) + '\n';
    if (text.empty())
        return;
    prepare();
    writeStandardOutput(text);
}

void Output::note(const QString& text) const
{
    if (!m_quiet)
        error(text);
}

void Output::error(const QString& text) const
{
    prepare();
    std::cerr << "micro850-host: " << textFor(STDERR_FILENO, visible(text.toStdString()))
              << std::endl;
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
    std::cerr << '\r' << visible(progressText(m_what, done, m_total).toStdString()) << "\x1b[K"
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

} // namespace micro850::host
