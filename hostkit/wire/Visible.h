#ifndef MICRO850_HOST_VISIBLE_H
#define MICRO850_HOST_VISIBLE_H

#include "VisibleText.h"

#include <QtCore/QString>

namespace micro850::host {

using micro850::visible;
using micro850::visibleValue;

/// The functions of VisibleText for the texts of Qt. A value of a string in the controller is
/// Latin-1: convert it with QString::fromLatin1 first.
inline QString visible(const QString& text)
{
    return QString::fromStdString(micro850::visible(text.toStdString()));
}

inline QString visibleValue(const QString& text)
{
    return QString::fromStdString(micro850::visibleValue(text.toStdString()));
}

} // namespace micro850::host

#endif
