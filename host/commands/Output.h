#ifndef MICRO850_HOST_OUTPUT_H
#define MICRO850_HOST_OUTPUT_H

#include "Json.h"

#include <QtCore/QString>
#include <QtCore/QStringList>

#include <functional>
#include <utility>

namespace micro850::host {

/// Prints the results of a command: data on standard output, everything else on standard error.
/// Whatever the texts hold, a terminal only shows it (VisibleText): each is one line.
class Output
{
public:
    Output(bool json, bool quiet) : m_json(json), m_quiet(quiet) {}

    /// `prepare` is called before each result and message: the terminal may show something else.
    Output(bool json, bool quiet, std::function<void()> prepare)
        : m_json(json), m_quiet(quiet), m_prepare(std::move(prepare))
    {
    }

    bool json() const { return m_json; }
    bool quiet() const { return m_quiet; }
    /// One result: the object with --json, the text without. An empty text prints nothing. Throws
    /// UserError when standard output cannot be written.
    void data(const Json& object, const QString& text) const;
    /// The same with a text of several lines.
    void data(const Json& object, const QStringList& lines) const;
    /// A remark that is not a result; not printed with --quiet.
    void note(const QString& text) const;
    /// A failure.
    void error(const QString& text) const;

private:
    void prepare() const
    {
        if (m_prepare)
            m_prepare();
    }

    bool m_json;
    bool m_quiet;
    std::function<void()> m_prepare;
};

/// Shows the progress of a long task on one line of standard error, when that is a terminal.
class Progress
{
public:
    Progress(const Output& output, const QString& what, int total);
    ~Progress() { clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void show(int done);
    void clear();

private:
    QString m_what;
    int m_total;
    bool m_shown;
    bool m_drawn = false;
};

/// "checking [#####.....] 12/24"
QString progressText(const QString& what, int done, int total);

} // namespace micro850::host

#endif
