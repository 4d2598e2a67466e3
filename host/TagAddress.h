#ifndef MICRO850_HOST_TAGADDRESS_H
#define MICRO850_HOST_TAGADDRESS_H

#include <QtCore/QString>

namespace host {

/// TAG, TAG[INDEX] or TAG[FIRST..LAST].
struct TagAddress
{
    QString tag;
    int element = 0;
    int elements = 1;

    /// The text of one of its elements: "Speed", "Level[3]".

    QString elementName(int offset) const;
    bool indexed = false;

    /// Throws UserError that names the text and the form.
    static TagAddress fromText(const QString& text);
};

/// TAG=VALUE or TAG[INDEX]=VALUE.
struct Assignment
{
    TagAddress address;
    QString value;

    static Assignment fromText(const QString& text);
};

} // namespace host

#endif
