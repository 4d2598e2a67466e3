#ifndef MICRO850_HOST_SCALING_H
#define MICRO850_HOST_SCALING_H

#include "Elements.h"
#include "Project.h"

namespace micro850::host {

/// A controller's value that was made from a user's text.
struct StoredValue
{
    CipValue value;
    /// True when the number had to be rounded, so that another one is shown than the text's.
    bool rounded = false;
};

/// How the values of a variable are shown, and how a user's text becomes a value again: every
/// command shows and takes them alike. Without gain and offset a value is exact to the last bit.
class Scaling
{
public:
    /// The controller's values, with dates and times as ISO 8601.
    Scaling() = default;
    /// Numbers as value * gain + offset.
    Scaling(double gain, double offset) : m_gain(gain), m_offset(offset) {}
    explicit Scaling(const Variable& variable);
    /// The controller's own numbers, also of dates and times.
    static Scaling ofRaw();

    bool isRaw() const { return m_raw; }
    /// True when values of the type are shown with gain and offset: only numbers are.
    bool scales(const CipType& type) const;

    /// What JSON, CSV and SQLite hold for a controller's value: a scaled number, the text of a
    /// date or a time of day, or the value itself. A scaled number has as few digits as
    /// describe the controller's value.
    CipValue shown(const CipType& type, const CipValue& value) const;
    /// The same for people: durations as ISO 8601 as well, unless the scaling is raw.
    QString text(const CipType& type, const CipValue& value) const;

    /// The controller's value that a user's text describes. text() of it is the number that
    /// was given, unless it was rounded. Throws UserError for a text that is no value of the type,
    /// and for one outside of its range, which it names as the user sees it. The range of a scaled
    /// integer ends where numbers are no longer exact.
    StoredValue stored(const CipType& type, const QString& text) const;
    /// "68.3 is stored as 20, which is 68", of a text that was rounded.
    QString roundingNote(const CipType& type, const QString& text, const CipValue& value) const;

private:
    double shownNumber(const CipType& type, const CipValue& value) const;
    [[noreturn]] void refuse(const CipType& type, const QString& text) const;

    double m_gain = 1;
    double m_offset = 0;
    bool m_raw = false;
};

} // namespace micro850::host

#endif
