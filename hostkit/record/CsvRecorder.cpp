#include "Recorder.h"

#include "Elements.h"
#include "UserError.h"

#include <QtCore/QFile>
#include <QtCore/QStringList>

namespace micro850::host {

namespace {

const char kHeading[] = "time,name,station,tag,element,type,value,unit,quality,error";

QString fieldText(const std::optional<CipValue>& value)
{
    return value ? valueText(*value) : QString();
}

class CsvRecorder : public Recorder
{
public:
    explicit CsvRecorder(const QString& path) : m_file(path)
    {
        // Samples are appended, so that a restart loses nothing.
        if (!m_file.open(QIODevice::ReadWrite | QIODevice::Append))
            fail(QStringLiteral("cannot be written: ") + m_file.errorString());
        m_file.seek(0);
        const QByteArray heading = m_file.readLine().trimmed();
        if (heading.isEmpty())
            m_file.write(QByteArray(kHeading) + '\n');
        else if (heading != kHeading)
            fail(QStringLiteral("does not have the heading of a recording (name a new file)"));
        save();
    }

    void add(const Sample& sample) override
    {
        const QStringList fields = {sample.time.toUTC().toString(Qt::ISODateWithMs),
                                    csvField(sample.name),
                                    QString::number(sample.station),
                                    csvField(sample.tag),
                                    QString::number(sample.element),
                                    sample.type,
                                    csvField(fieldText(sample.value)),
                                    csvField(sample.unit),
                                    sample.quality,
                                    csvField(sample.error)};
        write(fields.join(',').toUtf8() + '\n');
    }

    void flush() override { save(); }

private:
    void save()
    {
        if (!m_file.flush())
            fail(QStringLiteral("cannot be written: ") + m_file.errorString());
    }
    void write(const QByteArray& line)
    {
        if (m_file.write(line) != line.size())
            fail(QStringLiteral("cannot be written: ") + m_file.errorString());
    }
    [[noreturn]] void fail(const QString& why) const
    {
        throw UserError((m_file.fileName() + QStringLiteral(": ") + why).toStdString());
    }

    QFile m_file;
};

} // namespace

QString csvField(const QString& text)
{
    const bool plain = !text.contains(',') && !text.contains('"') && !text.contains('\n') &&
                       !text.contains('\r') && text == text.trimmed();
    if (plain)
        return text;
    QString quoted = text;
    return '"' + quoted.replace('"', QStringLiteral("\"\"")) + '"';
}

std::unique_ptr<Recorder> Recorder::csv(const QString& path)
{
    return std::make_unique<CsvRecorder>(path);
}

} // namespace micro850::host
