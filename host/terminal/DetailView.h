#ifndef MICRO850_HOST_DETAILVIEW_H
#define MICRO850_HOST_DETAILVIEW_H

#include "Key.h"
#include "TableRows.h"

#include <QtCore/QMap>

namespace micro850::host {

/// All of one variable: where it is read from, its error in full, and its elements or its text.
class DetailView
{
public:
    DetailView(const TableRows& rows, int variable) : m_rows(rows), m_variable(variable) {}

    int variable() const { return m_variable; }
    /// The element that is selected.
    int index() const { return m_rows.variable(m_variable).length > 1 ? m_index : 0; }
    /// Moves through the elements or the text.
    void handle(const Key& key);
    /// Lines for a room of this size.
    Page lines(int width, int rows);
    /// "1-8 of 10"
    QString place() const;

private:
    Page heading(int width) const;
    Page elements(int width, int room);
    Page text(int width, int room);
    void follow();
    void noteChanges(const QStringList& texts);

    /// An element as it was shown last.
    struct Seen
    {
        QString text;
        std::optional<Duration> changedAt;
    };

    const TableRows& m_rows;
    int m_variable;
    int m_index = 0; ///< the element, or the first line of the text
    int m_top = 0;
    int m_room = 1;
    int m_count = 1;
    QMap<int, Seen> m_seen; ///< by element, of those that were shown
};

} // namespace micro850::host

#endif
