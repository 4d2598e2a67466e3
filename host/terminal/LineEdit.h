#ifndef MICRO850_HOST_LINEEDIT_H
#define MICRO850_HOST_LINEEDIT_H

#include "Key.h"

#include <QtCore/QString>

namespace micro850::host {

/// A text that is typed at its end.
class LineEdit
{
public:
    explicit LineEdit(const QString& text = QString()) : m_text(text) {}

    QString text() const { return m_text; }
    /// Takes a character or Backspace; false for every other key.
    bool handle(const Key& key)
    {
        if (key.code == Key::Code::Character)
            m_text += key.character;
        else if (key.code == Key::Code::Backspace)
            m_text.chop(1);
        else
            return false;
        m_text.truncate(kMost);
        return true;
    }

private:
    static const int kMost = 1000;

    QString m_text;
};

} // namespace micro850::host

#endif
