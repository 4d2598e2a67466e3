#ifndef MICRO850_HOST_TABLEVIEW_H
#define MICRO850_HOST_TABLEVIEW_H

#include "Keyboard.h"
#include "LiveTable.h"

namespace micro850::host {

/// The order of the variables.
enum class SortOrder { Project, Name, Age };

/// The part of the live table that a terminal shows, and the keys that change it.
class TableView
{
public:
    TableView(const LiveTable& table, const QString& match, SortOrder order)
        : m_table(table), m_match(match), m_order(order)
    {
    }

    void handle(const Key& key);
    /// True once the user has asked to end.
    bool quits() const { return m_quits; }
    /// The page for a window of this size: variables, line, stations, and a line on the keys.
    Page page(int width, int rows, Duration now);
    /// Only the heading and at most so many of the variables.
    Page values(int width, int rows, Duration now);

private:
    void handleMatch(const Key& key);
    void scroll(const Key& key);
    QVector<int> shown(Duration now) const;
    QString footer() const;

    const LiveTable& m_table;
    QString m_match;
    SortOrder m_order;
    bool m_typing = false;
    QString m_matchBefore;
    bool m_quits = false;
    int m_top = 0;
    int m_room = 1;
    int m_count = 0;
};

} // namespace micro850::host

#endif
