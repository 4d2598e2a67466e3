#include "CsvForm.h"

#include <QtCore/QDateTime>
#include <ctime>
#include <gtest/gtest.h>

using namespace micro850::host;

namespace {

qint64 utc(const char* text)
{
    return QDateTime::fromString(text, Qt::ISODateWithMs).toMSecsSinceEpoch();
}

/// Sets the time zone while it lives.
struct Zone
{
    explicit Zone(const char* name)
    {
        qputenv("TZ", name);
        tzset();
    }
    ~Zone()
    {
        qunsetenv("TZ");
        tzset();
    }
};

} // namespace

TEST(CsvForm, WritesTimesAsAsked)
{
    const Zone berlin("Europe/Berlin");
    CsvForm form;
    EXPECT_EQ(form.timeText(utc("2026-07-01T12:30:05.250Z")), QString("2026-07-01T12:30:05.250Z"));
    form.time = CsvTime::Local;
    EXPECT_EQ(form.timeText(utc("2026-07-01T12:30:05.250Z")),
              QString("2026-07-01T14:30:05.250+02:00"));
    // The hour that comes twice.
    EXPECT_EQ(form.timeText(utc("2026-10-25T00:30:00.000Z")),
              QString("2026-10-25T02:30:00.000+02:00"));
    EXPECT_EQ(form.timeText(utc("2026-10-25T01:30:00.000Z")),
              QString("2026-10-25T02:30:00.000+01:00"));
    form.time = CsvTime::Spreadsheet;
    EXPECT_EQ(form.timeText(utc("2026-07-01T12:30:05.250Z")), QString("2026-07-01 14:30:05.250"));
    form.decimal = ',';
    EXPECT_EQ(form.timeText(utc("2026-07-01T12:30:05.250Z")), QString("2026-07-01 14:30:05,250"));
}

TEST(CsvForm, QuotesWhatHoldsItsSeparator)
{
    CsvForm form;
    form.separator = ';';
    EXPECT_EQ(form.line({"a,b", "c;d", "e\"f", ""}), QString("a,b;\"c;d\";\"e\"\"f\";"));
    form.separator = '\t';
    EXPECT_EQ(form.line({"a b", "c\td"}), QString("a b\t\"c\td\""));
}

TEST(WideColumn, HasAHeadingForEachElement)
{
    EXPECT_EQ((WideColumn{"Speed", "rpm", 1}.headings()), QStringList("Speed [rpm]"));
    EXPECT_EQ((WideColumn{"Speed", "", 1}.headings()), QStringList("Speed"));
    EXPECT_EQ((WideColumn{"Level", "mm", 2}.headings()),
              (QStringList{"Level[0] [mm]", "Level[1] [mm]"}));
}
