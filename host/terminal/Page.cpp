#include "Page.h"

namespace micro850::host {

QString cut(const QString& text, int width)
{
    if (text.size() <= width)
        return text;
    return width < 1 ? QString() : text.left(width - 1) + QChar(0x2026);
}

} // namespace micro850::host
