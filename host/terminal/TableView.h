#ifndef MICRO850_HOST_TABLEVIEW_H
#define MICRO850_HOST_TABLEVIEW_H

#include "Keyboard.h"
#include "LiveTable.h"
#include "Terminal.h"

namespace micro850::host {

/// In which order variables stand.
enum class SortOrder { Project, Name, Age };

/// The live table on a terminal: which of its rows are seen, and the keys that change that.
class TableView
{
public:
    TableView(const LiveTable& table, const QString& match, SortOrder order)
        : m_table(table), m_match(match), m_order(order)
    {
    }

    void handle(const Key& key);
    /// True once the person has asked to end.
    bool quits() const { return m_quits; }
    /// The page for a window of this size: variables, line, stations, and what the keys do.
    Page page(int width, int rows, Duration now);
    /// The heading and at most so many of the variables alone.
    Page values(int width, int rows, Duration now);

private:
    void handleMatch(const Key& key);
    void scroll(const Key& key);
    QVector<int> visible(Duration now) const;
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

/// True when a name contains the text, whatever its case; with * or ? it is a pattern for the whole
/// name. The empty text matches all.
bool matches(const QString& name, const QString& text);

} // namespace micro850::host

#endif
