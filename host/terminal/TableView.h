#ifndef MICRO850_HOST_TABLEVIEW_H
#define MICRO850_HOST_TABLEVIEW_H

#include "DetailView.h"
#include "HelpPage.h"
#include "LineEdit.h"
#include "LiveTable.h"
#include "TableRows.h"
#include "WritePrompt.h"

namespace micro850::host {

/// The order of the variables.
enum class SortOrder { Project, Name, Age };

/// What a terminal shows of the live table, and the keys that change it.
class TableView
{
public:
    /// Table and rows must live longer than this object.
    TableView(const LiveTable& table, TableRows& rows, const QString& match, SortOrder order)
        : m_table(table), m_rows(rows), m_match(match), m_order(order)
    {
    }

    void handle(const Key& key);
    /// True once the user has asked to end.
    bool quits() const { return m_quits; }
    /// True while a question waits that one key answers.
    bool asks() const { return m_prompt && m_prompt->state() == WritePrompt::State::Asking; }
    /// The write that the user confirmed since the last call.
    std::optional<WriteRequest> popWrite();
    /// Shows a line until the next key.
    void tell(const QString& message) { m_message = message; }

    /// The page for a window of this size: variables, line, stations, and a line on the keys.
    Page page(int width, int rows, Duration now);
    /// The heading and every variable in the present order, whatever is filtered.
    Page whole(int width) const;

private:
    void handleTableKey(const Key& key);
    void handleCharacter(QChar character);
    void handleMatch(const Key& key);
    void handlePrompt(const Key& key);
    void handleDetailKey(const Key& key);
    void move(const Key& key);
    void moveBy(int rows);
    void scrollBy(int rows);
    void select(int place);
    void openDetail();
    void beginWrite();

    QVector<int> sorted(QVector<int> variables) const;
    QVector<int> shown() const;
    void follow();
    Page tablePage(int width, int rows, Duration now);
    QStringList lineAndStations(Duration now, int most) const;
    Page bottom(int width) const;
    QString footer(int width) const;

    const LiveTable& m_table;
    TableRows& m_rows;
    QString m_match;
    SortOrder m_order;
    bool m_onlyErrors = false;
    std::optional<LineEdit> m_typing; ///< of a match
    QString m_matchBefore;
    std::optional<WritePrompt> m_prompt;
    std::optional<WriteRequest> m_write;
    std::optional<DetailView> m_detail;
    std::optional<HelpPage> m_help;
    QString m_message;
    bool m_quits = false;
    QVector<int> m_shown; ///< the variables of the last page, in its order
    int m_selected = 0;   ///< a variable; below 0: none
    int m_place = 0;      ///< its place among those shown
    int m_top = 0;
    int m_room = 1;
};

} // namespace micro850::host

#endif
