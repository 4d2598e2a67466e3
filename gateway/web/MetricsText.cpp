#include "MetricsText.h"

#include <cmath>
#include <utility>

namespace micro850::gateway {

namespace {

QByteArray numberText(double value)
{
    if (std::isnan(value))
        return "NaN";
    if (std::isinf(value))
        return value > 0 ? "+Inf" : "-Inf";
    const double kExact = 9007199254740992.0; // 2^53
    if (value == std::floor(value) && std::abs(value) < kExact)
        return QByteArray::number(static_cast<qint64>(value));
    const int kDigits = 15;
    return QByteArray::number(value, 'g', kDigits);
}

// Other control characters have no meaning in a name, and some readers of the format stop at them.
QByteArray escaped(const QString& value)
{
    QString visible = value;
    for (QChar& character : visible) {
        if (character.unicode() < 0x20 && character != QLatin1Char('\n'))
            character = QChar::ReplacementCharacter;
    }
    return visible.toUtf8().replace('\\', "\\\\").replace('"', "\\\"").replace('\n', "\\n");
}

} // namespace

MetricsText::MetricsText(const QVector<MetricFamily>& families, QVector<QByteArray> limits)
    : m_families(families), m_limits(std::move(limits))
{
}

QByteArray MetricsText::labels(const Labels& labels)
{
    QByteArray text;
    for (const auto& label : labels) {
        if (!text.isEmpty())
            text += ',';
        text += QByteArray(label.first) + "=\"" + escaped(label.second) + '"';
    }
    return text;
}

void MetricsText::add(const char* family, const Labels& labels, double value)
{
    add(MetricKey{family, MetricsText::labels(labels)}, value);
}

void MetricsText::add(const MetricNumbers& numbers)
{
    for (auto number = numbers.constBegin(); number != numbers.constEnd(); ++number)
        add(number.key(), number.value());
}

void MetricsText::add(const MetricKey& key, double value)
{
    QByteArray name = key.family;
    QByteArray labels = key.labels;
    if (key.bucket == kSum) {
        name += "_sum";
    } else if (key.bucket == kCount) {
        name += "_count";
    } else if (key.bucket >= 0) {
        name += "_bucket";
        labels +=
            (labels.isEmpty() ? "le=\"" : ",le=\"") + m_limits.value(key.bucket, "+Inf") + '"';
    }
    QByteArray& lines = m_lines[key.family];
    lines += name;
    if (!labels.isEmpty())
        lines += '{' + labels + '}';
    lines += ' ' + numberText(value) + '\n';
}

QByteArray MetricsText::text() const
{
    QByteArray text;
    for (const MetricFamily& family : m_families) {
        const auto lines = m_lines.constFind(family.name);
        if (lines == m_lines.constEnd())
            continue;
        text += QByteArray("# HELP ") + family.name + ' ' + family.help + '\n';
        text += QByteArray("# TYPE ") + family.name + ' ' + family.type + '\n';
        text += *lines;
    }
    return text;
}

} // namespace micro850::gateway
