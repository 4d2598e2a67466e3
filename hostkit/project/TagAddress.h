#ifndef MICRO850_HOST_TAGADDRESS_H
#define MICRO850_HOST_TAGADDRESS_H

#include <QtCore/QStringList>

#include <functional>

namespace micro850::host {

/// The longest name of a tag, in characters: its length is one byte in a frame.
const int kLongestTag = 255;
/// The largest index that the longest element segment of a controller can hold.
const int kLargestElement = 65535;

/// True when a tag's name can have all these characters: letters, digits and signs, but no blanks,
/// no '=' and no brackets, which enclose an index.
bool isPlain(const QString& tag);

/// A name as lines of output show it. A name that could be taken for something else, such as
/// "Level[2]" or "A = 1", is in double quotes, with \ before each " and \ in it.
QString shownName(const QString& name);

/// True for the names of a project's variables.
using IsName = std::function<bool(const QString&)>;

/// NAME, NAME[INDEX], NAME[FIRST..LAST], NAME[FIRST..] or NAME[], each also with .BIT behind it.
/// NAME is a tag or a variable of the project.
struct TagAddress
{
    QString tag; ///< or the name of the variable
    int element = 0;
    int elements = 1;
    bool indexed = false;
    bool toEnd = false; ///< up to the last element, wherever that is: `elements` is not known yet
    int bit = -1;       ///< of each element; below 0: the whole element
    /// A tag whose name ends like a bit, so that it stands in quotes: "Word.3" is no bit of Word.
    bool looksLikeBit = false;

    /// The text of one of its elements: "Speed", "Level[3]", "Level[3].15".
    QString elementName(int offset) const;
    /// The address as users write it: "Speed", "Level[3]", "Level[0..9]".
    QString text() const;
    /// The same two for JSON: the name as it is, without quotes.
    QString exactElementName(int offset) const;
    QString exactText() const;

    /// A variable's name may contain anything: the longest one that the text begins with counts.
    /// NAME can be in double quotes, as shownName() writes it. Only a decimal number behind the
    /// last dot is a bit; any other dot belongs to the name, as in "Timer.PRE". Throws UserError
    /// that names the text and the form.
    static TagAddress fromText(const QString& text, const IsName& isName = IsName());
};

/// NAME=VALUE, NAME[INDEX]=VALUE or NAME[FIRST..LAST]=VALUE[,VALUE...].
struct Assignment
{
    TagAddress address;
    QString value;

    /// The text of each element's value. For one element it is the whole text; for several, either
    /// one text for all or one for each. A name without an index, of a variable with several
    /// elements, has one for each. Throws UserError for another number of texts.
    QStringList valuesFor(const TagAddress& elements) const;

    static Assignment fromText(const QString& text, const IsName& isName = IsName());
};

} // namespace micro850::host

#endif
