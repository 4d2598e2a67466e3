#ifndef MICRO850_HOST_WRITEPROMPT_H
#define MICRO850_HOST_WRITEPROMPT_H

#include "LineEdit.h"
#include "Page.h"
#include "TableRows.h"

namespace micro850::host {

/// One element that is to be written.
struct WriteRequest
{
    int variable = 0;
    int index = 0; ///< within the variable
    const CipType* type = nullptr;
    QByteArray value; ///< in the controller's byte order
    QString name;
    QString oldText; ///< with the unit
    QString newText; ///< the same
};

/// Asks on a terminal for the new value of an element, and then whether it is to be written. Only
/// `y` writes.
class WritePrompt
{
public:
    enum class State { Typing, Asking, Confirmed, Cancelled };

    /// Throws UserError for an element that cannot be written, with the reason.
    WritePrompt(const TableRows& rows, int variable, int index);

    void handle(const Key& key);
    State state() const { return m_state; }
    /// The question and its keys, for the bottom of a page.
    Page lines(int width) const;
    /// Once it is confirmed.
    WriteRequest request() const;

private:
    void take();
    void requireLimits(const StoredValue& stored) const;
    QString oldText() const;
    QString withUnit(const QString& text) const;

    const TableRows& m_rows;
    WriteRequest m_request;
    State m_state = State::Typing;
    LineEdit m_edit;
    QString m_problem; ///< why the text is no value
    QString m_note;    ///< how it was rounded
};

} // namespace micro850::host

#endif
