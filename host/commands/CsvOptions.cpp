#include "CsvOptions.h"

#include "UserError.h"
#include "VisibleText.h"

namespace micro850::host {

namespace {

char signOf(const std::string& option, const std::string& text,
            const std::vector<std::pair<std::string, char>>& words, const std::string& remedy)
{
    for (const auto& [word, sign] : words) {
        if (text == word || text == std::string(1, sign))
            return sign;
    }
    throw UserError(option + ": " + inQuotes(text) + " is not allowed (" + remedy + ')');
}

} // namespace

void CsvOptions::addTo(CommandOptions& command, const char* wideHelp)
{
    command.flag("--wide", wide, wideHelp);
    command.text("--separator", separator,
                 "Between the fields of --csv: comma, semicolon, tab, or the sign itself (default: "
                 "comma; semicolon with --decimal comma)");
    command.text("--decimal", decimal, "The decimal sign of --csv: point (default) or comma");
    command.flag("--bom", bom, "Begin --csv with the mark of UTF-8, which some spreadsheets need");
    command.choice("--time", time, {"utc", "local", "spreadsheet"},
                   "Times of --csv: utc (default), local with their offset from UTC, or "
                   "spreadsheet: local without an offset, in a form that spreadsheets know");
}

void CsvOptions::require(bool isCsv) const
{
    const char* const given = wide                 ? "--wide"
                              : !separator.empty() ? "--separator"
                              : !decimal.empty()   ? "--decimal"
                              : bom                ? "--bom"
                              : time != "utc"      ? "--time"
                                                   : nullptr;
    if (!isCsv && given)
        throw UserError(std::string(given) + " is for comma-separated rows (add --csv)");
}

CsvForm CsvOptions::form() const
{
    CsvForm form;
    if (!decimal.empty())
        form.decimal =
            signOf("--decimal", decimal, {{"point", '.'}, {"comma", ','}}, "point or comma");
    if (form.decimal == ',')
        form.separator = ';';
    if (!separator.empty())
        form.separator = signOf(
            "--separator", separator,
            {{"comma", ','}, {"semicolon", ';'}, {"tab", '\t'}, {"bar", '|'}, {"blank", ' '}},
            "comma, semicolon, tab, bar or blank");
    if (form.separator == form.decimal)
        throw UserError("--separator and --decimal are the same sign (choose another separator, "
                        "such as semicolon)");
    form.bom = bom;
    form.time = time == "local"         ? CsvTime::Local
                : time == "spreadsheet" ? CsvTime::Spreadsheet
                                        : CsvTime::Utc;
    return form;
}

} // namespace micro850::host
